#!/bin/sh
# The shared object must export exactly the four entry points and nothing else.
set -eu
so="$1"
exports_only="${2:-}"
actual=$(nm -D --defined-only "$so" | awk '{print $3}' | sort | tr '\n' ' ')
expected="EM_Create EM_Delete EM_GetModuleName EM_SetupAction "
if [ "$actual" != "$expected" ]; then
  echo "exported symbols differ: got [$actual] want [$expected]"
  exit 1
fi
# Undefined symbols must come from the C/C++ runtime only. A sanitizer build links the
# module without the runtime's symbol versions (the sanitizer runtime of the executable
# provides them), so there only the exports are checked.
if [ "$exports_only" = "--exports-only" ]; then
  echo "exports: $actual"
  exit 0
fi
bad=$(nm -D --undefined-only "$so" | awk '{print $2}' | grep -v -E '@(GLIBC|GLIBCXX|CXXABI|GCC)_' \
      | grep -v -E '^(_ITM_|__gmon_start__|__cxa_finalize|__asan|__ubsan|__tsan|__sanitizer|__lsan)' || true)
if [ -n "$bad" ]; then
  echo "unexpected undefined symbols: $bad"
  exit 1
fi
echo "exports: $actual"
