#!/usr/bin/env python3
"""Generates kestrel_sdk/src/algorithms/standard_regressor.cpp from the shipped URDF.

The arm's joint torques are linear in the standard inertial parameters of its six links:
tau = Y(q, dq, ddq) * pi. This script derives Y symbolically by the recursive Newton-Euler
equations written in the parameters (each link's wrench about its frame origin is linear in
m, m*c and the inertia tensor about that origin), with the URDF's joint origins and axes folded
in as constants and gravity along -z of the base (upright mounting), then flattens the 360
entries as a flat sequence of named terms (one per vector component of each recursion step)
and writes C++.

Run it (Debian: python3-sympy) whenever the URDF's kinematic chain changes:

    python3 tools/regressor/generate_standard_regressor.py

Parameter order, ten per link, link 1 first: m, m*cx, m*cy, m*cz, Ixx, Ixy, Ixz, Iyy, Iyz, Izz
(first moments and inertia about the link frame's origin, in the link frame, which is the frame
of the link's joint after its rotation).
"""

import math
import os
import sys
import xml.etree.ElementTree as ET

import sympy as sp

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
URDF = os.path.join(ROOT, "kestrel_sdk", "src", "config", "OspreyArm.SLDASM.urdf")
OUTPUT = os.path.join(ROOT, "kestrel_sdk", "src", "algorithms", "standard_regressor.cpp")
GRAVITY = 9.81  # m/s^2 along -z of the base


def snap(x):
    """Exact 0 and +-1 where the URDF means them (rpy of pi/2 leaves 6e-17 behind)."""
    for exact in (0, 1, -1):
        if abs(x - exact) < 1e-12:
            return sp.Integer(exact)
    return sp.Float(repr(x), 17)


def rpy_matrix(r, p, y):
    cr, sr, cp, sp_, cy, sy = (math.cos(r), math.sin(r), math.cos(p), math.sin(p), math.cos(y),
                               math.sin(y))
    m = [[cy * cp, cy * sp_ * sr - sy * cr, cy * sp_ * cr + sy * sr],
         [sy * cp, sy * sp_ * sr + cy * cr, sy * sp_ * cr - cy * sr],
         [-sp_, cp * sr, cp * cr]]
    return sp.Matrix([[snap(v) for v in row] for row in m])


def axis_rotation(axis, c, s):
    """Rotation by the joint angle about a unit axis, from its cosine and sine symbols."""
    x, y, z = axis
    k = sp.Matrix([[0, -z, y], [z, 0, -x], [-y, x, 0]])
    return sp.eye(3) + s * k + (1 - c) * k * k


def read_chain():
    robot = ET.parse(URDF).getroot()
    joints = {}
    for j in robot.findall("joint"):
        joints[j.find("parent").get("link")] = j
    chain = []
    link = "base_link"
    while link in joints:
        j = joints[link]
        origin = j.find("origin")
        xyz = [float(v) for v in (origin.get("xyz", "0 0 0") if origin is not None
                                  else "0 0 0").split()]
        rpy = [float(v) for v in (origin.get("rpy", "0 0 0") if origin is not None
                                  else "0 0 0").split()]
        if j.get("type") == "fixed":
            raise SystemExit("fixed joints inside the arm's chain are not supported here")
        axis_el = j.find("axis")
        axis = [float(v) for v in (axis_el.get("xyz") if axis_el is not None else "1 0 0").split()]
        norm = math.sqrt(sum(a * a for a in axis))
        chain.append((j.get("name"), xyz, rpy, [snap(a / norm) for a in axis]))
        link = j.find("child").get("link")
    if len(chain) != 6:
        raise SystemExit("expected six movable joints, found %d" % len(chain))
    return chain


def cross(a, b):
    return sp.Matrix([a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                      a[0] * b[1] - a[1] * b[0]])


def main():
    chain = read_chain()
    n = 6
    c = sp.symbols("c1:7")
    s = sp.symbols("s1:7")
    dq = sp.symbols("dq1:7")
    ddq = sp.symbols("ddq1:7")

    R = []  # frame i in frame i-1
    p = []  # origin of frame i in frame i-1
    a = []  # joint axis in frame i
    for i, (_, xyz, rpy, axis) in enumerate(chain):
        R.append(rpy_matrix(*rpy) * axis_rotation(axis, c[i], s[i]))
        p.append(sp.Matrix([snap(v) for v in xyz]))
        a.append(sp.Matrix(axis))

    # Every vector component of the recursions becomes a named term of its own, so that the
    # expressions stay the size of one recursion step (what a hand-written recursion keeps in
    # variables); the named terms are the flat sequence of the generated code.
    terms = []

    def named(expr):
        expr = sp.expand(expr)
        if expr.is_Atom or (expr.is_Mul and len(expr.args) == 2 and
                            all(a.is_Atom for a in expr.args)):
            return expr
        sym = sp.Symbol("t%d" % len(terms))
        terms.append((sym, expr))
        return sym

    def named_vector(v):
        return sp.Matrix([named(x) for x in v])

    # Forward: angular velocity, angular acceleration and the origin's acceleration minus
    # gravity, each in its own frame.
    w_prev = sp.zeros(3, 1)
    wd_prev = sp.zeros(3, 1)
    ao_prev = sp.Matrix([0, 0, snap(GRAVITY)])
    w, wd, ao = [], [], []
    for i in range(n):
        Rt = R[i].T
        w_in = Rt * w_prev
        wi = w_in + a[i] * dq[i]
        wdi = Rt * wd_prev + a[i] * ddq[i] + cross(w_in, a[i] * dq[i])
        aoi = Rt * (ao_prev + cross(wd_prev, p[i]) + cross(w_prev, cross(w_prev, p[i])))
        wi, wdi, aoi = named_vector(wi), named_vector(wdi), named_vector(aoi)
        w.append(wi)
        wd.append(wdi)
        ao.append(aoi)
        w_prev, wd_prev, ao_prev = wi, wdi, aoi

    # Each link's own wrench about its origin, as 3 x 60 matrices over all parameters.
    def link_wrench(i):
        f = sp.zeros(3, 60)
        t = sp.zeros(3, 60)
        base = 10 * i
        wi, wdi, aoi = w[i], wd[i], ao[i]
        # m
        for r in range(3):
            f[r, base] = aoi[r]
        # h = m*c: f += wd x h + w x (w x h); n += h x ao
        for k in range(3):
            e = sp.zeros(3, 1)
            e[k] = 1
            fk = cross(wdi, e) + cross(wi, cross(wi, e))
            nk = cross(e, aoi)
            for r in range(3):
                f[r, base + 1 + k] = fk[r]
                t[r, base + 1 + k] = nk[r]
        # I (xx, xy, xz, yy, yz, zz): n += I wd + w x (I w)
        for k, (u, v) in enumerate([(0, 0), (0, 1), (0, 2), (1, 1), (1, 2), (2, 2)]):
            E = sp.zeros(3, 3)
            E[u, v] = 1
            E[v, u] = 1
            nk = E * wdi + cross(wi, E * wi)
            for r in range(3):
                t[r, base + 4 + k] = nk[r]
        return f, t

    # Backward: the wrench each joint carries, and its axis component.
    Y = sp.zeros(n, 60)
    F_next = None
    N_next = None
    for i in reversed(range(n)):
        f, t = link_wrench(i)
        if F_next is not None:
            RF = R[i + 1] * F_next
            f = f + RF
            t = t + R[i + 1] * N_next
            for col in range(60):
                t[:, col] = t[:, col] + cross(p[i + 1], RF[:, col])
        f = f.applyfunc(named)
        t = t.applyfunc(named)
        F_next, N_next = f, t
        for col in range(60):
            Y[i, col] = (a[i].T * t[:, col])[0]

    if any(Y[r, col].has(c[0]) or Y[r, col].has(s[0]) for r in range(n) for col in range(60)):
        raise SystemExit("joint 1's angle entered the regressor: check the URDF's first joint")

    # Inputs of the generated code: sines and cosines of joints 2-6, velocities, accelerations
    # and the products of velocities.
    inputs = []
    for i in range(1, n):
        inputs += [s[i], c[i]]
    inputs += list(dq) + list(ddq)
    products = {}
    for i in range(n):
        for j in range(i, n):
            sym = sp.Symbol("dq%d_dq%d" % (i + 1, j + 1))
            products[dq[i] * dq[j]] = sym
            inputs.append(sym)

    entries = [Y[r, col] for r in range(n) for col in range(60)]
    # The named terms in the order they were made (each uses only inputs and earlier terms),
    # with the velocity products read from the inputs; then the entries.
    replacements = [(sym, expr.subs(products)) for sym, expr in terms]
    reduced = [sp.expand(e).subs(products) for e in entries]

    index = {sym: k for k, sym in enumerate(inputs)}
    half = len(replacements) // 2
    n_in = len(inputs)
    names = {}
    for k, sym in enumerate(inputs):
        names[sym] = "in[%d]" % k
    for k, (sym, _) in enumerate(replacements):
        names[sym] = "v[%d]" % (n_in + k)

    def code(expr):
        text = sp.ccode(expr, assign_to=None)
        return text

    def rename(expr):
        return expr.xreplace({sym: sp.Symbol(names[sym]) for sym in expr.free_symbols})

    lines = []
    w_ = lines.append
    w_("// Generated by tools/regressor/generate_standard_regressor.py from OspreyArm.SLDASM.urdf;")
    w_("// do not edit. Regenerate: python3 tools/regressor/generate_standard_regressor.py")
    w_("// clang-format off")
    w_('#include "kestrel/algorithms/standard_regressor.hpp"')
    w_("")
    w_("#include <cmath>")
    w_("")
    w_("namespace kestrel::algorithms {")
    w_("")
    w_("namespace {")
    w_("")
    w_("constexpr int kInputs = %d;" % n_in)
    w_("constexpr int kTerms = %d;" % (n_in + len(replacements)))
    w_("")
    w_("// The second half of the terms (backward recursion), then the 360 entries (row-major).")
    w_("void ft_3(const double* in, double* out) {")
    w_("  double v[kTerms];")
    w_("  for (int k = 0; k < kTerms; ++k) {")
    w_("    v[k] = in[k];")
    w_("  }")
    for k in range(half, len(replacements)):
        sym, expr = replacements[k]
        w_("  v[%d] = %s;" % (n_in + k, code(rename(expr)).replace("in[", "v[")))
    for k, expr in enumerate(reduced):
        w_("  out[%d] = %s;" % (k, code(rename(expr)).replace("in[", "v[")))
    w_("}")
    w_("")
    w_("// The inputs and the first half of the terms.")
    w_("void ft_1(const double* in, double* out) {")
    w_("  double v[kTerms] = {};")
    w_("  for (int k = 0; k < kInputs; ++k) {")
    w_("    v[k] = in[k];")
    w_("  }")
    for k in range(half):
        sym, expr = replacements[k]
        w_("  v[%d] = %s;" % (n_in + k, code(rename(expr)).replace("in[", "v[")))
    w_("  ft_3(v, out);")
    w_("}")
    w_("")
    w_("}  // namespace")
    w_("")
    w_("void standard_regressor(const double* q, const double* dq, const double* ddq, double* out) {")
    w_("  double in[kInputs];")
    k = 0
    for i in range(1, n):
        w_("  in[%d] = std::sin(q[%d]);" % (k, i))
        w_("  in[%d] = std::cos(q[%d]);" % (k + 1, i))
        k += 2
    for i in range(n):
        w_("  in[%d] = dq[%d];" % (k, i))
        k += 1
    for i in range(n):
        w_("  in[%d] = ddq[%d];" % (k, i))
        k += 1
    for i in range(n):
        for j in range(i, n):
            w_("  in[%d] = dq[%d] * dq[%d];" % (k, i, j))
            k += 1
    w_("  ft_1(in, out);")
    w_("}")
    w_("")
    w_("}  // namespace kestrel::algorithms")
    w_("// clang-format on")
    with open(OUTPUT, "w") as out:
        out.write("\n".join(lines) + "\n")
    print("wrote %s: %d terms, %d inputs" % (OUTPUT, len(replacements), n_in))
    del index


if __name__ == "__main__":
    sys.exit(main())
