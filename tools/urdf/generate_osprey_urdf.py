#!/usr/bin/env python3
"""Writes kestrel_sdk/src/config/OspreyArm.SLDASM.urdf from the arm's link dimensions and masses.

Every link is a handful of simple solids (boxes, solid cylinders) whose masses include the DM
motors mounted on it; the link's inertial block is their combined centre of mass and inertia
tensor about it (parallel-axis theorem), so every tensor is a physically valid rigid-body inertia.

    tools/urdf/generate_osprey_urdf.py            # rewrite the shipped file
    tools/urdf/generate_osprey_urdf.py --check    # exit 1 if the shipped file is out of date
    tools/urdf/generate_osprey_urdf.py --report   # masses and centres of mass per link

Geometry (zero pose): joint 1 yaws about the vertical base axis; the upper arm stands vertical
from the shoulder (joint 2, pitch about y); the forearm points forward along +x from the elbow
(joint 3, pitch about y); joint 4 rolls the forearm about x; joint 5 pitches the wrist about y at
the wrist centre; joint 6 rolls the flange, which points straight down. Axes 4, 5 and 6 meet at
the wrist centre. Positive joint 2 leans the arm forward; joint 3 at -pi/2 stretches the forearm
in line with the upper arm; joint 5 at -pi/2 straightens the wrist (axes 4 and 6 collinear).
"""

import argparse
import math
import os
import sys

PI = math.pi

# DM motors as solid cylinders: (radius m, length m, mass kg).
DM_TYPE3 = (0.048, 0.045, 0.90)  # joints 1-3: 28 N·m peak, 8 rad/s
DM_TYPE1 = (0.038, 0.040, 0.35)  # joints 4-6 and the gripper: 10 N·m peak, 30 rad/s

# Principal dimensions (metres).
BASE_TO_J1 = 0.090  # mounting face to the joint-1 output flange
J1_TO_SHOULDER = 0.075  # joint-1 flange to the shoulder (joint-2) axis
UPPER_ARM = 0.260  # shoulder axis to elbow axis
ELBOW_TO_J4 = 0.100  # elbow axis to the forearm-roll joint along the forearm
J4_TO_WRIST = 0.150  # forearm-roll joint to the wrist centre (joint-5 axis)
WRIST_TO_FLANGE = 0.070  # wrist centre to the tool flange along the joint-6 axis
FLANGE_TO_TCP = 0.100  # flange to the gripper's tool centre point (robot_kinematics.yaml)


def cylinder(mass, radius, length, centre, axis):
    return {"kind": "cylinder", "mass": mass, "radius": radius, "length": length,
            "centre": centre, "axis": axis}


def box(mass, size, centre):
    return {"kind": "box", "mass": mass, "size": size, "centre": centre}


def motor(spec, centre, axis):
    radius, length, mass = spec
    return cylinder(mass, radius, length, centre, axis)


AXIS_INDEX = {"x": 0, "y": 1, "z": 2}

# Links in chain order: (name, solids in the link frame).
LINKS = [
    ("base_link", [
        cylinder(0.15, 0.065, 0.040, (0.0, 0.0, 0.020), "z"),  # mounting plate and housing
        motor(DM_TYPE3, (0.0, 0.0, 0.0625), "z"),  # joint-1 motor, stator in the base
    ]),
    ("link1", [
        box(0.12, (0.090, 0.100, 0.060), (0.0, 0.0, 0.030)),  # turntable and shoulder bracket
        motor(DM_TYPE3, (0.0, 0.0, J1_TO_SHOULDER), "y"),  # joint-2 motor on the shoulder axis
    ]),
    ("link2", [
        box(0.15, (0.040, 0.050, 0.170), (0.0, 0.0, 0.115)),  # upper-arm beam
        motor(DM_TYPE3, (0.0, 0.0, UPPER_ARM), "y"),  # joint-3 motor on the elbow axis
    ]),
    ("link3", [
        box(0.06, (0.060, 0.060, 0.060), (0.020, 0.0, 0.0)),  # elbow housing
        motor(DM_TYPE1, (0.070, 0.0, 0.0), "x"),  # joint-4 motor, coaxial with the forearm
    ]),
    ("link4", [
        cylinder(0.05, 0.022, 0.070, (0.040, 0.0, 0.0), "x"),  # forearm tube
        box(0.02, (0.080, 0.006, 0.050), (0.110, 0.050, 0.0)),  # wrist fork plates
        box(0.02, (0.080, 0.006, 0.050), (0.110, -0.050, 0.0)),
        motor(DM_TYPE1, (J4_TO_WRIST, 0.073, 0.0), "y"),  # joint-5 motor outside the fork
    ]),
    ("link5", [
        box(0.03, (0.040, 0.090, 0.020), (0.0, 0.0, -0.005)),  # bracket between the fork plates
        motor(DM_TYPE1, (0.0, 0.0, -0.042), "z"),  # joint-6 motor on the flange axis
    ]),
    ("link6", [
        cylinder(0.03, 0.032, 0.008, (0.0, 0.0, 0.004), "z"),  # flange adapter
        motor(DM_TYPE1, (0.012, 0.0, 0.032), "y"),  # gripper motor (the seventh DM motor)
        box(0.10, (0.040, 0.100, 0.070), (0.0, 0.0, 0.075)),  # gripper linkage and fingers
    ]),
]

# Joints: (name, parent, child, origin xyz, origin rpy, axis, lower, upper, effort N·m, vel rad/s)
JOINTS = [
    ("joint1", "base_link", "link1", (0.0, 0.0, BASE_TO_J1), (0.0, 0.0, 0.0), (0, 0, 1),
     -2.90, 2.90, 28.0, 8.0),
    # Joint 2 stops before the upper-arm beam meets the turntable bracket (contact at about
    # 1.41 rad either way). The controller's start-up check at -1.57 rad therefore never trips
    # on a healthy arm: it catches a motor whose zero or reading is wrong.
    ("joint2", "link1", "link2", (0.0, 0.0, J1_TO_SHOULDER), (0.0, 0.0, 0.0), (0, 1, 0),
     -1.40, 1.40, 28.0, 8.0),
    # Stretched at -pi/2; the positive side stops before the joint-4 motor meets the upper-arm
    # beam (contact at about 0.60 rad).
    ("joint3", "link2", "link3", (0.0, 0.0, UPPER_ARM), (0.0, 0.0, 0.0), (0, 1, 0),
     -1.95, 0.58, 28.0, 8.0),
    ("joint4", "link3", "link4", (ELBOW_TO_J4, 0.0, 0.0), (0.0, 0.0, 0.0), (1, 0, 0),
     -2.90, 2.90, 10.0, 30.0),
    # Straight wrist at -pi/2; the positive side stops before the gripper folds onto the forearm.
    ("joint5", "link4", "link5", (J4_TO_WRIST, 0.0, 0.0), (0.0, 0.0, 0.0), (0, 1, 0),
     -2.20, 1.00, 10.0, 30.0),
    ("joint6", "link5", "link6", (0.0, 0.0, -WRIST_TO_FLANGE), (PI, 0.0, 0.0), (0, 0, 1),
     -3.00, 3.00, 10.0, 30.0),
]


def solid_inertia(solid):
    """Principal moments (ixx, iyy, izz) of one solid about its own centre, link-frame axes."""
    m = solid["mass"]
    if solid["kind"] == "box":
        sx, sy, sz = solid["size"]
        return (m * (sy * sy + sz * sz) / 12.0, m * (sx * sx + sz * sz) / 12.0,
                m * (sx * sx + sy * sy) / 12.0)
    r, h = solid["radius"], solid["length"]
    along = 0.5 * m * r * r
    across = m * (3.0 * r * r + h * h) / 12.0
    moments = [across, across, across]
    moments[AXIS_INDEX[solid["axis"]]] = along
    return tuple(moments)


def combine(solids):
    """Mass, centre of mass and 3x3 inertia tensor about it."""
    mass = sum(s["mass"] for s in solids)
    com = [sum(s["mass"] * s["centre"][k] for s in solids) / mass for k in range(3)]
    tensor = [[0.0] * 3 for _ in range(3)]
    for s in solids:
        principal = solid_inertia(s)
        d = [s["centre"][k] - com[k] for k in range(3)]
        d2 = sum(v * v for v in d)
        for i in range(3):
            for j in range(3):
                own = principal[i] if i == j else 0.0
                shift = s["mass"] * ((d2 if i == j else 0.0) - d[i] * d[j])
                tensor[i][j] += own + shift
    return mass, com, tensor


def fmt(value):
    """Ten significant digits: far below any manufacturing tolerance of the masses."""
    text = f"{value:.10g}"
    return "0" if text in ("0", "-0") else text


def exact(value):
    """Shortest text that reads back as the same double, for angles (pi must stay pi so that
    the wrist axes meet exactly)."""
    if value == 0.0:
        return "0"
    text = repr(float(value))
    return text[:-2] if text.endswith(".0") else text


def vec(values, convert=fmt):
    return " ".join(convert(v) for v in values)


def visual(solid):
    centre = vec(solid["centre"])
    if solid["kind"] == "box":
        return (f'    <visual>\n      <origin xyz="{centre}" rpy="0 0 0"/>\n'
                f'      <geometry><box size="{vec(solid["size"])}"/></geometry>\n    </visual>\n')
    # URDF cylinders run along z; turn them onto their axis.
    rpy = {"x": (0.0, PI / 2, 0.0), "y": (PI / 2, 0.0, 0.0), "z": (0.0, 0.0, 0.0)}[solid["axis"]]
    return (f'    <visual>\n      <origin xyz="{centre}" rpy="{vec(rpy, exact)}"/>\n'
            f'      <geometry><cylinder radius="{fmt(solid["radius"])}" '
            f'length="{fmt(solid["length"])}"/></geometry>\n    </visual>\n')


def render():
    out = ['<?xml version="1.0"?>\n',
           "<!-- Generated by tools/urdf/generate_osprey_urdf.py: edit the generator, not this"
           " file. -->\n",
           '<robot name="OspreyArm">\n']
    for name, solids in LINKS:
        mass, com, t = combine(solids)
        out.append(f'  <link name="{name}">\n')
        out.append("    <inertial>\n")
        out.append(f'      <origin xyz="{vec(com)}" rpy="0 0 0"/>\n')
        out.append(f'      <mass value="{fmt(mass)}"/>\n')
        out.append(f'      <inertia ixx="{fmt(t[0][0])}" ixy="{fmt(t[0][1])}" ixz="{fmt(t[0][2])}"'
                   f' iyy="{fmt(t[1][1])}" iyz="{fmt(t[1][2])}" izz="{fmt(t[2][2])}"/>\n')
        out.append("    </inertial>\n")
        out.extend(visual(s) for s in solids)
        out.append("  </link>\n")
    for (name, parent, child, xyz, rpy, axis, lower, upper, effort, velocity) in JOINTS:
        out.append(f'  <joint name="{name}" type="revolute">\n')
        out.append(f'    <origin xyz="{vec(xyz)}" rpy="{vec(rpy, exact)}"/>\n')
        out.append(f'    <parent link="{parent}"/>\n    <child link="{child}"/>\n')
        out.append(f'    <axis xyz="{vec(axis)}"/>\n')
        out.append(f'    <limit lower="{fmt(lower)}" upper="{fmt(upper)}" effort="{fmt(effort)}"'
                   f' velocity="{fmt(velocity)}"/>\n')
        out.append("  </joint>\n")
    out.append("</robot>\n")
    return "".join(out)


def report():
    total = 0.0
    for name, solids in LINKS:
        mass, com, _ = combine(solids)
        total += mass
        print(f"{name:10s} mass {mass:6.3f} kg  com [{vec(com)}]")
    print(f"total      mass {total:6.3f} kg")
    reach = UPPER_ARM + ELBOW_TO_J4 + J4_TO_WRIST + WRIST_TO_FLANGE
    print(f"shoulder-to-flange reach {reach:.3f} m, to the tool centre point "
          f"{reach + FLANGE_TO_TCP:.3f} m")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="compare with the shipped file")
    parser.add_argument("--report", action="store_true", help="print masses and centres of mass")
    parser.add_argument("--output", default=os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "..", "..", "kestrel_sdk", "src", "config",
        "OspreyArm.SLDASM.urdf"))
    args = parser.parse_args()
    if args.report:
        report()
        return 0
    text = render()
    if args.check:
        with open(args.output, encoding="utf-8") as f:
            if f.read() != text:
                print(f"{args.output} is out of date; run {sys.argv[0]}", file=sys.stderr)
                return 1
        return 0
    with open(args.output, "w", encoding="utf-8") as f:
        f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
