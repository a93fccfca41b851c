#!/usr/bin/env bash
# Usage: scripts/soak.sh MINUTES
# Builds the default preset's em_soak and em_oidmap.so and runs the soak for MINUTES: the
# module loaded with dlopen over hostsim, 20 cabinets and four lower modules
# (tests/soak/world.json), driven from several host threads at once, with resident memory,
# heap, threads and open files sampled. Exits 1 when memory grew after the warm-up, a log
# entry went missing, a host call took longer than its time-outs allow, or an answer was
# malformed (tests/soak/Soak.cpp). The machine is shared: run it with `nice -n 5`.
set -euo pipefail
minutes=${1:-}
if [ $# -ne 1 ] || ! [[ $minutes =~ ^[0-9]+([.][0-9]+)?$ ]]; then
  echo "usage: scripts/soak.sh MINUTES" >&2
  exit 2
fi
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target em_soak >/dev/null
exec ./build/default/tests/soak/em_soak "$minutes"
