#include "arm_state_text.hpp"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kestrel::cli {

std::string euler_text(const std::vector<double>& pose) {
  const Eigen::Matrix3d r =
      Eigen::Quaterniond(pose[6], pose[3], pose[4], pose[5]).normalized().toRotationMatrix();
  const double roll = std::atan2(r(2, 1), r(2, 2));
  const double pitch = std::asin(std::clamp(-r(2, 0), -1.0, 1.0));
  const double yaw = std::atan2(r(1, 0), r(0, 0));
  char text[160];
  std::snprintf(text, sizeof text, "x %.4f  y %.4f  z %.4f m   roll %.3f  pitch %.3f  yaw %.3f rad",
                pose[0], pose[1], pose[2], roll, pitch, yaw);
  return text;
}

void print_joints_and_pose(const std::vector<double>& q, const std::vector<double>& pose) {
  std::printf("joints rad:");
  for (double v : q) {
    std::printf(" %8.4f", v);
  }
  std::printf("\ntool pose:  %s\n", euler_text(pose).c_str());
}

}  // namespace kestrel::cli
