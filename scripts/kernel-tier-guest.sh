#!/bin/sh
# Runs inside the kernel tier's virtual machine (busybox), after init has loaded the CAN modules
# and made the interfaces. Every step's output and exit status land in /tmp/out; the host reads
# them back from the console and does the checking, so this script only runs things.
export PATH=/opt/kestrel/bin:/bin
out=/tmp/out
mkdir -p "$out"

# step NAME COMMAND...: runs COMMAND, keeps its output, exit status and wall time.
step() {
  name=$1
  shift
  started=$(date +%s)
  "$@" >"$out/$name.out" 2>&1
  echo $? >"$out/$name.rc"
  echo $(($(date +%s) - started)) >"$out/$name.seconds"
}

step semantics /tier/can_semantics --classic vcan0 --fd vcan0fd --down vcan1 \
  --long kestrelvcan1234

# The simulated arm and the tool, classic and CAN FD, with candump logging beside them.
for mode in classic fd; do
  if [ "$mode" = classic ]; then iface=vcan0; fd=; else iface=vcan0fd; fd=--fd; fi
  # The simulated motors stand for hardware of their own: they go first on the shared CPUs
  # (started from a shell at nice -10, so every thread of theirs inherits it).
  renice -n -10 -p $$ >/dev/null
  kestrel-sim --interface "$iface" $fd --plant simple >"$out/sim-$mode.out" 2>&1 &
  sim=$!
  renice -n 10 -p $$ >/dev/null
  sleep 1
  candump -L "$iface" >"$out/status-$mode.log" &
  dump=$!
  sleep 0.5
  step "status-$mode" kestrel status --interface "$iface" $fd
  sleep 0.5
  kill $dump
  # A second attempt when the first fails: the emulated machine can starve the simulated motors
  # long enough for their communication time-out (50 ms). The host reports the attempts.
  for attempt in 1 2; do
    candump -L "$iface" >"$out/move-$mode.log" &
    dump=$!
    sleep 0.5
    step "move-$mode" kestrel move --interface "$iface" $fd --joints 0,0.1,-0.1,0,0,0 --time 1
    sleep 0.5
    kill $dump
    echo $attempt >"$out/move-$mode.attempts"
    [ "$(cat "$out/move-$mode.rc")" = 0 ] && break
  done
  kill -INT $sim
  wait $sim
  echo $? >"$out/sim-$mode.rc"
done

# The refusals: a DOWN interface, a missing one, CAN FD on a classic one.
step down kestrel status --interface vcan1
step missing kestrel status --interface nosuch0
step fd-on-classic kestrel status --interface vcan0 --fd
step monitor-fd-on-classic kestrel-monitor --fd --duration 1 vcan0

# Hand everything to the host: one block per file, compressed logs in base64.
for f in "$out"/*; do
  name=${f##*/}
  case "$name" in
    *.log)
      echo "KTIER-FILE-BEGIN $name.gz.b64"
      gzip -c "$f" | base64
      ;;
    *)
      echo "KTIER-FILE-BEGIN $name"
      cat "$f"
      ;;
  esac
  echo "KTIER-FILE-END"
done
echo "KTIER-GUEST-DONE"
