// Motion-program files: a YAML list of steps (movej, movel, movep, sleep, gripper) that the
// kestrel tool runs. The whole file is read and checked before the arm moves; every error names
// the file, the step and its line. The format is documented in docs/motion-programs.md.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kestrel/controller/interfaces.hpp"

namespace kestrel::cli {

struct ProgramStep {
  enum class Kind { motion, gripper };
  Kind kind = Kind::motion;
  ArmController::MotionProgramItem motion;  // movej, movel, movep or sleep
  double gripper_position = 0.0;            // gripper: 0 closed .. 1 open
  int line = 0;                             // 1-based line of the step in the file
};

struct Program {
  std::vector<ProgramStep> steps;
};

// Reads and checks a program file; std::runtime_error "FILE: ..." on any mistake.
Program load_program_file(const std::string& path);
// The same from text; `name` stands for the file in messages.
Program parse_program(const std::string& text, const std::string& name);

// Runs the steps in order on `arm`: consecutive movej/movel/movep/sleep steps go to
// ArmController::run_motion_program together (so that moves join), a gripper step waits until
// the gripper has arrived (or 2 s). Returns the summed planned motion time. `stopped` is asked
// between steps: when it says true the program ends with std::runtime_error "motion stopped".
double run_program(ArmController& arm, const Program& program,
                   const std::function<bool()>& stopped);

}  // namespace kestrel::cli
