#!/usr/bin/env python3
"""What one binding call costs against the same call from C++: both query the same simulated
arm, timed the same way (the mean of 1000 back-to-back calls, median over 200 batches), and the
figures are printed side by side. Not a test: it asserts nothing.

    usage: binding_overhead.py PATH/TO/kestrel-python-call-reference
"""
import statistics
import subprocess
import sys
import time

from kestrel.simulation import SimulatedArm, run_with_interposer

run_with_interposer()

import kestrel  # noqa: E402

CALLS_PER_BATCH, BATCHES = 1000, 200


def median_ns_per_call(call) -> float:
    batches = []
    for _ in range(BATCHES):
        start = time.perf_counter_ns()
        for _ in range(CALLS_PER_BATCH):
            call()
        batches.append((time.perf_counter_ns() - start) / CALLS_PER_BATCH)
    return statistics.median(batches)


def main(reference: str) -> None:
    with SimulatedArm("overheadcan0") as sim:
        cpp_run = subprocess.run([reference, sim.interface], capture_output=True, text=True,
                                 check=True)
        cpp = {fields[1]: float(fields[2]) for fields in map(str.split, cpp_run.stdout.splitlines())
               if fields[:1] == ["timing"]}
        with kestrel.ArmController(True, sim.interface, False, kestrel.MIT_MODE, False) as arm:
            while arm.get_joint().size == 0:
                time.sleep(0.005)
            python = {
                "get_joint": median_ns_per_call(arm.get_joint),
                "get_gripper_position": median_ns_per_call(arm.get_gripper_position),
                "get_control_cycle_sample": median_ns_per_call(arm.get_control_cycle_sample),
            }
    print(f"{'call':<26}{'C++ ns':>10}{'Python ns':>12}{'overhead ns':>14}")
    for name, ns in python.items():
        print(f"{name:<26}{cpp[name]:>10.0f}{ns:>12.0f}{ns - cpp[name]:>14.0f}")


if __name__ == "__main__":
    main(sys.argv[1])
