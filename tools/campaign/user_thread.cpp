#include "campaign/user_thread.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <kdl/frames.hpp>

namespace kestrel::campaign {

namespace {
constexpr int kUserThreadNice = 10;
}

std::vector<double> pose_with_rpy(const std::vector<double>& xyz_quaternion) {
  double roll = 0.0, pitch = 0.0, yaw = 0.0;
  KDL::Rotation::Quaternion(xyz_quaternion[3], xyz_quaternion[4], xyz_quaternion[5],
                            xyz_quaternion[6])
      .GetRPY(roll, pitch, yaw);
  return {xyz_quaternion[0], xyz_quaternion[1], xyz_quaternion[2], roll, pitch, yaw};
}

void lower_this_thread_priority() {
  ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kUserThreadNice);
}

}  // namespace kestrel::campaign
