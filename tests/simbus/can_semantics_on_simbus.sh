#!/usr/bin/env bash
# Runs the CAN semantics program on a private userspace bus laid out like the kernel tier's
# vcan interfaces: vcan0 classic, vcan0fd CAN FD, vcan1 classic and DOWN, and a 15-character
# name.
#   can_semantics_on_simbus.sh KESTREL_SIMBUS CAN_SEMANTICS
set -euo pipefail
simbus=$1
program=$2
dir=$(mktemp -d "${TMPDIR:-/tmp}/can-semantics.XXXXXX")
hub=
cleanup() {
  [ -n "$hub" ] && kill "$hub" 2>/dev/null && wait "$hub" 2>/dev/null
  rm -rf "$dir"
}
trap cleanup EXIT
"$simbus" serve vcan0 vcan0fd vcan1 kestrelvcan1234 --classic vcan0 --classic vcan1 \
  --dir "$dir" >"$dir/hub.log" 2>&1 &
hub=$!
for _ in $(seq 200); do
  [ -S "$dir/kestrelvcan1234" ] && break
  sleep 0.05
done
"$simbus" set vcan1 down --dir "$dir" >/dev/null || { cat "$dir/hub.log"; exit 1; }
"$simbus" run --dir "$dir" -- "$program" --classic vcan0 --fd vcan0fd --down vcan1 \
  --long kestrelvcan1234
