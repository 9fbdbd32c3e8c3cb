# Shared fixtures: one simulated arm and one controller for the whole session (starting them is
# the slow part), and a private simulated arm for tests that need a controller of their own.
#
# The suite runs against the simulated arm through the SocketCAN interposer; started without it,
# pytest re-executes itself under it first.
import itertools
import time

import numpy as np
import pytest

from kestrel.simulation import run_with_interposer

run_with_interposer()

import kestrel  # noqa: E402
from kestrel.simulation import SimulatedArm  # noqa: E402

HOME = [0.0, 0.4, -0.9, 0.0, -0.6, 0.0]
_interface_numbers = itertools.count()


def wait_until(predicate, timeout=1.0):
    # True once predicate() holds (the control loop takes a command on its next cycle).
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.0025)
    return True


def open_controller(interface: str) -> kestrel.ArmController:
    arm = kestrel.ArmController(enable_gripper=True, can_interface=interface, use_canfd=False,
                                control_mode=kestrel.MIT_MODE, skip_hardware_init=False)
    deadline = time.monotonic() + 5
    while arm.get_joint().size == 0 and time.monotonic() < deadline:
        time.sleep(0.005)
    return arm


@pytest.fixture(scope="session")
def arm():
    with SimulatedArm("pytestcan0"):
        controller = open_controller("pytestcan0")
        yield controller
        controller.cleanup()


@pytest.fixture
def at_home(arm):
    # The session's arm, at rest at HOME.
    arm.stop()
    if np.abs(arm.get_joint() - HOME).max() > 1e-3:
        arm.move_joint_waypoints([HOME], time_sec=1.0, speed_percent=0.0)
    return arm


@pytest.fixture
def private_sim():
    # A simulated arm of its own (its own bus directory and interface) for one test.
    with SimulatedArm(f"pyprivate{next(_interface_numbers)}") as sim:
        yield sim
