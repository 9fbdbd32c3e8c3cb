// Planning plus safety-check time against motion length, for joint waypoint motions and for
// linear Cartesian motions: 1, 5 and 20 waypoints over 1 to 30 s (time mode). Nothing moves: the
// controller runs without hardware and only plans. Prints medians of several runs.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "controller/controller_fixture.hpp"

namespace {

using Access = ArmControllerTestAccess;
using Clock = std::chrono::steady_clock;

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

template <typename Fn>
double median_ms(int runs, Fn&& fn) {
  std::vector<double> t;
  for (int r = 0; r < runs; ++r) {
    const auto began = Clock::now();
    fn();
    t.push_back(std::chrono::duration<double, std::milli>(Clock::now() - began).count());
  }
  return median(t);
}

}  // namespace

int main() {
  std::freopen("/dev/null", "w", stderr);  // warnings of individual plans would drown the table
  kestrel::simbus::ScopedSimbus bus({"benchplan0"});
  ArmController arm(true, "benchplan0", false, MIT_MODE, true);
  auto& impl = Access::impl(arm);

  const std::vector<double> work = {0.2, 0.4, -0.9, 0.3, -0.7, 0.1};
  const auto pose = impl.kinematics->forwardKinematics_kdl(work);
  const Eigen::Quaterniond q(pose[6], pose[3], pose[4], pose[5]);
  const Eigen::Vector3d rpy = impl.kinematics->rotation_matrix_to_euler(q.toRotationMatrix());
  Access::Impl::JointArray start{};
  std::copy(work.begin(), work.end(), start.begin());

  std::printf(
      "\nPlanning + safety checks (joint limits, singularity, self-collision), time mode,"
      " 400 Hz\n");
  std::printf("%-10s %-9s %-9s %14s %14s %16s %16s\n", "waypoints", "motion s", "samples",
              "joint ms", "joint ms/s", "cartesian ms", "cartesian ms/s");
  std::vector<std::string> refusals;
  for (int n : {1, 5, 20}) {
    for (double seconds : {1.0, 5.0, 10.0, 30.0}) {
      // Joint waypoints zig-zag gently around the working posture; Cartesian waypoints walk a
      // 4 cm circle in front of it.
      std::vector<std::vector<double>> joints;
      std::vector<std::vector<double>> poses;
      for (int k = 1; k <= n; ++k) {
        std::vector<double> w = work;
        const double s = (k % 2 == 0 ? 1.0 : -1.0) * 0.05;
        for (double& x : w) {
          x += s;
        }
        joints.push_back(w);
        const double a = 2.0 * M_PI * k / (n + 1);
        poses.push_back({pose[0] - 0.04 + 0.04 * std::cos(a), pose[1] + 0.04 * std::sin(a), pose[2],
                         rpy.x(), rpy.y(), rpy.z()});
      }
      const std::vector<double> gripper(joints.size(), 0.5);
      size_t samples = 0;
      const int runs = seconds > 10 ? 3 : 7;
      double joint_ms = -1.0;
      try {
        joint_ms = median_ms(runs, [&] {
          samples = arm.plan_joint_waypoints_with_gripper(work, joints, gripper, seconds, 0.0)
                        .positions.size();
        });
      } catch (const std::exception& e) {
        refusals.push_back("joint " + std::to_string(n) + " in " +
                           std::to_string(static_cast<int>(seconds)) + " s: " + e.what());
      }
      double cartesian_ms = -1.0;
      try {
        cartesian_ms = median_ms(runs, [&] {
          const auto s = impl.plan_cartesian_line_trajectory(start, poses, seconds, 1.0, 0.005,
                                                             400.0, 0.003, 0.05, "[move_l] ");
          impl.evaluate_waypoint_trajectory_safety(s);
        });
      } catch (const std::exception& e) {
        refusals.push_back("cartesian " + std::to_string(n) + " in " +
                           std::to_string(static_cast<int>(seconds)) + " s: " + e.what());
      }
      if (joint_ms >= 0.0) {
        std::printf("%-10d %-9.0f %-9zu %14.2f %14.3f", n, seconds, samples, joint_ms,
                    joint_ms / seconds);
      } else {
        std::printf("%-10d %-9.0f %-9s %14s %14s", n, seconds, "-", "refused", "-");
      }
      if (cartesian_ms >= 0.0) {
        std::printf(" %16.2f %16.3f\n", cartesian_ms, cartesian_ms / seconds);
      } else {
        std::printf(" %16s %16s\n", "refused", "-");
      }
    }
  }
  // Refused plans are the joint-limit check at work: too many corners for too little time.
  std::printf("\n");
  for (const auto& r : refusals) {
    std::printf("refused: %s\n", r.c_str());
  }
  std::printf("\nA 1 s chunk must plan and check in under 5 ms to stream chunk updates.\n");
  arm.cleanup();
  return 0;
}
