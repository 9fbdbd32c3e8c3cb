// Value types the controller hands out or takes in: one control cycle, the loop's timing, a
// planned trajectory, a motion-program item, a septic trajectory.
#include <pybind11/stl.h>

#include <kestrel/controller/control_cycle_sample.hpp>
#include <kestrel/controller/interfaces.hpp>
#include <kestrel/controller/loop_statistics.hpp>

#include "bindings.hpp"
#include "numpy_conversions.hpp"

namespace py = pybind11;
using namespace pybind11::literals;

namespace kestrel::python {
namespace {

using controller::ControlCycleSample;
using controller::ControlLoopHistograms;
using controller::ControlLoopStatistics;

void bind_cycle_sample(py::module_& m) {
  py::class_<ControlCycleSample>(
      m, "ControlCycleSample",
      "One control cycle: what the loop commanded the six joints beside what the motors last "
      "reported. Arrays hold six values, joint 1 first.")
      .def_readonly("cycle", &ControlCycleSample::cycle,
                    "Cycles that commanded the arm so far; 0: none yet.")
      .def_readonly("time_sec", &ControlCycleSample::time_sec, "Cycle start, steady-clock s.")
      .def_readonly("command_kind", &ControlCycleSample::command_kind,
                    "1 raw, 2 joint move, 3 waypoints, 4/5 gravity compensation.")
      .def_property_readonly(
          "commanded_position",
          [](const ControlCycleSample& s) { return to_array(s.commanded_position); }, "rad")
      .def_property_readonly(
          "commanded_velocity",
          [](const ControlCycleSample& s) { return to_array(s.commanded_velocity); }, "rad/s")
      .def_property_readonly(
          "feedforward_torque",
          [](const ControlCycleSample& s) { return to_array(s.feedforward_torque); },
          "N·m, after clipping; 0 in POS_VEL_MODE.")
      .def_property_readonly(
          "measured_position",
          [](const ControlCycleSample& s) { return to_array(s.measured_position); }, "rad")
      .def_property_readonly(
          "measured_velocity",
          [](const ControlCycleSample& s) { return to_array(s.measured_velocity); }, "rad/s")
      .def_property_readonly(
          "measured_torque",
          [](const ControlCycleSample& s) { return to_array(s.measured_torque); }, "N·m")
      .def_readonly("commanded_gripper_m", &ControlCycleSample::commanded_gripper_m,
                    "Gripper opening commanded, m; -1 without gripper or before a command.")
      .def_readonly("measured_gripper_m", &ControlCycleSample::measured_gripper_m,
                    "Gripper opening measured, m; -1 without gripper.");
}

void bind_loop_timing(py::module_& m) {
  py::class_<canbus::SendFailureCounts>(m, "SendFailureCounts",
                                        "Frame writes the controller's socket could not make.")
      .def_readonly("refused", &canbus::SendFailureCounts::refused)
      .def_readonly("queue_full", &canbus::SendFailureCounts::queue_full)
      .def_readonly("interface_down", &canbus::SendFailureCounts::interface_down)
      .def_readonly("other", &canbus::SendFailureCounts::other)
      .def_readonly("last_errno", &canbus::SendFailureCounts::last_errno,
                    "errno of the latest failure; 0 before the first.")
      .def("total", &canbus::SendFailureCounts::total);

  py::class_<ControlLoopStatistics>(
      m, "ControlLoopStatistics",
      "Control-loop timing since start or the last reset, µs: compute (the cycle's own work), "
      "io (bus writes and reads) and jitter (wake-up lateness).")
      .def_readonly("cycles", &ControlLoopStatistics::cycles)
      .def_readonly("missed_deadlines", &ControlLoopStatistics::missed_deadlines)
      .def_readonly("compute_median_us", &ControlLoopStatistics::compute_median_us)
      .def_readonly("compute_p99_us", &ControlLoopStatistics::compute_p99_us)
      .def_readonly("compute_max_us", &ControlLoopStatistics::compute_max_us)
      .def_readonly("io_median_us", &ControlLoopStatistics::io_median_us)
      .def_readonly("io_p99_us", &ControlLoopStatistics::io_p99_us)
      .def_readonly("io_max_us", &ControlLoopStatistics::io_max_us)
      .def_readonly("jitter_median_us", &ControlLoopStatistics::jitter_median_us)
      .def_readonly("jitter_p99_us", &ControlLoopStatistics::jitter_p99_us)
      .def_readonly("jitter_max_us", &ControlLoopStatistics::jitter_max_us)
      .def_readonly("send_failures", &ControlLoopStatistics::send_failures);

  py::class_<ControlLoopHistograms>(
      m, "ControlLoopHistograms",
      "Cycle counts per 1 µs bin (bin i: [i, i + 1) µs), trimmed after the last non-empty bin.")
      .def_property_readonly("compute",
                             [](const ControlLoopHistograms& h) { return to_array(h.compute); })
      .def_property_readonly("io", [](const ControlLoopHistograms& h) { return to_array(h.io); })
      .def_property_readonly("jitter",
                             [](const ControlLoopHistograms& h) { return to_array(h.jitter); })
      .def_readonly("cycles", &ControlLoopHistograms::cycles)
      .def_readonly("missed_deadlines", &ControlLoopHistograms::missed_deadlines);
}

void bind_planned_trajectory(py::class_<ArmController>& arm) {
  using Plan = ArmController::PlannedTrajectory;
  py::class_<Plan>(arm, "PlannedTrajectory",
                   "A planned joint trajectory at 400 Hz: one row per control period (six "
                   "joints), and the gripper opening beside each row, m.")
      .def_property_readonly("positions", [](const Plan& p) { return to_matrix(p.positions, 6); })
      .def_property_readonly("velocities", [](const Plan& p) { return to_matrix(p.velocities, 6); })
      .def_property_readonly("accelerations",
                             [](const Plan& p) { return to_matrix(p.accelerations, 6); })
      .def_property_readonly("gripper", [](const Plan& p) { return to_array(p.gripper); });
}

void bind_motion_program_item(py::class_<ArmController>& arm) {
  using Item = ArmController::MotionProgramItem;
  py::class_<Item>(arm, "MotionProgramItem",
                   "One item of a motion program: type 'movej' (waypoints: joint postures), "
                   "'movel' / 'movep' (poses: [x, y, z, roll, pitch, yaw]) or 'sleep'.")
      .def(py::init([](std::string type, Matrix waypoints, Matrix poses, double time_sec,
                       double speed_percent, double sleep_sec, double blend_radius_m) {
             return Item{std::move(type), std::move(waypoints), std::move(poses),
                         time_sec,        speed_percent,        sleep_sec,
                         blend_radius_m};
           }),
           "type"_a = "", "waypoints"_a = Matrix{}, "poses"_a = Matrix{}, "time_sec"_a = 0.0,
           "speed_percent"_a = 0.0, "sleep_sec"_a = 0.0, "blend_radius_m"_a = 0.0)
      .def_readwrite("type", &Item::type)
      .def_property(
          "waypoints", [](const Item& i) { return to_matrix(i.waypoints, 6); },
          [](Item& i, Matrix w) { i.waypoints = std::move(w); })
      .def_property(
          "poses", [](const Item& i) { return to_matrix(i.poses, 6); },
          [](Item& i, Matrix p) { i.poses = std::move(p); })
      .def_readwrite("time_sec", &Item::time_sec, "> 0: duration of this item's part, s")
      .def_readwrite("speed_percent", &Item::speed_percent, "> 0: speed fraction (0, 1]")
      .def_readwrite("sleep_sec", &Item::sleep_sec, "sleep: pause, s")
      .def_readwrite("blend_radius_m", &Item::blend_radius_m, "movel / movep: corner blend, m");
}

void bind_septic_trajectory(py::module_& m) {
  py::class_<SepticTrajectory>(m, "SepticTrajectory",
                               "A rest-to-rest 7th-order trajectory: row j is joint j at times.")
      .def_property_readonly("positions",
                             [](const SepticTrajectory& t) { return to_matrix(t.positions); })
      .def_property_readonly("velocities",
                             [](const SepticTrajectory& t) { return to_matrix(t.velocities); })
      .def_property_readonly("accelerations",
                             [](const SepticTrajectory& t) { return to_matrix(t.accelerations); })
      .def_property_readonly("times", [](const SepticTrajectory& t) { return to_array(t.times); });
  m.def("generate_septuple_trajectory", &generate_septuple_trajectory, "q_start"_a, "q_end"_a,
        "tf"_a, "freq"_a,
        "Rest-to-rest 7th-order trajectory from q_start to q_end (six values, or one for all "
        "six joints), sampled at freq Hz up to and including tf seconds.");
}

}  // namespace

void bind_controller_records(py::module_& m) {
  bind_cycle_sample(m);
  bind_loop_timing(m);
  bind_septic_trajectory(m);
}

// Nested in ArmController, so they are bound once the class exists (bind_arm_controller).
void bind_arm_controller_records(py::class_<ArmController>& arm) {
  bind_planned_trajectory(arm);
  bind_motion_program_item(arm);
}

}  // namespace kestrel::python
