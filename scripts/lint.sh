#!/usr/bin/env bash
# The style and static checks of the module's own sources (the host binary interface
# headers aside: hosts compile them as they are). clang-format (.clang-format) must change
# nothing and clang-tidy (.clang-tidy) must find nothing. clang-tidy reads the compile
# commands of the clang-tsa tree, which must be configured first (the test command builds
# it before this runs).
set -euo pipefail
cd "$(dirname "$0")/.."

sources() {
  git ls-files base trace module sip runtime platform msglog oidmap entry | grep -E '\.(h|cpp)$' |
    grep -v -E '^(module/CI[A-Za-z]*\.h|sip/SipJson\.h|sip/SipStatus\.h)$'
}

start=$SECONDS
# shellcheck disable=SC2046  # one argument per file name; the names hold no blanks
clang-format --style=file --dry-run -Werror $(sources)
echo "clang-format: no findings in $(sources | wc -l) files ($((SECONDS - start)) s)"

start=$SECONDS
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# Headers are checked through the sources that include them (HeaderFilterRegex). The exit
# status of run-clang-tidy does not tell findings, its output does.
# shellcheck disable=SC2046
run-clang-tidy -quiet -j 2 -p build/clang-tsa $(sources | grep '\.cpp$') 2>&1 |
  sed 's/\x1b\[[0-9;]*m//g' >"$log" || true
if grep -q -E ': (error|warning): ' "$log"; then
  grep -E ': (error|warning): ' "$log" | sort -u
  echo "clang-tidy: findings (see above)"
  exit 1
fi
echo "clang-tidy: no findings in $(sources | grep -c '\.cpp$') sources ($((SECONDS - start)) s)"
