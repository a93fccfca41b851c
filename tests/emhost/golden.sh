#!/bin/sh
# Runs one emhost command and compares its standard output with a golden file, and its
# standard error with GOLDEN.err when that file exists.
#   golden.sh EXPECTED_FILE EXPECTED_EXIT STDIN_FILE|- COMMAND [ARGS...]
# Times ("12 ms", "0.25 s", clock times) are masked as "<time>" before the comparison, and
# on standard error thread ids ("0x7F3A12C4") as "<id>". With EMHOST_UPDATE_GOLDEN=1 the
# golden files are rewritten instead.
set -u
expected=$1; expected_exit=$2; input=$3; shift 3
expected_err="${expected%.out}.err"
actual=$(mktemp)
actual_err=$(mktemp)
trap 'rm -f "$actual" "$actual_err"' EXIT
if [ "$input" = "-" ]; then
  "$@" < /dev/null > "$actual" 2> "$actual_err"
else
  "$@" < "$input" > "$actual" 2> "$actual_err"
fi
status=$?
times='s/[0-9]+(\.[0-9]+)? ?(ms|s)\b/<time>/g; s/[0-9]{2}:[0-9]{2}:[0-9]{2}(\.[0-9]+)?/<time>/g'
sed -i -E "$times" "$actual"
sed -i -E "$times; s/0x[0-9A-Fa-f]{8,9}\b/<id>/g" "$actual_err"
if [ "${EMHOST_UPDATE_GOLDEN:-0}" = "1" ]; then
  cp "$actual" "$expected"
  [ -f "$expected_err" ] && cp "$actual_err" "$expected_err"
fi
if [ "$status" -ne "$expected_exit" ]; then
  cat "$actual_err" >&2
  echo "exit status $status, expected $expected_exit" >&2
  exit 1
fi
if [ -f "$expected_err" ]; then
  diff -u "$expected_err" "$actual_err" || exit 1
else
  cat "$actual_err" >&2
fi
diff -u "$expected" "$actual"
