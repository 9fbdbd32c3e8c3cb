#!/usr/bin/env python3
"""Plots the demonstration's control-cycle record (kestrel-demo --csv) as PNG files:
commanded against measured joint positions, velocities and torques (with the feed-forward
torque), and the tool path in space and seen from above.

    python3 tools/demo/plot_demo.py demo_record.csv OUTPUT_DIR
"""
import csv
import os
import sys

import matplotlib

matplotlib.use("Agg")  # files only, no display needed
import matplotlib.pyplot as plt  # noqa: E402


def read_record(path):
    with open(path, newline="") as f:
        rows = list(csv.DictReader(f))
    if not rows:
        sys.exit(f"plot_demo: {path} has no samples")
    return {key: [float(r[key]) for r in rows] for key in rows[0]}


def joint_figure(data, commanded, measured, ylabel, title, path):
    t = data["time_s"]
    fig, axes = plt.subplots(3, 2, figsize=(13, 9), sharex=True)
    for j, ax in enumerate(axes.flat, start=1):
        if commanded:
            ax.plot(t, data[f"{commanded}{j}"], label="commanded" if commanded != "ff_tau"
                    else "feed-forward", linewidth=1.2)
        ax.plot(t, data[f"{measured}{j}"], label="measured", linewidth=0.9, alpha=0.85)
        ax.set_title(f"joint {j}")
        ax.set_ylabel(ylabel)
        ax.grid(True, alpha=0.3)
    for ax in axes[-1]:
        ax.set_xlabel("time [s]")
    axes[0][0].legend(loc="best")
    fig.suptitle(title)
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)


def tool_path_figure(data, path):
    fig = plt.figure(figsize=(13, 6))
    ax3d = fig.add_subplot(1, 2, 1, projection="3d")
    ax3d.plot(data["cmd_x"], data["cmd_y"], data["cmd_z"], label="commanded", linewidth=1.2)
    ax3d.plot(data["x"], data["y"], data["z"], label="measured", linewidth=0.9, alpha=0.85)
    ax3d.set_xlabel("x [m]")
    ax3d.set_ylabel("y [m]")
    ax3d.set_zlabel("z [m]")
    ax3d.set_title("tool path")
    ax3d.legend(loc="best")
    top = fig.add_subplot(1, 2, 2)
    top.plot(data["cmd_x"], data["cmd_y"], label="commanded", linewidth=1.2)
    top.plot(data["x"], data["y"], label="measured", linewidth=0.9, alpha=0.85)
    top.set_xlabel("x [m]")
    top.set_ylabel("y [m]")
    top.set_aspect("equal", adjustable="datalim")
    top.grid(True, alpha=0.3)
    top.set_title("seen from above (the move_l square)")
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    data = read_record(sys.argv[1])
    out = sys.argv[2]
    os.makedirs(out, exist_ok=True)
    files = {
        "joint_positions.png": ("cmd_q", "q", "rad", "Joint positions: commanded and measured"),
        "joint_velocities.png": ("cmd_dq", "dq", "rad/s", "Joint velocities: commanded and measured"),
        "joint_torques.png": ("ff_tau", "tau", "N·m", "Joint torques: feed-forward and measured"),
    }
    for name, (commanded, measured, unit, title) in files.items():
        joint_figure(data, commanded, measured, unit, title, os.path.join(out, name))
    tool_path_figure(data, os.path.join(out, "tool_path.png"))
    for name in list(files) + ["tool_path.png"]:
        print(os.path.join(out, name))


if __name__ == "__main__":
    main()
