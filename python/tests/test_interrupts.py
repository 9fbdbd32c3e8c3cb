# Blocking calls release the GIL and answer Ctrl-C: stop() from a second Python thread ends a
# motion, Ctrl-C during a motion stops the arm and raises KeyboardInterrupt, and a controller
# closed by its context manager refuses further calls.
import signal
import subprocess
import sys
import textwrap
import threading
import time

import pytest

import kestrel
from conftest import HOME, open_controller


def test_stop_from_a_second_thread_ends_a_waiting_motion(at_home):
    ticks = []

    def watchdog():
        deadline = time.monotonic() + 0.5
        while time.monotonic() < deadline:  # Python keeps running while the motion waits
            ticks.append(1)
            time.sleep(0.01)
        at_home.stop()

    thread = threading.Thread(target=watchdog)
    started = time.monotonic()
    thread.start()
    with pytest.raises(RuntimeError) as raised:
        at_home.move_joint_waypoints([[0.8, 0.6, -1.2, 0.4, -0.4, 0.6]], time_sec=6.0,
                                     speed_percent=0.0)
    thread.join()
    assert str(raised.value) == "motion stopped"
    assert time.monotonic() - started < 2.0
    assert len(ticks) >= 20


CTRL_C_CHILD = textwrap.dedent("""
    import sys, time
    import numpy as np
    import kestrel
    arm = kestrel.ArmController(True, sys.argv[1], False, kestrel.MIT_MODE, False)
    while arm.get_joint().size == 0:
        time.sleep(0.005)
    print("moving", flush=True)
    started = time.monotonic()
    try:
        arm.move_joint_waypoints([[0.8, 0.6, -1.2, 0.4, -0.4, 0.6]], 6.0, 0.0)
    except KeyboardInterrupt:
        print(f"interrupted after {time.monotonic() - started:.2f} s", flush=True)
    time.sleep(0.5)  # braking takes well under half a second
    print(f"velocity {np.abs(arm.get_control_cycle_sample().commanded_velocity).max():.6f}")
    arm.cleanup()
""")


def test_ctrl_c_during_a_motion_stops_the_arm_and_raises_keyboard_interrupt(private_sim):
    child = subprocess.Popen([sys.executable, "-c", CTRL_C_CHILD, private_sim.interface],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    lines = []
    for line in child.stdout:
        lines.append(line)
        if line.startswith("moving"):
            time.sleep(0.5)
            child.send_signal(signal.SIGINT)
            break
    lines += child.stdout.readlines()
    assert child.wait(timeout=20) == 0, "".join(lines)
    output = "".join(lines)
    interrupted = [line for line in lines if line.startswith("interrupted after")]
    assert interrupted, output
    assert float(interrupted[0].split()[2]) < 1.5, output
    assert "velocity 0.000000" in output, output


def test_context_manager_cleans_up(private_sim):
    with open_controller(private_sim.interface) as arm:
        assert arm.running()
        arm.move_joint_waypoints([HOME], 1.0, 0.0)
    assert not arm.running()
    with pytest.raises(RuntimeError):
        arm.get_joint()


def test_a_missing_interface_is_refused_with_runtime_error():
    with pytest.raises(RuntimeError, match="nosuchcan0"):
        kestrel.ArmController(True, "nosuchcan0", False, kestrel.MIT_MODE, False)
