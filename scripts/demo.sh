#!/usr/bin/env bash
# The Quick-start demonstration: installs what is missing, builds, starts the simulated arm on
# a private userspace CAN bus, runs the demonstration motion program against it exactly as a
# user's own program would run (through the SocketCAN interposer), then plots the record.
# Output (record and plots): demo_output/, or the directory in $KESTREL_DEMO_OUTPUT.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

./scripts/setup.sh
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$(nproc 2>/dev/null || echo 2)" \
  --target kestrel-demo kestrel-sim kestrel-simbus kestrel_simbus_preload kestrel-cli

bin="$root/build/tools"
export KESTREL_SIMBUS_DIR
KESTREL_SIMBUS_DIR=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-demo.XXXXXX")
sim_log="$KESTREL_SIMBUS_DIR/sim.log"
"$bin/sim/kestrel-sim" --serve --interface simcan0 >"$sim_log" 2>&1 &
sim_pid=$!
cleanup() {
  kill "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" 2>/dev/null || true
  rm -rf "$KESTREL_SIMBUS_DIR"
}
trap cleanup EXIT

for _ in $(seq 100); do
  [ -S "$KESTREL_SIMBUS_DIR/simcan0" ] && break
  kill -0 "$sim_pid" 2>/dev/null || { cat "$sim_log"; exit 1; }
  sleep 0.05
done
echo "== Simulated arm running on simcan0 (bus directory $KESTREL_SIMBUS_DIR)"
out=${KESTREL_DEMO_OUTPUT:-$root/demo_output}
mkdir -p "$out"
"$bin/simbus/kestrel-simbus" run -- "$bin/demo/kestrel-demo" --interface simcan0 \
  --csv "$out/demo_record.csv" "$@" 2>"$out/controller.log" || {
  echo "kestrel-demo failed; the last lines of $out/controller.log:" >&2
  tail -n 20 "$out/controller.log" >&2
  exit 1
}
echo
echo "== Plots (commanded against measured), from $out/demo_record.csv"
/usr/bin/python3 "$root/tools/demo/plot_demo.py" "$out/demo_record.csv" "$out"
echo "(the controller's own lines: $out/controller.log)"
