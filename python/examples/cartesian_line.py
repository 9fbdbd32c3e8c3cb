#!/usr/bin/env python3
"""Example: a Cartesian line. move_p brings the tool above the table point to point, move_l then
draws a straight line. Poses are x, y, z (m) and roll, pitch, yaw (rad) of the tool point.

    usage: cartesian_line.py [INTERFACE]    (default can0)
"""
import math
import sys
import time

import kestrel

DOWN = math.pi  # tool pointing down: roll pi


def main(interface: str) -> None:
    with kestrel.ArmController(True, interface, False, kestrel.MIT_MODE, False) as arm:
        while arm.get_joint().size == 0:
            time.sleep(0.005)
        arm.move_p([[0.28, 0.0, 0.20, DOWN, 0.0, 0.0]], time_sec=3.0)
        duration = arm.move_l([[0.40, 0.0, 0.20, DOWN, 0.0, 0.0]], speed_percent=0.5)
        x, y, z = arm.get_end_effector_pose()[:3]
        print(f"line in {duration:.2f} s; tool at x {x:.3f} y {y:.3f} z {z:.3f} m")
        try:  # out of reach: refused before anything moves
            arm.move_l([[1.5, 0.0, 0.20, DOWN, 0.0, 0.0]])
        except RuntimeError as refusal:
            print(f"refused: {refusal}")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "can0")
