#!/usr/bin/env bash
# The installed package, used the way a user uses it: `cmake --install` into a fresh prefix,
# an example built out of tree with find_package(kestrel) and another with pkg-config, both run
# beside the installed simulator with the installed tools; then the Debian package's contents.
#   installed_package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-install-test.XXXXXX")
sim_pid=
cleanup() {
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
libdir=$(cd "$prefix" && ls -d lib* | head -n 1)
for f in "$libdir/libkestrel.so" include/kestrel/controller/interfaces.hpp \
  "$libdir/kestrel_sdk/src/config/robot_kinematics.yaml" \
  "$libdir/kestrel_sdk/src/config/OspreyArm.SLDASM.urdf" \
  "$libdir/cmake/kestrel/kestrelConfig.cmake" "$libdir/pkgconfig/kestrel.pc" \
  bin/kestrel bin/kestrel-sim bin/kestrel-simbus bin/kestrel-monitor; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
[ ! -e "$prefix/include/kestrel/controller/arm_controller_impl.hpp" ] ||
  fail "the private implementation header was installed"

# An example built out of tree against the package (CMake), one against pkg-config.
cmake -S "$source/examples" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake.log" ||
  { cat "$work/cmake.log"; fail "find_package(kestrel) failed"; }
cmake --build "$work/examples" --target joint_moves >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; fail "the example does not build against the installed package"; }
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
# shellcheck disable=SC2046
g++ -o "$work/reading_state" "$source/examples/reading_state.cpp" \
  $(pkg-config --cflags --libs kestrel) -Wl,-rpath,"$prefix/$libdir" ||
  fail "the example does not build with pkg-config"

# Both run beside the installed simulator, through the installed interposer; the library finds
# its configuration beside itself in the prefix (run from a directory without any).
export KESTREL_SIMBUS_DIR=$work/bus
mkdir -p "$KESTREL_SIMBUS_DIR"
"$prefix/bin/kestrel" sim --serve --interface instcan0 >"$work/sim.log" 2>&1 &
sim_pid=$!
for _ in $(seq 200); do
  [ -S "$KESTREL_SIMBUS_DIR/instcan0" ] && break
  sleep 0.05
done
[ -S "$KESTREL_SIMBUS_DIR/instcan0" ] || { cat "$work/sim.log"; fail "kestrel sim did not serve"; }
cd "$work"
"$prefix/bin/kestrel-simbus" run -- "$work/examples/joint_moves" instcan0 >"$work/run.log" 2>&1 ||
  { cat "$work/run.log"; fail "the out-of-tree example failed"; }
grep -q "moved in" "$work/run.log" || { cat "$work/run.log"; fail "no move reported"; }
"$prefix/bin/kestrel-simbus" run -- "$work/reading_state" instcan0 >"$work/state.log" 2>&1 ||
  { cat "$work/state.log"; fail "the pkg-config example failed"; }
grep -q "control loop:" "$work/state.log" || { cat "$work/state.log"; fail "no state printed"; }
# The Python package, where python3 finds it for this prefix: help() works out of tree, and an
# example starts its own simulated arm with the installed tools (when the tree built it).
if [ -d "$build/python/kestrel" ]; then
  python=/usr/bin/python3
  [ -x "$python" ] || python=python3
  pydir=$(ls -d "$prefix/$libdir"/python3*/dist-packages | head -n 1)
  [ -f "$pydir/kestrel/__init__.py" ] && [ -f "$pydir/kestrel/_kestrel.pyi" ] ||
    fail "the Python package was not installed"
  PYTHONPATH=$pydir "$python" -c "import kestrel; help(kestrel.ArmController)" \
    >"$work/help.log" 2>&1 || { cat "$work/help.log"; fail "import kestrel failed"; }
  grep -q "move_joint_waypoints(self" "$work/help.log" || fail "help() lacks the motions"
  PYTHONPATH=$pydir "$python" "$source/python/examples/joint_moves.py" --sim >"$work/py.log" 2>&1 ||
    { cat "$work/py.log"; fail "the Python example failed"; }
  grep -q "moved in" "$work/py.log" || { cat "$work/py.log"; fail "no Python move reported"; }
fi
"$prefix/bin/kestrel" status --interface instcan0 >"$work/status.log" 2>&1 ||
  { cat "$work/status.log"; fail "the installed kestrel tool failed"; }

# The Debian package carries the same files under /usr.
(cd "$build" && cpack -G DEB -B "$work/deb" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$work"/deb/kestrel_*.deb)
contents=$(dpkg-deb -c "$deb")
for f in libkestrel.so kestrel_sdk/src/config/robot_kinematics.yaml usr/bin/kestrel \
  cmake/kestrel/kestrelConfig.cmake pkgconfig/kestrel.pc include/kestrel/arm/kestrel.hpp; do
  grep -q "$f" <<<"$contents" || fail "the Debian package lacks $f"
done
if [ -d "$build/python/kestrel" ]; then
  for f in usr/lib/python3/dist-packages/kestrel/__init__.py \
    "usr/lib/python3/dist-packages/kestrel/_kestrel.cpython"; do
    grep -q "$f" <<<"$contents" || fail "the Debian package lacks $f"
  done
fi
dpkg-deb -f "$deb" Depends | grep -q "liborocos-kdl" || fail "the package does not depend on KDL"
echo "installed package: OK ($(basename "$deb"))"
