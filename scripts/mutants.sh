#!/usr/bin/env bash
# Usage: [SEED=1] [COUNT=80] [FOLDERS="oidmap msglog sip runtime"] [MUTANT_TIMEOUT=s]
#        scripts/mutants.sh
# A small mutation run: do the tests catch a fault planted in the module's own code?
# Each mutant is one small change to one source file of FOLDERS:
#   flip     a comparison (== and !=, < and <=, > and >=)
#   negate   the condition of an if or while
#   constant an integer literal plus one (not the level of a trace site: the suite traces
#            at level 5 throughout, so a level shows only to a host that traces less)
#   drop     a statement that sets a status or writes a trace line (any *TRACE macro)
# The sites are found in the current sources (comments, strings and preprocessor lines
# left alone) and COUNT of them drawn with SEED, spread evenly over the folders and the
# four kinds, so that the same sources, SEED and COUNT give the same mutants.
#
# Mutants are planted in a scratch copy of the tree (build/mutants/src), never in the
# tree itself, and built one after the other in one build tree (Ninja, -O0: only the
# changed file and the targets that link it are rebuilt). Each is run against the fast
# suite under a time limit: a mutant is killed when a test fails, survives when all pass,
# times out when the suite does not end in MUTANT_TIMEOUT seconds (default: three times
# the unmutated suite's time plus 30), and is not counted when it does not compile.
# Prints one line per mutant, then the counts, the score (killed and timed out over all
# that compiled) and the survivors' file:line and change.
#
# The fast suite is ctest of that tree minus FAST_EXCLUDE (a ctest -E regex). Its default
# leaves out FaultE2ETest.CreateStartDeleteCycles_LeaveNoThreadBehind: its create, start
# and delete cycles are the suite's slowest test, and every fault in start or
# delete they could show also fails the single-cycle start, stop and delete tests.
#
# LIST_ONLY=1 prints the drawn mutants without building anything. FROM=N skips the drawn
# mutants before number N (to go on with a run that was cut short: same SEED and COUNT).
# One run at a time uses build/mutants; another one (also LIST_ONLY) is refused.
# Runs outside the test command; on a shared machine start it with nice -n 10.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seed=${SEED:-1}
count=${COUNT:-80}
folders=${FOLDERS:-oidmap msglog sip runtime}
fast_exclude=${FAST_EXCLUDE:-CreateStartDeleteCycles_LeaveNoThreadBehind}

work=$root/build/mutants
src=$work/src
bld=$work/build
plan=$work/plan
current=""  # the file of the mutant planted now, restored on any way out
child=""    # the build or suite running now, in a process group of its own

restore() {
  if [ -n "$current" ]; then
    cp "$plan/original" "$src/$current"
    current=""
  fi
}
# run COMMAND...: runs it in a session of its own and waits, so that an interrupt is
# taken at once and ends all of it (and `timeout` ends all of a suite that overruns).
run() {
  setsid "$@" &
  child=$!
  local status=0
  wait "$child" || status=$?
  child=""
  return "$status"
}
interrupted() {
  [ -n "$child" ] && kill -TERM -- "-$child" 2>/dev/null
  restore
  exit 130
}
trap restore EXIT
trap interrupted INT TERM

bash scripts/install-deps.sh
# The scratch copy brought to the tracked files as they are now. Only files whose content
# differs are written (so the build tree of an earlier run rebuilds only those); a file
# that an interrupted run had restored is newer than its mutant's objects already.
# One run at a time: the scratch copy and the plan are shared.
mkdir -p "$work"
exec 9>"$work/lock"
if ! flock -n 9; then
  echo "mutants.sh: another run is using $work" >&2
  exit 1
fi
rm -rf "$plan"
mkdir -p "$src" "$plan"
git ls-files -z | python3 -c '
import os, shutil, sys
src = sys.argv[1]
tracked = [f for f in sys.stdin.buffer.read().decode().split("\0") if f]
for f in tracked:
    target = os.path.join(src, f)
    if os.path.isfile(target) and open(f, "rb").read() == open(target, "rb").read():
        continue
    os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
    shutil.copyfile(f, target)
    shutil.copymode(f, target)
keep = set(tracked)
for dirpath, _, files in os.walk(src):
    for name in files:
        path = os.path.join(dirpath, name)
        if os.path.relpath(path, src) not in keep:
            os.remove(path)
' "$src"

# The plan: one line per mutant (number, file, line, change), the mutated file in
# $plan/<number>. Sorted by file, so that consecutive mutants rebuild less.
python3 - "$src" "$plan" "$seed" "$count" $folders <<'EOF'
import os
import random
import re
import sys

src, plan, seed, count = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
folders = sys.argv[5:]


def mask(text):
    """The text with comments, string and character literals and preprocessor lines
    blanked (newlines kept), so that offsets stay those of the original."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if line_start and c == "#":
            j = text.find("\n", i)
            j = n if j < 0 else j
            while j > 0 and text[j - 1] == "\\" and j < n:  # continued directive
                j = text.find("\n", j + 1)
                j = n if j < 0 else j
            for k in range(i, j):
                if out[k] != "\n":
                    out[k] = " "
            i = j
            continue
        if c == "\n":
            line_start = True
            i += 1
            continue
        if not c.isspace():
            line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
        elif c == 'R' and text.startswith('R"', i) and (i == 0 or not text[i - 1].isalnum()):
            open_paren = text.find("(", i)
            delim = text[i + 2:open_paren]
            j = text.find(")" + delim + '"', open_paren)
            j = n if j < 0 else j + len(delim) + 2
        elif c in "\"'" and not (c == "'" and i > 0 and text[i - 1].isalnum()):
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            j += 1
        else:
            i += 1
            continue
        for k in range(i, min(j, n)):
            if out[k] != "\n":
                out[k] = " "
        i = j
    return "".join(out)


def matching_paren(masked, open_at):
    depth = 0
    for k in range(open_at, len(masked)):
        if masked[k] == "(":
            depth += 1
        elif masked[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1


FLIP = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
COMPARISON = re.compile(r"(?<=[\w)\]]) (==|!=|<=|>=|<|>) (?=[\w(!*&:-])")
CONDITION = re.compile(r"\b(if|while) \(")
LITERAL = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.])")
TRACE_LEVEL = re.compile(r"\b[A-Z_]*TRACE\(\s*$")
STATEMENT = re.compile(r"(?m)^[ \t]*((?:[\w.>*-]*SetStatus|[A-Z_]*TRACE)\()")


def sites(path, text):
    masked = mask(text)
    found = []
    for m in COMPARISON.finditer(masked):
        op = m.group(1)
        found.append(("flip", m.start(1), m.end(1), FLIP[op], "'%s' to '%s'" % (op, FLIP[op])))
    for m in CONDITION.finditer(masked):
        open_at = m.end() - 1
        close_at = matching_paren(masked, open_at)
        if close_at < 0:
            continue
        cond = text[open_at + 1:close_at]
        found.append(("negate", open_at + 1, close_at, "!(" + cond + ")",
                      "%s condition negated" % m.group(1)))
    for m in LITERAL.finditer(masked):
        if TRACE_LEVEL.search(masked, max(0, m.start() - 16), m.start()):
            continue  # the suite traces at level 5: a level shows only to quieter hosts
        digits, suffix = m.group(1), m.group(2)
        if digits.lower().startswith("0x"):
            bumped = "0x%0*X" % (len(digits) - 2, int(digits, 16) + 1)
        elif len(digits) > 1 and digits.startswith("0"):
            continue  # octal: not written in this code
        else:
            bumped = str(int(digits) + 1)
        found.append(("constant", m.start(), m.end(), bumped + suffix,
                      "%s to %s" % (digits + suffix, bumped + suffix)))
    for m in STATEMENT.finditer(masked):
        open_at = m.end(1) - 1
        close_at = matching_paren(masked, open_at)
        semi = close_at + 1
        while 0 < semi < len(masked) and masked[semi].isspace():
            semi += 1
        if close_at < 0 or semi >= len(masked) or masked[semi] != ";":
            continue
        what = "status" if "SetStatus" in m.group(1) else "trace"
        found.append(("drop", m.start(1), semi + 1, ";", "%s statement dropped" % what))
    result = []
    for kind, start, end, replacement, description in found:
        line = text.count("\n", 0, start) + 1
        result.append((kind, path, line, start, end, replacement, description))
    return result


by_folder = {}
for folder in folders:
    candidates = []
    for dirpath, _, files in sorted(os.walk(os.path.join(src, folder))):
        for name in sorted(files):
            if not name.endswith((".cpp", ".h")):
                continue
            path = os.path.join(dirpath, name)
            rel = os.path.relpath(path, src)
            candidates.extend(sites(rel, open(path, encoding="utf-8").read()))
    by_folder[folder] = candidates

rng = random.Random(seed)
queues = []
for folder in folders:
    kinds = {}
    for site in by_folder[folder]:
        kinds.setdefault(site[0], []).append(site)
    order = []
    lists = [kinds[k] for k in sorted(kinds)]
    for lst in lists:
        rng.shuffle(lst)
    while any(lists):
        for lst in lists:
            if lst:
                order.append(lst.pop())
    queues.append(order)
chosen = []
while len(chosen) < count and any(queues):
    for queue in queues:
        if queue and len(chosen) < count:
            chosen.append(queue.pop(0))
chosen.sort(key=lambda s: (s[1], s[3]))

with open(os.path.join(plan, "list"), "w") as listing:
    for number, (kind, rel, line, start, end, replacement, description) in enumerate(chosen, 1):
        text = open(os.path.join(src, rel), encoding="utf-8").read()
        with open(os.path.join(plan, str(number)), "w", encoding="utf-8") as out:
            out.write(text[:start] + replacement + text[end:])
        listing.write("%d\t%s\t%d\t%s: %s\n" % (number, rel, line, kind, description))
total = sum(len(v) for v in by_folder.values())
print("   %d sites (%s); %d drawn with seed %d" % (
    total, ", ".join("%s %d" % (f, len(by_folder[f])) for f in folders), len(chosen), seed))
EOF

if [ -n "${LIST_ONLY:-}" ]; then
  cat "$plan/list"
  exit 0
fi

cmake -S "$src" -B "$bld" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
  -DCMAKE_C_FLAGS_DEBUG=-O0 >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log" >&2; exit 1; }

build() { run cmake --build "$bld" -j 2 >"$work/build.log" 2>&1; }
# fast_suite [COMMAND PREFIX...]: runs the fast suite, e.g. under `timeout`.
fast_suite() {
  run "$@" ctest --test-dir "$bld" -E "$fast_exclude" -j 2 --stop-on-failure >"$work/test.log" 2>&1
}

echo "== building and running the unmutated fast suite"
build || { tail -n 40 "$work/build.log" >&2; exit 1; }
started=$SECONDS
fast_suite || { tail -n 40 "$work/test.log" >&2; echo "the fast suite fails unmutated" >&2; exit 1; }
baseline=$((SECONDS - started))
limit=${MUTANT_TIMEOUT:-$((3 * baseline + 30))}
echo "   fast suite: $baseline s; limit per mutant: $limit s"

killed=0; survived=0; timedout=0; broken=0
survivors=()
total=$(wc -l <"$plan/list")
run_started=$SECONDS
while IFS=$'\t' read -r number file line change; do
  [ "$number" -lt "${FROM:-1}" ] && continue
  cp "$src/$file" "$plan/original"
  current=$file
  cp "$plan/$number" "$src/$file"
  t0=$SECONDS
  if ! build; then
    verdict="no build"
    broken=$((broken + 1))
    t1=$SECONDS
  else
    t1=$SECONDS
    status=0
    fast_suite timeout --kill-after=10 "$limit" || status=$?
    if [ "$status" -eq 0 ]; then
      verdict="survived"
      survived=$((survived + 1))
      survivors+=("$file:$line $change")
    elif [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
      verdict="timeout"
      timedout=$((timedout + 1))
    else
      verdict="killed"
      killed=$((killed + 1))
    fi
  fi
  restore
  printf '[%2d/%d] %-8s %s:%s %s (build %d s, tests %d s)\n' "$number" "$total" "$verdict" \
    "$file" "$line" "$change" $((t1 - t0)) $((SECONDS - t1))
done <"$plan/list"
# The last mutant's file back in the build, so that the next run starts from the sources.
build || true

counted=$((killed + survived + timedout))
echo "== $counted mutants built and run ($broken did not compile) in $((SECONDS - run_started)) s"
echo "   killed $killed, survived $survived, timed out $timedout"
if [ "$counted" -gt 0 ]; then
  echo "   score: $(( (100 * (killed + timedout) + counted / 2) / counted ))% killed or timed out"
  echo "   mean per counted or failed mutant: $(( (SECONDS - run_started) / (counted + broken) )) s"
fi
if [ ${#survivors[@]} -gt 0 ]; then
  echo "== survivors"
  printf '   %s\n' "${survivors[@]}"
fi
