#!/usr/bin/env bash
# Builds and runs every test: the whole suite in the default build, the Debian packages as
# an integrator installs them, then the suites that exercise threads and the shared object
# under AddressSanitizer+UBSan and ThreadSanitizer, the fuzz targets and the benchmarks.
# Each stage is a function run through `stage`, which times it; the times are printed at
# the end, also when a stage fails.
set -euo pipefail
cd "$(dirname "$0")/.."

stage_times=()
stage_name=""
stage_started=0
# stage NAME COMMAND...: runs one stage and records its wall time.
stage() {
  stage_name=$1
  shift
  stage_started=$SECONDS
  echo "=== stage $stage_name"
  "$@"
  stage_times+=("$(printf '%-10s %5d s' "$stage_name" $((SECONDS - stage_started)))")
  stage_name=""
}
print_times() {
  local status=$?
  if [ "$status" -ne 0 ] && [ -n "$stage_name" ]; then
    stage_times+=("$(printf '%-10s %5d s  FAILED' "$stage_name" $((SECONDS - stage_started)))")
  fi
  [ ${#stage_times[@]} -eq 0 ] && return
  echo "=== stage times (wall clock)"
  printf '    %s\n' "${stage_times[@]}"
  printf '    %-10s %5d s\n' total "$SECONDS"
}
trap print_times EXIT

stage_deps() {
  bash scripts/install-deps.sh --fuzz
}

stage_default() {
  cmake --preset default
  cmake --build --preset default
  ctest --preset default -j 2
}

# A minute of soak: the module under a busy host (scripts/soak.sh); its summary here, the
# whole table in build/soak.log.
stage_soak() {
  nice -n 5 bash scripts/soak.sh 1 >build/soak.log 2>&1 || { cat build/soak.log; return 1; }
  tail -n 7 build/soak.log
}

# Everything compiled by clang with the lock annotations checked; a warning fails it.
stage_clang_tsa() {
  cmake --preset clang-tsa >/dev/null
  cmake --build --preset clang-tsa
}

# The module's sources through clang-format and clang-tidy (the clang-tsa tree's compile
# commands).
stage_lint() {
  bash scripts/lint.sh
}

# The Debian packages, unpacked into a scratch root, with a host built against them.
stage_packages() {
  bash scripts/check-packages.sh
}

# The suites named in SANITIZED_SUITES (those that exist) under one sanitizer preset.
SANITIZED_SUITES=(sip_tests trace_tests runtime_tests module_tests oidmap_tests msglog_tests platform_tests hostsim_tests e2e_tests)
stage_sanitizer() {
  local preset=$1
  cmake --preset "$preset" >/dev/null
  local available
  available=$(cmake --build --preset "$preset" --target help)
  local targets=()
  for t in "${SANITIZED_SUITES[@]}"; do
    # Ninja lists "name: phony", Makefiles "... name".
    if grep -q -E "^(\.\.\. )?$t(: .*)?\$" <<<"$available"; then
      targets+=("$t")
    fi
  done
  if [ ${#targets[@]} -eq 0 ]; then
    echo "no suite of SANITIZED_SUITES found in the $preset tree"
    return 1
  fi
  cmake --build --preset "$preset" --target "${targets[@]}"
  for t in "${targets[@]}"; do
    exe=$(find "build/$preset/tests" -type f -name "$t" -perm -u+x | head -n 1)
    echo "== $preset: $t"
    run_in_two_shards "$exe"
  done
}

# Runs a GoogleTest executable as two shards at once, one per core, under the sanitizers'
# options; prints each shard's output and fails when either failed.
run_in_two_shards() {
  local exe=$1
  local logs
  logs=$(mktemp -d)
  local pids=()
  for shard in 0 1; do
    GTEST_TOTAL_SHARDS=2 GTEST_SHARD_INDEX=$shard \
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
      "$exe" --gtest_brief=1 >"$logs/$shard" 2>&1 &
    pids+=($!)
  done
  local status=0
  for pid in "${pids[@]}"; do
    wait "$pid" || status=1
  done
  cat "$logs/0" "$logs/1"
  rm -rf "$logs"
  return "$status"
}

# Every parser of outside data and both message handlers under the fuzzer, 10 s each, on
# scratch copies of their seed corpora (longer runs: fuzz/run-all SECONDS).
stage_fuzz() {
  bash fuzz/run-all 10
}

# The benchmarks must keep building and running (a short run; figures come from full runs).
# They come from the Release tree of the packages, which builds them too.
stage_bench() {
  for b in oidmap_bench log_collection_bench request_bench msglog_bench registry_bench \
           startup_bench cache_memory_bench store_latency_bench; do
    "./build/package/bench/$b" --benchmark_min_time=0.01 >/dev/null
  done
  echo "benchmarks ran"
}

stage deps stage_deps
stage default stage_default
stage soak stage_soak
stage clang-tsa stage_clang_tsa
stage lint stage_lint
stage packages stage_packages
stage asan stage_sanitizer asan
stage tsan stage_sanitizer tsan
stage fuzz stage_fuzz
stage bench stage_bench
echo "all test suites passed"
