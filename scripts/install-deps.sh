#!/usr/bin/env bash
# Installs the Debian packages the build, tests and benchmarks need. Idempotent: does
# nothing when everything is present.
set -euo pipefail
packages=(build-essential cmake rapidjson-dev libpugixml-dev libgtest-dev libgmock-dev
          libbenchmark-dev clang libclang-rt-dev)
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
