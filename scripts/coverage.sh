#!/usr/bin/env bash
# Usage: scripts/coverage.sh
# Builds the coverage preset (GCC --coverage, no optimisation), runs the whole suite of
# that tree with ctest, and prints line and branch coverage per folder of the module's own
# code with gcovr. Branches that only an exception or unreachable code would take are left
# out, so that the branch figure speaks of the code's own decisions. Counters are updated
# atomically: the tests run threads, and racing updates would leave counts that gcov
# cannot read.
#
# COVERAGE_FOLDERS (space-separated, relative to the source tree) names the folders that
# are counted; the default is the module's own code. The full per-file report is written
# to build/coverage/coverage.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
folders=(${COVERAGE_FOLDERS:-entry oidmap module msglog platform runtime sip trace base})

bash scripts/install-deps.sh --coverage
cmake --preset coverage >/dev/null
cmake --build --preset coverage
# Counts of an earlier run would add up with this one's.
find build/coverage -name '*.gcda' -delete
ctest --preset coverage

filter="^($(IFS='|'; echo "${folders[*]}"))/"
gcovr --root . --object-directory build/coverage --filter "$filter" \
  --exclude-directories 'build/coverage/CMakeFiles' \
  --exclude-throw-branches --exclude-unreachable-branches -j 2 \
  --json-summary build/coverage/coverage.json --txt build/coverage/coverage.txt

python3 - build/coverage/coverage.json "${folders[@]}" <<'EOF'
import json
import sys

summary = json.load(open(sys.argv[1]))
folders = sys.argv[2:]
rows = {f: [0, 0, 0, 0] for f in folders}
for entry in summary["files"]:
    folder = entry["filename"].split("/", 1)[0]
    if folder in rows:
        row = rows[folder]
        row[0] += entry["line_covered"]
        row[1] += entry["line_total"]
        row[2] += entry["branch_covered"]
        row[3] += entry["branch_total"]

def percent(covered, total):
    return "%5.1f%%" % (100.0 * covered / total) if total else "    -"

print("%-10s %16s %8s %16s %8s" % ("folder", "lines", "", "branches", ""))
total = [0, 0, 0, 0]
for folder in folders:
    row = rows[folder]
    total = [a + b for a, b in zip(total, row)]
    print("%-10s %7d / %6d %8s %7d / %6d %8s" % (folder, row[0], row[1], percent(row[0], row[1]),
                                                 row[2], row[3], percent(row[2], row[3])))
print("%-10s %7d / %6d %8s %7d / %6d %8s" % ("all", total[0], total[1], percent(total[0], total[1]),
                                             total[2], total[3], percent(total[2], total[3])))
EOF
