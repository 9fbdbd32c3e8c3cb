// The control cycle allocates nothing in a steady state, whatever it plays and whatever an
// application does meanwhile on its own threads.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "controller/controller_fixture.hpp"
#include "support/allocation_counter.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using Access = ArmControllerTestAccess;
using kestrel::testing::AllocationCounter;
using kestrel::testing::eventually;
using kestrel::testing::SimulatedArm;

constexpr uint64_t kCountedCycles = 1000;

// Waits until the loop has run `cycles` more cycles.
bool run_cycles(ArmController& arm, uint64_t cycles) {
  const uint64_t from = arm.control_loop_statistics().cycles;
  return eventually([&] { return arm.control_loop_statistics().cycles >= from + cycles; }, 20s);
}

// What went wrong in one run, from whichever thread saw it first. gtest's own messages would be
// lost in the captured output, and a run that went wrong is made again.
struct Problem {
  void set(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    first = first.empty() ? text : first;
  }
  std::string text() {
    std::lock_guard<std::mutex> lock(mutex);
    return first;
  }
  std::mutex mutex;
  std::string first;
};

struct SteadyCase {
  const char* name;
  ControlMode mode;
  // Starts a motion that lasts well beyond the counted cycles; `background` runs a blocking
  // call on an application thread.
  std::function<void(ArmController&, std::thread& background, Problem&)> start;
};

class SteadyCycle : public ::testing::TestWithParam<SteadyCase> {};

TEST_P(SteadyCycle, AllocatesNothing) {
  const SteadyCase& c = GetParam();
  uint64_t allocations = 0;
  bool counted = false;
  std::string err;
  std::string what_went_wrong;
  // A machine that starves the simulated arm (a sanitizer build beside other work) can make the
  // run-time supervision stop the arm before the cycles are counted, or a motion plan slowly:
  // that run is made again.
  for (int attempt = 0; attempt < 3 && !counted; ++attempt) {
    SimulatedArm sim;
    Problem problem;
    err = kestrel::testing::capture_stderr([&] {
      kestrel::testing::capture_stdout([&] {
        ArmController arm(true, "can0", false, c.mode, false);
        if (!eventually([&] { return arm.get_joint().size() == 6; }, 2s)) {
          problem.set("no joint state within 2 s");
          return;
        }
        std::thread background;
        c.start(arm, background, problem);
        if (problem.text().empty() && run_cycles(arm, 100)) {  // the motion is under way
          AllocationCounter::watch(Access::control_thread(arm));
          counted = run_cycles(arm, kCountedCycles);
          allocations = AllocationCounter::stop();
        }
        if (background.joinable()) {
          background.join();
        }
      });
    });
    what_went_wrong = problem.text();
    counted = counted && what_went_wrong.empty();
  }
  ASSERT_TRUE(counted) << what_went_wrong << "\n" << err;
  EXPECT_EQ(allocations, 0u) << c.name << ": allocations on the control thread over "
                             << kCountedCycles << " cycles\n"
                             << err;
}

const std::vector<double> kAway = {0.4, 0.3, -0.5, 0.4, -0.4, 0.5};

INSTANTIATE_TEST_SUITE_P(
    Motions, SteadyCycle,
    ::testing::Values(
        // Kind 3: a planned timeline with a gripper timeline, played back.
        SteadyCase{"MitWaypointsWithGripper", MIT_MODE,
                   [](ArmController& arm, std::thread& background, Problem& problem) {
                     background = std::thread([&arm, &problem] {
                       try {
                         arm.move_joint_waypoints_with_gripper({kAway}, {0.7}, 4.0, 0.0);
                       } catch (const std::exception& e) {
                         problem.set(std::string("the motion threw: ") + e.what());
                       }
                     });
                     if (!eventually([&] { return Access::command_kind(arm) == 3; }, 10s)) {
                       problem.set("the waypoint motion did not start within 10 s");
                     }
                   }},
        // Kind 2 with every feed-forward term and the gripper repeating its command, while
        // inverse-kinematics searches (out of reach: the whole search and its approximate
        // fallback) and planning safety passes run flat out on an application thread.
        SteadyCase{"MitSetJointWithGripperWhileIkAndPlanningRun", MIT_MODE,
                   [](ArmController& arm, std::thread& background, Problem& problem) {
                     arm.setGripperDistance(0.04);
                     arm.set_joint(kAway, 4.0);
                     background = std::thread([&arm, &problem] {
                       // Lowest CFS priority: the load competes for the model, not for the CPU.
                       setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 19);
                       std::vector<Access::Sample> samples(400);
                       for (size_t i = 0; i < samples.size(); ++i) {
                         for (size_t j = 0; j < 6; ++j) {
                           samples[i].position[j] = kAway[j] * static_cast<double>(i) / 399.0;
                         }
                       }
                       int passes = 0;
                       const auto end = std::chrono::steady_clock::now() + 3s;
                       for (; std::chrono::steady_clock::now() < end; ++passes) {
                         arm.solve_ik({2.0, 0.0, 0.5}, {0.0, 0.0, 0.0});
                         Access::check_safety(arm, samples);
                       }
                       if (passes == 0 || arm.emergency_stopped()) {
                         problem.set("no search ran, or the arm stopped");
                       }
                     });
                   }},
        SteadyCase{"PosVelSetJoint", POS_VEL_MODE,
                   [](ArmController& arm, std::thread&, Problem&) { arm.set_joint(kAway, 4.0); }},
        // Torque only, the gripper limp.
        SteadyCase{"MitFloatingOnGravity", MIT_MODE,
                   [](ArmController& arm, std::thread&, Problem&) {
                     arm.identify_gravity_compensation_kdl();
                   }}),
    [](const ::testing::TestParamInfo<SteadyCase>& info) { return info.param.name; });

}  // namespace
