#!/usr/bin/env python3
"""Example: streaming. A planner or a learned policy sends short chunks of waypoints from its own
loop while the arm moves; each chunk takes over from the running one a little later (switch
delay) without a jump. update_joint_waypoint_chunk returns at once.

    usage: streaming_chunks.py [INTERFACE]    (default can0)
"""
import math
import sys
import time

import kestrel


def main(interface: str) -> None:
    with kestrel.ArmController(True, interface, False, kestrel.MIT_MODE, False) as arm:
        while arm.get_joint().size == 0:
            time.sleep(0.005)
        arm.move_joint_waypoints([[0.0, 0.4, -0.9, 0.0, -0.6, 0.0]], 2.0, 0.0)
        for k in range(1, 11):  # one chunk every 0.3 s, each 0.6 s long, along a slow sweep
            phase = 0.3 * k
            target = [0.5 * math.sin(phase), 0.4 + 0.1 * math.sin(phase), -0.9, 0.0, -0.6,
                      0.3 * math.sin(phase)]
            duration = arm.update_joint_waypoint_chunk([target], time_sec=0.6, speed_percent=0.0,
                                                       switch_delay_sec=0.05)
            print(f"chunk {k:2d}: {duration:.2f} s toward joint 1 = {target[0]:+.3f} rad")
            time.sleep(0.3)
        time.sleep(0.8)  # let the last chunk finish
        print(f"joint 1 ends at {arm.get_joint()[0]:+.3f} rad")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "can0")
