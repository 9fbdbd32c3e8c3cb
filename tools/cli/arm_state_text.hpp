// The end state a command prints ("joints rad: ..." and "tool pose: ..."), the same whether
// the arm was driven in this process or through the arm service.
#pragma once

#include <string>
#include <vector>

namespace kestrel::cli {

// pose: x, y, z, qx, qy, qz, qw; shown as metres and roll, pitch, yaw about fixed X, Y, Z.
std::string euler_text(const std::vector<double>& pose);
void print_joints_and_pose(const std::vector<double>& q, const std::vector<double>& pose);

}  // namespace kestrel::cli
