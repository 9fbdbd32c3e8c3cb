// What a program driving the arm from its own threads needs beside the controller: the tool
// pose as the Cartesian calls take it, and a user thread set below the control loop.
#pragma once

#include <vector>

namespace kestrel::campaign {

// x, y, z, qx, qy, qz, qw (get_end_effector_pose, forwardKinematics_kdl) to x, y, z, roll,
// pitch, yaw (the Cartesian motions' poses).
std::vector<double> pose_with_rpy(const std::vector<double>& xyz_quaternion);

// Planning runs on the caller's thread, for up to seconds: below the control loop and the
// simulated motors, as a program with a real-time control thread has it, so that it does not
// delay the cycles and frames whose timing is measured.
void lower_this_thread_priority();

}  // namespace kestrel::campaign
