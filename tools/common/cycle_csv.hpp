// Control cycles as CSV: one row per cycle with the time, the command kind, then per joint the
// commanded position and velocity, the feed-forward torque, the measured position, velocity and
// torque, then the gripper's commanded and measured opening. Header and rows carry no newline,
// so that a caller may append columns of its own.
#pragma once

#include <string>

#include "kestrel/controller/control_cycle_sample.hpp"

namespace kestrel::tools {

std::string cycle_csv_header();
// `t0`: the steady-clock time that becomes 0 in the time column.
std::string cycle_csv_row(const kestrel::controller::ControlCycleSample& c, double t0);

}  // namespace kestrel::tools
