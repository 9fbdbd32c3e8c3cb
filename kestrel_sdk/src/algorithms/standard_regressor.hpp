// The standard (linear-in-parameters) rigid-body dynamics regressor of the shipped arm:
// joint torques = Y(q, dq, ddq) · π, where π stacks ten inertial parameters per link, link 1
// first: m, m·cx, m·cy, m·cz, Ixx, Ixy, Ixz, Iyy, Iyz, Izz (first moments and inertia about the
// link frame's origin, in the link frame: the frame of the link's joint after its rotation).
// Gravity is 9.81 m/s² along -z of the base (upright mounting). For identifying the arm's
// inertial parameters from measured torques; nothing in the library calls it.
//
// The code is generated from the URDF by tools/regressor/generate_standard_regressor.py; rerun
// it whenever the URDF's joints change.
#pragma once

#include <array>

class RobotKinematics;

namespace kestrel::algorithms {

// q, dq, ddq: six values each (rad, rad/s, rad/s²). out: 360 values, the 6 × 60 matrix row by
// row (joint 1's row first). Joint 1's angle does not enter. No allocation.
void standard_regressor(const double* q, const double* dq, const double* ddq, double* out);

// π of the model's links in the regressor's order, from the KDL chain (the URDF's inertials; a
// configured payload counts into link 6).
std::array<double, 60> standard_inertial_parameters(const RobotKinematics& model);

}  // namespace kestrel::algorithms
