#!/usr/bin/env bash
# Builds the Release benchmarks (preset bench), runs those behind the performance goals
# with repetitions, and prints one Markdown table: each goal, the figure measured in this
# run and whether the goal is met. Ratios compare medians of CPU time taken in the same
# run, so that other work on the machine weighs on both sides alike.
#
#   scripts/bench.sh            5 repetitions of each benchmark
#   REPS=9 scripts/bench.sh     more repetitions on a busy machine
#   OUT=dir scripts/bench.sh    keeps each program's full output in dir (default: a
#                               temporary directory, removed at the end)
set -euo pipefail
cd "$(dirname "$0")/.."
reps=${REPS:-5}
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
cmake --preset bench >/dev/null
cmake --build --preset bench --target oidmap_bench request_bench startup_bench msglog_bench \
  log_collection_bench cache_memory_bench store_latency_bench >/dev/null

out=${OUT:-}
if [ -z "$out" ]; then
  out=$(mktemp -d)
  trap 'rm -rf "$out"' EXIT
fi
mkdir -p "$out"
bin=build/bench/bench
for b in oidmap_bench request_bench startup_bench msglog_bench log_collection_bench; do
  # Interleaved repetitions: a burst of load from elsewhere falls on both sides of a ratio.
  "$bin/$b" --benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true >"$out/$b.txt" 2>&1
done
# Allocator counters do not vary from run to run: one run. The store's latency is one
# long run of its own.
"$bin/cache_memory_bench" >"$out/cache_memory_bench.txt" 2>&1
"$bin/store_latency_bench" >"$out/store_latency_bench.txt" 2>&1

# The number after the last colon of the first line of a file that contains a text.
after_colon() { grep -F -m1 -- "$2" "$out/$1.txt" | sed 's/.*: *//' | awk '{print $1}'; }
# Exit status 0 when the awk condition on $1 (the figure) holds.
holds() { awk -v x="$1" "BEGIN { exit !($2) }"; }
row() {  # path, goal, figure, condition on x
  local met="no"
  if [ -n "$3" ] && holds "$3" "$4"; then met="yes"; fi
  printf '| %s | %s | %s | %s |\n' "$1" "$2" "${3:-not measured}" "$met"
}

t1=$(after_colon oidmap_bench "translate(1 cabinet) / bare")
t100=$(after_colon oidmap_bench "translate(100 cabinets) / bare")
tflat=$(after_colon oidmap_bench "translate(100 cabinets) / (1 cabinet)")
r64=$(after_colon oidmap_bench "reply(64 instances) / bare")
rflat=$(after_colon oidmap_bench "reply(64 instances) / (1 instance)")
trace=$(after_colon oidmap_bench "trace site off / empty loop")
trace_ns=$(after_colon oidmap_bench "trace site off, beyond an empty loop")
fwd=$(after_colon request_bench "through the module / bare round trip")
beyond=$(grep -m1 "beyond the" "$out/startup_bench.txt" |
  sed 's/.*ms, \([0-9.-]*\) ms beyond.*/\1/')
page_ratio=$(after_colon msglog_bench "parsed each query / warm page")
page_ms=$(after_colon msglog_bench "CPU time per page, warm")
collect_u=$(grep -m1 "^unified:" "$out/log_collection_bench.txt" | sed 's/.*ratio //')
collect_o=$(grep -m1 "^old-style:" "$out/log_collection_bench.txt" | sed 's/.*ratio //')
bytes=$(grep -m1 "bytes per cached entry" "$out/cache_memory_bench.txt" | sed 's/.*: //')
mib=$(grep -m1 "full caches" "$out/cache_memory_bench.txt" | sed 's/.*: \([0-9.]*\) MiB/\1/')
worst=$(grep -m1 "worst case" "$out/cache_memory_bench.txt" | sed 's/.*: \([0-9.]*\) MiB.*/\1/')
during=$(grep -m1 "page copy during" "$out/store_latency_bench.txt" |
  sed 's/.*longest \([0-9.]*\) ms, 99th percentile \([0-9.]*\) ms.*idle \([0-9.]*\) ms.*/\1 (99th percentile \2, idle \3)/')

echo "| path | goal | measured | met |"
echo "|---|---|---|---|"
row "translated request, 1 cabinet / bare RapidJSON" "<= 2x" "$t1" "x <= 2"
row "translated request, 100 cabinets / bare RapidJSON" "<= 2x" "$t100" "x <= 2"
row "translated request, 100 / 1 cabinet" "flat (<= 1.2)" "$tflat" "x <= 1.2"
row "reply to global index, 64 instances / bare RapidJSON" "<= 2x" "$r64" "x <= 2"
row "reply to global index, 64 / 1 instance" "flat (<= 1.2)" "$rflat" "x <= 1.2"
row "forwarded request through hostsim / bare round trip" "<= 1.5x" "$fwd" "x <= 1.5"
row "start-up, 100 cabinets x 4 modules, beyond the 100 ms settle (ms)" "<= 20 ms" "$beyond" \
  "x <= 20"
row "2000-entry page, parsed per query / warm" ">= 50x" "$page_ratio" "x >= 50"
row "2000-entry page, warm (ms)" "<= 2 ms" "$page_ms" "x <= 2"
row "collect 40,000 / 2,000 entries, per entry, unified" "<= 1.5" "$collect_u" "x <= 1.5"
row "collect 40,000 / 2,000 entries, per entry, old-style" "<= 1.5" "$collect_o" "x <= 1.5"
row "trace site with level off / empty loop" "indistinguishable" "$trace" "x <= 1.25"
row "trace site with level off, beyond an empty loop (ns)" "under a clock cycle (<= 0.2 ns)" \
  "$trace_ns" "x <= 0.2"
row "100 full caches, 200,000 entries (MiB)" "<= 64 MB (61.0 MiB)" "$mib" "x <= 61.0"
row "every cache filled by hostile peers to its ceiling (MiB resident)" "< 512 MB (488.3 MiB)" \
  "$worst" "x < 488.3"
printf '| page copy during a 10 MB store with tracing, longest (ms) | measured | %s | - |\n' \
  "${during:-not measured}"
printf '| bytes per cached entry | measured | %s | - |\n' "$bytes"
echo
load_after=$(cut -d' ' -f1-3 /proc/loadavg)
echo "load average (1, 5, 15 min) before the runs: $load_before, after: $load_after;" \
  "repetitions: $reps; $(nproc) cores"
