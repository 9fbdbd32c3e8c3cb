#!/usr/bin/env bash
# The fault-injection matrix: every activity (holding, a joint waypoint motion, chunk streaming,
# move_l, gravity-compensation floating, gripper closing) with every fault (silent motors, each
# motor status code, external torques, reply loss and delay, an unknown payload, the interface
# going down, the simulator killed), on the simulated arm. Writes docs/fault-matrix.md and exits
# non-zero when a cell is not at its expected outcome.
#
#   scripts/fault-matrix.sh [BUILD_DIR] [-- extra kestrel-fault-matrix options]
#   e.g. scripts/fault-matrix.sh build -- --cell waypoints:silent-joint --echo
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${1:-build}
shift || true
if [ "${1:-}" = "--" ]; then
  shift
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTREL_BUILD_BENCHMARKS=OFF >/dev/null
fi
cmake --build "$build" --target kestrel-fault-matrix kestrel-sim -j"$(nproc)" >/dev/null

commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
if [ -n "$(git status --porcelain --untracked-files=no 2>/dev/null)" ]; then
  commit="$commit (with local changes)"
fi
if [ $# -gt 0 ]; then
  exec "$build/tools/faults/kestrel-fault-matrix" "$@"
fi
start=$(date +%s)
status=0
"$build/tools/faults/kestrel-fault-matrix" --all --retries 1 --commit "$commit" \
  --markdown docs/fault-matrix.md | grep -v '^urdf ' || status=$?
echo "fault matrix: $(( $(date +%s) - start )) s, table in docs/fault-matrix.md"
exit $status
