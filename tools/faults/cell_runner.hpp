// Runs one cell of the fault matrix: the simulated arm on a private userspace bus, an
// ArmController brought to an activity, one fault injected mid-activity, and what followed.
#pragma once

#include <string>
#include <vector>

#include "fault_cells.hpp"
#include "line_capture.hpp"

namespace kestrel::faults {

struct CellOptions {
  std::string simulator_program;  // kestrel-sim, for the cell that kills the simulator
  bool echo = false;              // pass the controller's lines on to the terminal
};

struct CellResult {
  Activity activity = Activity::kHold;
  Fault fault{FaultKind::kSilentJoint};
  Expectation expectation;
  Observation observation;
  Verdict verdict;
  double seconds = 0.0;             // the cell's whole run time
  std::vector<CapturedLine> lines;  // everything printed, from construction on
  double injected_at_s = 0.0;       // on the lines' clock, from the first line
};

CellResult run_cell(Activity activity, const Fault& fault, const CellOptions& options);

}  // namespace kestrel::faults
