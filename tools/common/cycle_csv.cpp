#include "cycle_csv.hpp"

#include <cstdio>

namespace kestrel::tools {

std::string cycle_csv_header() {
  std::string header = "time_s,kind";
  for (const char* field : {"cmd_q", "cmd_dq", "ff_tau", "q", "dq", "tau"}) {
    for (int j = 1; j <= 6; ++j) {
      header += "," + std::string(field) + std::to_string(j);
    }
  }
  return header + ",cmd_gripper_m,gripper_m";
}

std::string cycle_csv_row(const kestrel::controller::ControlCycleSample& c, double t0) {
  char cell[48];
  std::snprintf(cell, sizeof cell, "%.4f,%d", c.time_sec - t0, c.command_kind);
  std::string row = cell;
  for (const auto* values : {&c.commanded_position, &c.commanded_velocity, &c.feedforward_torque,
                             &c.measured_position, &c.measured_velocity, &c.measured_torque}) {
    for (double v : *values) {
      std::snprintf(cell, sizeof cell, ",%.6g", v);
      row += cell;
    }
  }
  std::snprintf(cell, sizeof cell, ",%.5f,%.5f", c.commanded_gripper_m, c.measured_gripper_m);
  return row + cell;
}

}  // namespace kestrel::tools
