#!/usr/bin/env bash
# The kernel tier: the library, the simulated arm and the tools on the real kernel's SocketCAN.
#
# Boots Debian's stock kernel under qemu (software emulation: no KVM needed) with vcan0 (classic,
# MTU 16), vcan0fd (CAN FD, MTU 72), vcan1 (DOWN) and kestrelvcan1234 (a 15-character name);
# copies an installed prefix in and runs, inside: the CAN semantics program that the
# userspace-bus tests run too, `kestrel status` and a short `kestrel move` classic and FD beside
# the simulated arm, the refusals (DOWN, missing, CAN FD on a classic interface), with `candump`
# logging the bus. Then it runs the same commands on the userspace bus and compares both
# candump logs frame by frame, decoded by `kestrel-monitor --log`.
#
#   scripts/kernel-tier.sh BUILD_DIR [WORK_DIR]
#
# BUILD_DIR is a configured and built plain (not sanitizer) tree. WORK_DIR (default
# BUILD_DIR/kernel-tier) keeps the downloaded kernel between runs and the last run's files.
# Exit status: 0 passed, 1 failed, 77 skipped (qemu or the kernel cannot be had here; the reason
# is printed). KESTREL_KERNEL_TIER_TIMEOUT bounds the virtual machine (seconds, default 240).
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: kernel-tier.sh BUILD_DIR [WORK_DIR]}" && pwd)
work=${2:-$build/kernel-tier}
mkdir -p "$work"
work=$(cd "$work" && pwd)
started=$(date +%s)

skip() {
  echo "kernel tier skipped: $*"
  exit 77
}
fail() {
  echo "kernel tier FAILED: $*" >&2
  exit 1
}
note() { echo "[kernel-tier $(($(date +%s) - started)) s] $*"; }

for tool in qemu-system-x86_64 busybox cpio gzip candump; do
  command -v "$tool" >/dev/null 2>&1 ||
    skip "'$tool' is not installed (Debian: qemu-system-x86 busybox-static cpio can-utils)"
done
busybox_path=$(command -v busybox)
if ldd "$busybox_path" >/dev/null 2>&1; then
  skip "busybox at $busybox_path is not the static one (Debian: busybox-static)"
fi

# --- The kernel: Debian's stock image and its CAN modules, unpacked from the package. ---------
kernel_dir=$work/kernel
modules=(net/can/can.ko net/can/can-raw.ko drivers/net/can/dev/can-dev.ko drivers/net/can/vcan.ko)
fetch_kernel() {
  local package deb
  package=$(apt-cache depends linux-image-amd64 2>/dev/null |
    awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
  [ -n "$package" ] || return 1
  rm -rf "$kernel_dir.part" && mkdir -p "$kernel_dir.part"
  (cd "$kernel_dir.part" && apt-get download "$package" >download.log 2>&1) || return 1
  deb=$(ls "$kernel_dir.part"/*.deb)
  (cd "$kernel_dir.part" && dpkg-deb --fsys-tarfile "$deb" |
    tar -x --wildcards './boot/vmlinuz-*' "${modules[@]/#/./lib/modules/*/kernel/}") || return 1
  rm -f "$deb"
  rm -rf "$kernel_dir" && mv "$kernel_dir.part" "$kernel_dir"
}
if ! ls "$kernel_dir"/boot/vmlinuz-* >/dev/null 2>&1; then
  note "fetching Debian's linux-image-amd64"
  fetch_kernel || skip "cannot download Debian's linux-image-amd64 (no package lists or no network)"
fi
vmlinuz=$(ls "$kernel_dir"/boot/vmlinuz-* | head -n 1)

# --- The guest's root: busybox, candump, the installed prefix, the semantics program, and the
# shared libraries they need, at the paths the host has them. ----------------------------------
root=$work/root
rm -rf "$root" && mkdir -p "$root"/{bin,proc,sys,dev,tmp,tier,opt/kestrel,lib/modules}
cp "$busybox_path" "$root/bin/busybox"
for applet in $("$busybox_path" --list); do
  [ -e "$root/bin/$applet" ] || ln -s busybox "$root/bin/$applet"
done
cmake --install "$build" --prefix "$root/opt/kestrel" --strip >"$work/install.log"
rm -rf "$root/opt/kestrel/include" "$root/opt/kestrel/share"
# The emulated CPU runs the control loop's floating point in software, some 40 times slower
# than the host: the loop misses deadlines, and the run-time acceleration and jerk checks, which
# difference the velocity feedback over a fixed 5 ms, read that jitter as motion and stop the arm.
# They are turned off in the guest; everything else runs as shipped.
guest_config=$(find "$root/opt/kestrel" -name robot_kinematics.yaml)
sed -i '/^runtime_joint_safety:/,/enabled:/ s/enabled: true/enabled: false/' "$guest_config"
grep -A1 '^runtime_joint_safety:' "$guest_config" | grep -q 'enabled: false' ||
  fail "could not turn the run-time checks off in $guest_config"
semantics=$build/tests/simbus/can_semantics
[ -x "$semantics" ] || fail "$semantics is not built"
cp "$semantics" "$root/tier/can_semantics"
cp "$(command -v candump)" "$root/bin/candump"
for m in "${modules[@]}"; do
  cp "$kernel_dir"/lib/modules/*/kernel/"$m" "$root/lib/modules/"
done
find "$root/opt/kestrel" "$root/tier" "$root/bin/candump" -type f -perm -u+x -o -name '*.so*' |
  while read -r elf; do ldd "$elf" 2>/dev/null || true; done |
  awk '/=> \// {print $3} /^[ \t]*\/lib/ {print $1}' | sort -u |
  while read -r lib; do
    mkdir -p "$root$(dirname "$lib")"
    cp -L "$lib" "$root$lib"
  done
cp "$source_dir/scripts/kernel-tier-guest.sh" "$root/tier/guest.sh"
cat >"$root/init" <<'EOF'
#!/bin/sh
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t tmpfs tmp /tmp
for m in can can-raw can-dev vcan; do insmod /lib/modules/$m.ko || echo "KTIER-ERROR insmod $m"; done
ip link add dev vcan0 type vcan && ip link set vcan0 mtu 16 && ip link set vcan0 up
ip link add dev vcan0fd type vcan && ip link set vcan0fd mtu 72 && ip link set vcan0fd up
ip link add dev vcan1 type vcan && ip link set vcan1 mtu 16
ip link add dev kestrelvcan1234 type vcan && ip link set kestrelvcan1234 mtu 72 &&
  ip link set kestrelvcan1234 up
echo "KTIER-GUEST-START $(uname -r) $(cat /sys/devices/system/clocksource/clocksource0/current_clocksource) $(nproc)"
sh /tier/guest.sh
poweroff -f
EOF
chmod +x "$root/init" "$root/tier/guest.sh"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1 >"$work/initramfs.gz")
note "guest image: $(du -h "$work/initramfs.gz" | cut -f1) compressed; booting $(basename "$vmlinuz")"

# --- Boot. Two emulated CPUs, so that the simulated arm and the controller run side by side. ---
console=$work/console.log
# KVM is not used: where it exists it may not boot this kernel, and emulation runs everywhere.
# The TSC as clock source: reading the emulated HPET costs far more under emulation.
timeout "${KESTREL_KERNEL_TIER_TIMEOUT:-240}" qemu-system-x86_64 \
  -accel tcg,thread=multi,tb-size=512 -cpu max -smp 2 -m 1024 -nographic -no-reboot \
  -kernel "$vmlinuz" -initrd "$work/initramfs.gz" \
  -append "console=ttyS0 quiet panic=-1 clocksource=tsc tsc=reliable" \
  </dev/null >"$console" 2>&1 || fail "the virtual machine did not finish (see $console)"
tr -d '\r' <"$console" >"$console.txt"
grep -q '^KTIER-GUEST-DONE' "$console.txt" || fail "the guest did not finish (see $console.txt)"
grep '^KTIER-ERROR' "$console.txt" && fail "the guest could not set up its interfaces"
note "guest ran on Linux $(grep -o 'KTIER-GUEST-START .*' "$console.txt" | cut -d' ' -f2)"

# --- Unpack the guest's files. --------------------------------------------------------------
guest=$work/guest
rm -rf "$guest" && mkdir -p "$guest"
awk -v dir="$guest" '
  /^KTIER-FILE-BEGIN / { file = dir "/" $2; printf "" > file; next }
  /^KTIER-FILE-END$/ { close(file); file = ""; next }
  file != "" { print >> file }
' "$console.txt"
for f in "$guest"/*.gz.b64; do
  [ -e "$f" ] || continue
  base64 -d <"$f" | gunzip >"${f%.gz.b64}"
  rm "$f"
done
note "guest files: $(ls "$guest" | wc -l)"

# --- The same commands on the userspace bus, with candump through the interposer. -------------
tools=$build/tools
host=$work/userspace-bus
rm -rf "$host" && mkdir -p "$host/bus"
export KESTREL_SIMBUS_DIR=$host/bus
simbus_run=("$tools/simbus/kestrel-simbus" run --)  # it execs the program: $! is the program
background=()
stop() {  # stop PID: Ctrl-C, then SIGKILL if it is still there after 3 s
  kill -INT "$1" 2>/dev/null || return 0
  for _ in $(seq 30); do kill -0 "$1" 2>/dev/null || break; sleep 0.1; done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
stop_background() {
  for pid in "${background[@]}"; do stop "$pid"; done
  background=()
}
trap stop_background EXIT
for mode in classic fd; do
  if [ "$mode" = classic ]; then fd=(); else fd=(--fd); fi
  "$tools/sim/kestrel-sim" --serve --interface vcan0 "${fd[@]}" --plant simple \
    >"$host/sim-$mode.out" 2>&1 &
  background+=($!)
  for _ in $(seq 200); do [ -S "$KESTREL_SIMBUS_DIR/vcan0" ] && break; sleep 0.05; done
  for command in status move; do
    # A move that did not end cleanly (a machine stall long enough for the motors' own time-out
    # ends in an emergency stop and its extra frames) is made once more, with a fresh log.
    for attempt in 1 2; do
      "${simbus_run[@]}" candump -L vcan0 >"$host/$command-$mode.log" &
      dump=$!
      sleep 0.3
      if [ "$command" = status ]; then
        "${simbus_run[@]}" "$tools/cli/kestrel" status --interface vcan0 "${fd[@]}" \
          >"$host/$command-$mode.out" 2>&1 || true
      else
        "${simbus_run[@]}" "$tools/cli/kestrel" move --interface vcan0 "${fd[@]}" \
          --joints 0,0.1,-0.1,0,0,0 --time 1 >"$host/$command-$mode.out" 2>&1 || true
      fi
      sleep 0.3
      stop "$dump"
      if [ "$command" = status ] || { grep -q "moved in" "$host/$command-$mode.out" &&
        ! grep -q "emergency_stop_flag=1" "$host/$command-$mode.out"; }; then
        break
      fi
      note "the userspace-bus $command ($mode) did not end cleanly; made once more"
      cp "$host/$command-$mode.out" "$host/$command-$mode.attempt$attempt.out"
    done
  done
  stop_background
done
unset KESTREL_SIMBUS_DIR

# --- The checks. ------------------------------------------------------------------------------
failures=0
check() {  # check ok|fail TEXT: prints one result line, counts the failures
  if [ "$1" = ok ]; then
    echo "  ok    $2"
  else
    echo "  FAIL  $2"
    failures=$((failures + 1))
  fi
}
rc() { cat "$guest/$1.rc" 2>/dev/null || echo missing; }
expect() {  # expect STEP STATUS TEXT: the guest step ended with STATUS and printed TEXT
  local step=$1 status=$2 text=$3
  if [ "$(rc "$step")" = "$status" ] && grep -qF -- "$text" "$guest/$step.out"; then
    check ok "$step: exit $status, \"$text\" ($(cat "$guest/$step.seconds") s)"
  else
    check fail "$step: expected exit $status and \"$text\", got exit $(rc "$step"):"
    sed 's/^/          /' "$guest/$step.out" | tail -n 15
  fi
}
echo "kernel tier results (Linux $(grep -o 'KTIER-GUEST-START .*' "$console.txt" | cut -d' ' -f2)):"
expect semantics 0 "[  PASSED  ]"
for mode in classic fd; do
  expect "status-$mode" 0 "7 of 7 motors answered"
  expect "move-$mode" 0 "moved in"
  attempts=$(cat "$guest/move-$mode.attempts" 2>/dev/null || echo 1)
  [ "$attempts" = 1 ] || echo "        note: move-$mode passed on attempt $attempts"
  lost=$(grep -c "(Communication lost)" "$guest/move-$mode.out" || true)
  [ "$lost" = 0 ] ||
    echo "        note: $lost motor(s) reported a communication time-out during move-$mode: the emulated CPU starved the simulated motors"
done
expect down 1 "CAN interface 'vcan1' is DOWN (bring it up: sudo ip link set vcan1 up"
expect missing 1 "cannot open CAN interface 'nosuch0': No such device"
expect fd-on-classic 1 "CAN interface 'vcan0' is not CAN FD capable (MTU 16)"
expect monitor-fd-on-classic 1 "CAN interface 'vcan0' is not CAN FD capable (MTU 16)"
monitor=$tools/monitor/kestrel-monitor
for mode in classic fd; do
  for command in status move; do
    name=$command-$mode
    "$monitor" --log "$guest/$name.log" >"$guest/$name.decoded" 2>&1 || true
    "$monitor" --log "$host/$name.log" >"$host/$name.decoded" 2>&1 || true
    how=$([ "$command" = status ] && echo exact || echo motion)
    if result=$("$source_dir/scripts/compare-can-logs.py" "$how" "$host/$name.decoded" \
      "$guest/$name.decoded"); then
      check ok "candump $name: kernel and userspace bus carry the same frames ($result)"
    else
      check fail "candump $name: kernel and userspace bus differ:"
      echo "$result" | sed 's/^/          /'
    fi
  done
done
elapsed=$(($(date +%s) - started))
echo "kernel tier: $failures failure(s), $elapsed s in all"
[ "$failures" = 0 ]
