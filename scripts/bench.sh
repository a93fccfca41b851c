#!/usr/bin/env bash
# Builds the Release benchmarks (preset bench), runs those behind the performance goals in
# interleaved rounds, and prints one Markdown table: each goal, the median of the figure
# over the rounds with its least and greatest value, and whether the goal is met (by the
# median). Ratios compare CPU times taken in the same program run, a few seconds apart, so
# that other work on the machine weighs on both sides alike.
#
# One round runs every program once, its benchmarks in random order; the next round does
# it again. A burst of load from elsewhere so falls on one round's figures only, which the
# median passes over, and the spread shows how much the machine moved the figures.
#
#   scripts/bench.sh            5 rounds
#   REPS=9 scripts/bench.sh     more rounds on a busy machine
#   OUT=dir scripts/bench.sh    keeps each program's output of each round in dir (default:
#                               a temporary directory, removed at the end)
#   BIN=dir scripts/bench.sh    runs the programs built in dir instead of building them
#                               (another tree's, for a before and after under one load);
#                               rows of a program that dir lacks read "not measured"
set -euo pipefail
cd "$(dirname "$0")/.."
reps=${REPS:-5}
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
started=$(date +%s)
bin=${BIN:-build/bench/bench}
if [ -z "${BIN:-}" ]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench --target oidmap_bench request_bench startup_bench msglog_bench \
    log_collection_bench cache_memory_bench store_latency_bench >/dev/null
fi
# Runs program $1 of $bin with the other arguments, its output into file $2; nothing when
# the program is missing.
run() {
  local program=$1 file=$2
  shift 2
  if [ -x "$bin/$program" ]; then "$bin/$program" "$@" >"$file" 2>&1; else : >"$file"; fi
}

out=${OUT:-}
if [ -z "$out" ]; then
  out=$(mktemp -d)
  trap 'rm -rf "$out"' EXIT
fi
mkdir -p "$out"
for ((round = 1; round <= reps; ++round)); do
  for b in oidmap_bench request_bench startup_bench msglog_bench log_collection_bench; do
    run "$b" "$out/$b.$round.txt" --benchmark_enable_random_interleaving=true
  done
done
# Allocator counters do not vary from run to run: one run. The store's latency is one
# long run of its own.
run cache_memory_bench "$out/cache_memory_bench.txt"
run store_latency_bench "$out/store_latency_bench.txt"

# One figure per round of program $1: the first word after the last colon of the first line
# that contains the text $2.
figures() {
  local f
  for f in "$out/$1".*.txt; do
    grep -F -m1 -- "$2" "$f" | sed 's/.*: *//' | awk '{print $1}'
  done
}
# "median least greatest" of the numbers on standard input; nothing when there are none.
stats() {
  sort -g | awk '{ v[NR] = $1 }
    END { if (NR == 0) exit
          m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
          printf "%.2f %.2f %.2f\n", m, v[1], v[NR] }'
}
# Exit status 0 when the awk condition on x (the median) holds.
holds() { awk -v x="$1" "BEGIN { exit !($2) }"; }
row() {  # path, goal ("measured": none), "median least greatest", condition on x
  local median least greatest met="no"
  read -r median least greatest <<<"$3" || true
  if [ "$2" = "measured" ]; then
    met="-"
  elif [ -n "$median" ] && holds "$median" "$4"; then
    met="yes"
  fi
  printf '| %s | %s | %s | %s | %s |\n' "$1" "$2" "${median:-not measured}" \
    "${least:+$least to $greatest}" "$met"
}
ratio() { figures "$1" "$2" | stats; }

echo "| path | goal | median | spread (least to greatest) | met |"
echo "|---|---|---|---|---|"
row "translated request, 1 cabinet / bare RapidJSON" "<= 1.25" \
  "$(ratio oidmap_bench "translate(1 cabinet) / bare")" "x <= 1.25"
row "translated request, 100 cabinets / bare RapidJSON" "<= 1.25" \
  "$(ratio oidmap_bench "translate(100 cabinets) / bare")" "x <= 1.25"
row "translated request, 100 / 1 cabinet" "flat (<= 1.2)" \
  "$(ratio oidmap_bench "translate(100 cabinets) / (1 cabinet)")" "x <= 1.2"
row "reply to global index, 64 instances / bare RapidJSON" "<= 1.25" \
  "$(ratio oidmap_bench "reply(64 instances) / bare")" "x <= 1.25"
row "reply to global index, 64 / 1 instance" "flat (<= 1.2)" \
  "$(ratio oidmap_bench "reply(64 instances) / (1 instance)")" "x <= 1.2"
row "forwarded request through hostsim / bare round trip" "<= 1.10" \
  "$(ratio request_bench "through the module / bare round trip")" "x <= 1.10"
row "warm 2000-entry page, the module's answer / its bytes written by RapidJSON" "<= 2" \
  "$(ratio msglog_bench "page answer / its bytes written")" "x <= 2"
# Measured, not a goal: the ratio is what keeping the files loaded saves, and it falls
# whenever loading a file gets cheaper (docs/performance.md).
row "2000-entry page alone, parsed per query / warm" "measured" \
  "$(ratio msglog_bench "parsed each query / warm page")" "0"
row "2000-entry page alone, warm (ms)" "<= 2 ms" \
  "$(ratio msglog_bench "CPU time per page, warm")" "x <= 2"
row "message file of 5,000 events x 3 languages loaded / parsed by pugixml" "<= 1.5" \
  "$(ratio msglog_bench "message file loaded / parsed by pugixml")" "x <= 1.5"
row "start-up, 100 cabinets x 16 modules, beyond the settle (ms)" "<= 20 ms" \
  "$(for f in "$out"/startup_bench.*.txt; do
       grep -m1 "beyond the" "$f" | sed 's/.*ms, \([0-9.-]*\) ms beyond.*/\1/'
     done | stats)" "x <= 20"
row "collect 40,000 / 2,000 entries, per entry, unified" "<= 1.5" \
  "$(for f in "$out"/log_collection_bench.*.txt; do
       grep -m1 "^unified:" "$f" | sed 's/.*ratio //'
     done | stats)" "x <= 1.5"
row "collect 40,000 / 2,000 entries, per entry, old-style" "<= 1.5" \
  "$(for f in "$out"/log_collection_bench.*.txt; do
       grep -m1 "^old-style:" "$f" | sed 's/.*ratio //'
     done | stats)" "x <= 1.5"
row "trace site with level off / empty loop" "indistinguishable (<= 1.25)" \
  "$(ratio oidmap_bench "trace site off / empty loop")" "x <= 1.25"
row "trace site with level off, beyond an empty loop (ns)" "under a clock cycle (<= 0.2 ns)" \
  "$(ratio oidmap_bench "trace site off, beyond an empty loop")" "x <= 0.2"
memory=$out/cache_memory_bench.txt
per_record=$(grep -m1 "/ (record + 16)" "$memory" | sed 's/.*: //' || true)
row "bytes per cached entry / (record's own bytes + 16), unified" "<= 1.5" \
  "$(echo "$per_record" | sed 's/.*unified \([0-9.]*\).*/\1/' | stats)" "x <= 1.5"
row "bytes per cached entry / (record's own bytes + 16), old-style" "<= 1.5" \
  "$(echo "$per_record" | sed 's/.*old-style \([0-9.]*\).*/\1/' | stats)" "x <= 1.5"
row "100 full caches, 200,000 entries (MiB)" "<= 64 MB (61.0 MiB)" \
  "$(grep -m1 "full caches" "$memory" | sed 's/.*: \([0-9.]*\) MiB/\1/' | stats)" "x <= 61.0"
row "every cache filled by hostile peers to its ceiling (MiB resident)" "< 512 MB (488.3 MiB)" \
  "$(grep -m1 "worst case" "$memory" | sed 's/.*: \([0-9.]*\) MiB.*/\1/' | stats)" "x < 488.3"
during=$(grep -m1 "page copy during" "$out/store_latency_bench.txt" |
  sed 's/.*longest \([0-9.]*\) ms, 99th percentile \([0-9.]*\) ms.*idle \([0-9.]*\) ms.*/\1 (99th percentile \2, idle \3)/' || true)
printf '| page copy during a 10 MB store with tracing, longest (ms) | measured | %s | - | - |\n' \
  "${during:-not measured}"
printf '| bytes per cached entry | measured | %s | - | - |\n' \
  "$(grep -m1 "bytes per cached entry:" "$memory" | sed 's/.*: //')"
echo
load_after=$(cut -d' ' -f1-3 /proc/loadavg)
echo "load average (1, 5, 15 min) before the runs: $load_before, after: $load_after;" \
  "rounds: $reps; $(nproc) cores; $(($(date +%s) - started)) s in all"
