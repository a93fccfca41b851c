#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and packages need (dpkg-dev and
# file for cpack's dpkg-shlibdeps; libedit-dev and pkg-config for the line editing of
# emhost's shell; lintian is optional: the package check runs it when present); with --fuzz
# (the test command) also clang and its runtime for the libFuzzer targets and the
# thread-safety build, clang-format and clang-tidy, and llvm (llvm-profdata and llvm-cov, for
# fuzz/run-all --coverage); with --coverage gcovr
# (scripts/coverage.sh). Idempotent: does nothing when everything is present.
set -euo pipefail
packages=(build-essential cmake ninja-build rapidjson-dev libpugixml-dev libgtest-dev
          libgmock-dev libbenchmark-dev libcli11-dev libfmt-dev libedit-dev pkg-config dpkg-dev
          file)
for option in "$@"; do
  case "$option" in
    --fuzz) packages+=(clang libclang-rt-dev clang-format clang-tidy llvm) ;;
    --coverage) packages+=(gcovr) ;;
    *) echo "install-deps.sh: unknown option $option" >&2; exit 2 ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
