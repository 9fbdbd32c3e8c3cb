#!/usr/bin/env python3
"""Example: joint moves. A rest-to-rest move that takes a given time (set_joint returns at once;
the control thread carries it out), then a move at half the joint speed limits that waits until
the arm has arrived.

    usage: joint_moves.py [INTERFACE]    (default can0)
           joint_moves.py --sim          (starts its own simulated arm)
"""
import sys
import time

import kestrel
from kestrel.simulation import SimulatedArm, run_with_interposer


def run(interface: str) -> None:
    with kestrel.ArmController(enable_gripper=True, can_interface=interface, use_canfd=False,
                               control_mode=kestrel.MIT_MODE, skip_hardware_init=False) as arm:
        while arm.get_joint().size == 0:  # the first feedback arrives within milliseconds
            time.sleep(0.005)
        arm.set_joint([0.0, 0.4, -0.9, 0.0, -0.6, 0.0], time=2.0)
        time.sleep(2.3)
        duration = arm.move_joint_waypoints([[0.5, 0.5, -1.0, 0.3, -0.7, 0.4]], time_sec=0.0,
                                            speed_percent=0.5)
        joints = " ".join(f"{q:.3f}" for q in arm.get_joint())
        print(f"moved in {duration:.2f} s; joints now {joints} rad")


if __name__ == "__main__":
    if sys.argv[1:] == ["--sim"]:
        run_with_interposer()
        with SimulatedArm() as sim:
            run(sim.interface)
    else:
        run(sys.argv[1] if len(sys.argv) > 1 else "can0")
