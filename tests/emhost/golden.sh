#!/bin/sh
# Runs one emhost command and compares its standard output with a golden file.
#   golden.sh EXPECTED_FILE EXPECTED_EXIT STDIN_FILE|- COMMAND [ARGS...]
# Times ("12 ms", "0.25 s", clock times) are masked as "<time>" before the comparison. With
# EMHOST_UPDATE_GOLDEN=1 the golden file is rewritten instead.
set -u
expected=$1; expected_exit=$2; input=$3; shift 3
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
if [ "$input" = "-" ]; then
  "$@" < /dev/null > "$actual"
else
  "$@" < "$input" > "$actual"
fi
status=$?
sed -i -E 's/[0-9]+(\.[0-9]+)? ?(ms|s)\b/<time>/g; s/[0-9]{2}:[0-9]{2}:[0-9]{2}(\.[0-9]+)?/<time>/g' "$actual"
if [ "${EMHOST_UPDATE_GOLDEN:-0}" = "1" ]; then
  cp "$actual" "$expected"
fi
if [ "$status" -ne "$expected_exit" ]; then
  echo "exit status $status, expected $expected_exit" >&2
  exit 1
fi
diff -u "$expected" "$actual"
