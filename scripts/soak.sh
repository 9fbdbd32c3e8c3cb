#!/usr/bin/env bash
# The soak run: random motions on the simulated arm for MINUTES minutes with the shipped
# configuration (torque monitor and run-time supervision on), one long-lived controller, a report
# line every minute (resident memory, descriptors, threads, control-loop cycles and their timing,
# missed deadlines, restarts after an emergency stop), then a summary table and a verdict.
# Exit status 1 when resident memory, descriptors or threads grew after the warm-up minute.
#
#   scripts/soak.sh 30                       thirty minutes
#   scripts/soak.sh 5 --seed 7               another sequence of motions
#   scripts/soak.sh 10 --rss-limit 8         more room for resident memory (MB over minute 1)
#
# More options go to kestrel-soak (--interval SEC, --warm-up N, --slope-limit MB_PER_MIN). The
# controller's own lines and the simulator's go to build-soak/soak-output/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

if [ $# -eq 0 ] || [ "$1" = "-h" ] || [ "$1" = "--help" ]; then
  sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'
  exit 2
fi
minutes=$1
shift

./scripts/setup.sh
build="$root/build-soak"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTREL_BUILD_BENCHMARKS=OFF \
  -DKESTREL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" \
  --target kestrel-soak kestrel-sim kestrel-simbus kestrel_simbus_preload >/dev/null

# The simulated arm in a process of its own on a private bus, so that only the program holding
# the controller is measured; it reaches the arm through the interposer, as a user's program does.
bin="$build/tools"
out="$build/soak-output"
mkdir -p "$out"
export KESTREL_SIMBUS_DIR
KESTREL_SIMBUS_DIR=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-soak.XXXXXX")
"$bin/sim/kestrel-sim" --serve --interface simcan0 >"$out/sim.log" 2>&1 &
sim_pid=$!
cleanup() {
  kill "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" 2>/dev/null || true
  rm -rf "$KESTREL_SIMBUS_DIR"
}
trap cleanup EXIT

for _ in $(seq 100); do
  [ -S "$KESTREL_SIMBUS_DIR/simcan0" ] && break
  kill -0 "$sim_pid" 2>/dev/null || { cat "$out/sim.log"; exit 1; }
  sleep 0.05
done

# glibc raises its mmap threshold after a large block is freed (a long plan, say), and from then
# on keeps freed large blocks in the process: resident memory then steps up without any leak.
# A fixed threshold hands every large block back when it is freed, so resident memory follows
# what the program holds and growth means a leak.
export MALLOC_MMAP_THRESHOLD_=131072
status=0
"$bin/simbus/kestrel-simbus" run -- "$bin/soak/kestrel-soak" --interface simcan0 \
  --minutes "$minutes" "$@" 2>"$out/controller.log" || status=$?
if ! kill -0 "$sim_pid" 2>/dev/null; then
  echo "the simulated arm ended during the run; the last lines of $out/sim.log:" >&2
  tail -n 20 "$out/sim.log" >&2
  status=1
fi
echo "(the controller's own lines: $out/controller.log)"
exit "$status"
