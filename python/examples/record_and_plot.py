#!/usr/bin/env python3
"""Example: recording a motion and plotting it. A second thread polls the control-cycle sample at
the control rate (400 Hz) while the main thread runs a waypoint motion; the record is then
plotted, commanded against measured, per joint.

    usage: record_and_plot.py [INTERFACE] [OUTPUT.png]   (defaults can0, motion.png)
"""
import sys
import threading
import time

import matplotlib

matplotlib.use("Agg")  # files only, no display needed
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import kestrel  # noqa: E402


def record(arm: kestrel.ArmController, done: threading.Event) -> list:
    samples, last_cycle = [], 0
    while not done.is_set():
        sample = arm.get_control_cycle_sample()
        if sample.cycle != last_cycle:
            samples.append(sample)
            last_cycle = sample.cycle
        time.sleep(0.001)  # a new cycle every 2.5 ms
    return samples


def main(interface: str, output: str) -> None:
    with kestrel.ArmController(True, interface, False, kestrel.MIT_MODE, False) as arm:
        while arm.get_joint().size == 0:
            time.sleep(0.005)
        done, recorded = threading.Event(), []
        recorder = threading.Thread(target=lambda: recorded.extend(record(arm, done)))
        recorder.start()
        arm.move_joint_waypoints([[0.3, 0.5, -1.0, 0.2, -0.6, 0.3],
                                  [0.0, 0.4, -0.9, 0.0, -0.6, 0.0]], time_sec=3.0,
                                 speed_percent=0.0)
        done.set()
        recorder.join()

    t = np.array([s.time_sec for s in recorded])
    t -= t[0]
    commanded = np.array([s.commanded_position for s in recorded])
    measured = np.array([s.measured_position for s in recorded])
    figure, axes = plt.subplots(6, 1, sharex=True, figsize=(8, 10))
    for joint, axis in enumerate(axes):
        axis.plot(t, commanded[:, joint], label="commanded")
        axis.plot(t, measured[:, joint], "--", label="measured")
        axis.set_ylabel(f"q{joint + 1} rad")
    axes[0].legend(loc="upper right")
    axes[-1].set_xlabel("time s")
    figure.savefig(output, dpi=80)
    error = np.abs(commanded - measured).max()
    print(f"recorded {len(recorded)} cycles over {t[-1]:.2f} s; largest tracking error "
          f"{error * 1000:.1f} mrad; plot in {output}")


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "can0",
         sys.argv[2] if len(sys.argv) > 2 else "motion.png")
