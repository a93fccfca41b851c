#!/usr/bin/env bash
# Builds and runs every test: the whole suite in the default build, the Debian packages as
# an integrator installs them, then the suites that exercise threads and the shared object
# under AddressSanitizer+UBSan and ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --fuzz

cmake --preset default
cmake --build --preset default
ctest --preset default
# Everything compiled by clang with the lock annotations checked; a warning fails it.
# Then the module's sources through clang-format and clang-tidy (its compile commands).
cmake --preset clang-tsa >/dev/null
cmake --build --preset clang-tsa
bash scripts/lint.sh
# The Debian packages, unpacked into a scratch root, with a host built against them.
bash scripts/check-packages.sh

# Sanitizer runs: the suites named in SANITIZED_SUITES (those that exist).
SANITIZED_SUITES=(sip_tests trace_tests runtime_tests module_tests oidmap_tests msglog_tests platform_tests hostsim_tests e2e_tests)
for preset in asan tsan; do
  cmake --preset "$preset" >/dev/null
  available=$(cmake --build --preset "$preset" --target help)
  targets=()
  for t in "${SANITIZED_SUITES[@]}"; do
    if grep -q -x "\.\.\. $t" <<<"$available"; then
      targets+=("$t")
    fi
  done
  [ ${#targets[@]} -eq 0 ] && continue
  cmake --build --preset "$preset" --target "${targets[@]}"
  for t in "${targets[@]}"; do
    exe=$(find "build/$preset/tests" -type f -name "$t" -perm -u+x | head -n 1)
    echo "== $preset: $t"
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
      "$exe" --gtest_brief=1
  done
done
# Every parser of outside data and both message handlers under the fuzzer, 20 s each, on
# scratch copies of their seed corpora.
bash fuzz/run-all 20
# The benchmarks must keep building and running (a short run; figures come from full runs).
cmake --preset bench >/dev/null
cmake --build --preset bench
./build/bench/bench/oidmap_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/log_collection_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/request_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/msglog_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/registry_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/startup_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/cache_memory_bench --benchmark_min_time=0.01 >/dev/null
./build/bench/bench/store_latency_bench --benchmark_min_time=0.01 >/dev/null
echo "benchmarks ran"
echo "all test suites passed"
