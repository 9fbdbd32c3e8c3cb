// Running a checked motion program on the arm. Kept apart from the file reader, which needs
// nothing of the controller but its MotionProgramItem.
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <thread>

#include "program_file.hpp"

namespace kestrel::cli {

double run_program(ArmController& arm, const Program& program,
                   const std::function<bool()>& stopped) {
  double total = 0.0;
  std::vector<ArmController::MotionProgramItem> batch;
  auto flush = [&] {
    if (!batch.empty()) {
      total += arm.run_motion_program(batch);
      batch.clear();
    }
  };
  for (const auto& step : program.steps) {
    if (step.kind == ProgramStep::Kind::motion) {
      batch.push_back(step.motion);
      continue;
    }
    flush();
    if (stopped()) {
      throw std::runtime_error("motion stopped");
    }
    arm.setGripperPosition(step.gripper_position);
    const double target = step.gripper_position * 0.085;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < until &&
           std::abs(arm.get_gripper_distance() - target) > 0.003) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (stopped()) {
      throw std::runtime_error("motion stopped");
    }
  }
  flush();
  return total;
}

}  // namespace kestrel::cli
