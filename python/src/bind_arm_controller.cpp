// ArmController in Python. Calls that compute or wait release the GIL, so that another Python
// thread (a watchdog calling stop(), a plotter polling samples) keeps running; motions that wait
// for the arm also answer Ctrl-C by stopping the arm (interruptible_call.hpp). Cheap state
// queries keep the GIL: releasing it would cost more than the query.
#include <pybind11/stl.h>

#include <kestrel/controller/interfaces.hpp>
#include <utility>

#include "bindings.hpp"
#include "interruptible_call.hpp"
#include "numpy_conversions.hpp"

namespace py = pybind11;
using namespace pybind11::literals;

namespace kestrel::python {
namespace {

using Release = py::call_guard<py::gil_scoped_release>;

// A motion call that returns once the arm has arrived; Ctrl-C stops the arm.
template <typename Call>
double wait_for_motion(ArmController& arm, Call&& call) {
  return call_interruptibly(std::forward<Call>(call), [&arm] { arm.stop(); });
}

using IkQuery = std::pair<Vector, bool> (ArmController::*)(const Vector&, const Vector&,
                                                           const Vector&);

void bind_ik_query(py::class_<ArmController>& arm, const char* name, IkQuery query,
                   const char* doc) {
  arm.def(
      name,
      [query](ArmController& self, const Vector& pos, const Vector& euler, const Vector& q_seed) {
        std::pair<Vector, bool> answer;
        {
          py::gil_scoped_release release;
          answer = (self.*query)(pos, euler, q_seed);
        }
        return py::make_tuple(to_array(answer.first), answer.second);
      },
      "pos"_a, "euler"_a, "q_seed"_a = Vector{}, doc);
}

void bind_lifecycle(py::class_<ArmController>& arm) {
  arm.def(py::init<bool, const std::string&, bool, ControlMode, bool>(), "enable_gripper"_a,
          "can_interface"_a, "use_canfd"_a, "control_mode"_a, "skip_hardware_init"_a, Release(),
          "Opens can_interface, reads the configuration, brings the motors up (unless "
          "skip_hardware_init) and starts the control and torque-monitor threads.")
      .def("cleanup", &ArmController::cleanup, Release(),
           "Stops both threads, disables the motors (not with skip_hardware_init) and releases "
           "the bus. Idempotent; a motion waiting in another thread raises RuntimeError.")
      .def("__enter__", [](ArmController& self) -> ArmController& { return self; })
      .def(
          "__exit__",
          [](ArmController& self, const py::args&) {
            py::gil_scoped_release release;
            self.cleanup();
          },
          "Calls cleanup().")
      .def("stop", &ArmController::stop, Release(),
           "Ends whatever the arm is doing at once: brakes to rest within the limits and holds. "
           "A motion call waiting in another thread raises RuntimeError('motion stopped'). Safe "
           "from any thread; new commands are accepted afterwards.")
      .def("emergency_stopped", &ArmController::emergency_stopped,
           "True once an emergency stop has disabled the arm.")
      .def("running", &ArmController::running, "True while the control loop runs.");
}

void bind_joint_and_gripper_commands(py::class_<ArmController>& arm) {
  arm.def("set_joint", &ArmController::set_joint, "q"_a, "time"_a, Release(),
          "Rest-to-rest 7th-order move to q (six joints, rad, clamped to the limits) in `time` "
          "seconds; returns at once, the control loop carries it out.")
      .def("set_joint_raw", &ArmController::set_joint_raw, "q"_a, "v"_a, Release(),
           "Streams one raw target: positions (clamped by the loop) and velocities, as given.")
      .def("openGripper", &ArmController::openGripper, Release())
      .def("closeGripper", &ArmController::closeGripper, Release())
      .def("setGripperPosition", &ArmController::setGripperPosition, "position"_a, Release(),
           "0 closed .. 1 open.")
      .def("setGripperPosition_raw", &ArmController::setGripperPosition_raw, "position"_a,
           Release(), "Clamped into [0, 1] with a warning.")
      .def("setGripperDistance",
           py::overload_cast<double, double, double>(&ArmController::setGripperDistance),
           "distance"_a, "kp"_a, "kd"_a, Release(), "Opening in m (0 closed .. 0.085 open).")
      .def("setGripperDistance", py::overload_cast<double>(&ArmController::setGripperDistance),
           "distance"_a, Release())
      .def("identify_gravity_compensation", &ArmController::identify_gravity_compensation,
           Release(), "Floating arm: gravity compensation torques only.")
      .def("identify_gravity_compensation_kdl", &ArmController::identify_gravity_compensation_kdl,
           Release());
}

void bind_cartesian_commands(py::class_<ArmController>& arm) {
  arm.def("set_end_effector_pose", &ArmController::set_end_effector_pose, "pos"_a, "euler"_a,
          "time"_a, Release(),
          "Solves the tool pose (pos x, y, z m; euler roll, pitch, yaw rad) from the current "
          "joints and moves there as set_joint(q, time) would; sends nothing without an answer.")
      .def("set_end_effector_pose_raw", &ArmController::set_end_effector_pose_raw, "pos"_a,
           "euler"_a, Release(),
           "Streams a pose target: IK from the current joints, sent as a raw joint target.");
  bind_ik_query(arm, "solve_ik", &ArmController::solve_ik,
                "IK query, nothing moves: (joints, success) for the pose near q_seed, or near "
                "the current joints when q_seed is empty.");
  bind_ik_query(arm, "solve_ik_nearest", &ArmController::solve_ik_nearest,
                "IK query from any seed, nothing moves: every solution of the pose inside the "
                "joint limits, the one nearest q_seed (or the current joints) returned as "
                "(joints, success).");
}

void bind_waypoint_motions(py::class_<ArmController>& arm) {
  arm.def("plan_joint_waypoints_with_gripper", &ArmController::plan_joint_waypoints_with_gripper,
          "q_start"_a, "waypoints"_a, "gripper_positions"_a, "time_sec"_a, "speed_percent"_a,
          Release(),
          "Plans (without moving) the waypoints from q_start with one gripper value (0..1) per "
          "waypoint, and checks the plan; a safety stop raises RuntimeError.")
      .def(
          "move_joint_waypoints",
          [](ArmController& self, const Matrix& waypoints, double time_sec, double speed_percent) {
            return wait_for_motion(self, [&] {
              return self.move_joint_waypoints(waypoints, time_sec, speed_percent);
            });
          },
          "waypoints"_a, "time_sec"_a, "speed_percent"_a,
          "Moves through the joint waypoints and returns the planned duration, s, once the "
          "motion has ended. time_sec > 0: the motion takes that long; otherwise speed_percent "
          "(0, 1] of the speed limits, or the configured default when 0.")
      .def(
          "move_joint_waypoints_with_gripper",
          [](ArmController& self, const Matrix& waypoints, const Vector& gripper_positions,
             double time_sec, double speed_percent) {
            return wait_for_motion(self, [&] {
              return self.move_joint_waypoints_with_gripper(waypoints, gripper_positions, time_sec,
                                                            speed_percent);
            });
          },
          "waypoints"_a, "gripper_positions"_a, "time_sec"_a, "speed_percent"_a,
          "move_joint_waypoints with one gripper value (0 closed .. 1 open) per waypoint.")
      .def("update_joint_waypoint_chunk", &ArmController::update_joint_waypoint_chunk,
           "waypoints"_a, "time_sec"_a, "speed_percent"_a, "switch_delay_sec"_a, Release(),
           "Replaces the running motion by a new chunk switch_delay_sec from now, without a "
           "jump; returns the chunk's planned duration at once.")
      .def("update_joint_waypoint_chunk_with_gripper",
           &ArmController::update_joint_waypoint_chunk_with_gripper, "waypoints"_a,
           "gripper_positions"_a, "time_sec"_a, "speed_percent"_a, "switch_delay_sec"_a, Release())
      .def(
          "get_last_waypoint_command_samples",
          [](ArmController& self) {
            Matrix samples;
            {
              py::gil_scoped_release release;
              samples = self.get_last_waypoint_command_samples();
            }
            return to_matrix(samples, 13);
          },
          "Samples of the last waypoint motion, one row each: six joints, then the tool's x, y, "
          "z and quaternion qx, qy, qz, qw.");
}

void bind_cartesian_motions(py::class_<ArmController>& arm) {
  arm.attr("kPositionToleranceM") = ArmController::kPositionToleranceM;
  arm.attr("kOrientationToleranceRad") = ArmController::kOrientationToleranceRad;
  arm.def(
         "move_pose_waypoints",
         [](ArmController& self, const Matrix& poses, double time_sec, double speed_percent,
            bool linear, double blend_radius_m) {
           return wait_for_motion(self, [&] {
             return self.move_pose_waypoints(poses, time_sec, speed_percent, linear,
                                             blend_radius_m);
           });
         },
         "poses"_a, "time_sec"_a, "speed_percent"_a, "linear"_a = true, "blend_radius_m"_a = 0.002,
         "Moves the tool through poses [x, y, z, roll, pitch, yaw]: straight lines with blended "
         "corners (linear) or point to point. Returns the planned duration once ended.")
      .def(
          "move_l",
          [](ArmController& self, const Matrix& poses, double time_sec, double speed_percent,
             double blend_radius_m) {
            return wait_for_motion(
                self, [&] { return self.move_l(poses, time_sec, speed_percent, blend_radius_m); });
          },
          "poses"_a, "time_sec"_a = 0.0, "speed_percent"_a = 0.0, "blend_radius_m"_a = 0.002,
          "Straight tool lines through the poses, corners rounded within blend_radius_m.")
      .def(
          "move_p",
          [](ArmController& self, const Matrix& poses, double time_sec, double speed_percent) {
            return wait_for_motion(self,
                                   [&] { return self.move_p(poses, time_sec, speed_percent); });
          },
          "poses"_a, "time_sec"_a = 0.0, "speed_percent"_a = 0.0,
          "Point to point: each pose solved by IK, then one joint waypoint motion.")
      .def(
          "move_p_with_gripper",
          [](ArmController& self, const Matrix& poses, const Vector& gripper_positions,
             double time_sec, double speed_percent) {
            return wait_for_motion(self, [&] {
              return self.move_p_with_gripper(poses, gripper_positions, time_sec, speed_percent);
            });
          },
          "poses"_a, "gripper_positions"_a, "time_sec"_a = 0.0, "speed_percent"_a = 0.0)
      .def(
          "run_motion_program",
          [](ArmController& self, const std::vector<ArmController::MotionProgramItem>& program) {
            return wait_for_motion(self, [&] { return self.run_motion_program(program); });
          },
          "program"_a,
          "Runs the items in order, joining compatible consecutive moves into one motion; "
          "returns the sum of the executed durations, s.");
}

void bind_state(py::class_<ArmController>& arm) {
  arm.def(
         "get_joint", [](ArmController& self) { return to_array(self.get_joint()); },
         "Joints, rad; empty before the first feedback.")
      .def(
          "get_joint_velocities",
          [](ArmController& self) { return to_array(self.get_joint_velocities()); }, "rad/s")
      .def(
          "get_joint_torques",
          [](ArmController& self) { return to_array(self.get_joint_torques()); }, "N·m")
      .def(
          "get_end_effector_pose",
          [](ArmController& self) { return to_array(self.get_end_effector_pose()); },
          "x, y, z, qx, qy, qz, qw of the tool point.")
      .def("get_gripper_position", &ArmController::get_gripper_position,
           "[0, 1]; -1 without gripper.")
      .def("get_gripper_distance", &ArmController::get_gripper_distance,
           "[0, 0.085] m; -1 without gripper.")
      .def("get_control_cycle_sample", &ArmController::get_control_cycle_sample,
           "What the loop commanded on its latest cycle beside the feedback it used.")
      .def("control_loop_statistics", &ArmController::control_loop_statistics)
      .def("control_loop_histograms", &ArmController::control_loop_histograms)
      .def("reset_control_loop_statistics", &ArmController::reset_control_loop_statistics);
}

}  // namespace

void bind_arm_controller(py::module_& m) {
  py::enum_<ControlMode>(m, "ControlMode")
      .value("MIT_MODE", MIT_MODE)
      .value("POS_VEL_MODE", POS_VEL_MODE)
      .export_values();
  py::class_<ArmController> arm(
      m, "ArmController",
      "The arm: one object opens the CAN bus, brings the six joint motors and the gripper up and "
      "runs the 2.5 ms control loop.\n\n"
      "    with kestrel.ArmController(enable_gripper=True, can_interface='can0', "
      "use_canfd=False,\n"
      "                               control_mode=kestrel.MIT_MODE, skip_hardware_init=False) "
      "as arm:\n"
      "        arm.move_joint_waypoints([[0.0, 0.4, -0.9, 0.0, -0.6, 0.0]], 2.0, 0.0)");
  bind_arm_controller_records(arm);
  bind_lifecycle(arm);
  bind_joint_and_gripper_commands(arm);
  bind_cartesian_commands(arm);
  bind_waypoint_motions(arm);
  bind_cartesian_motions(arm);
  bind_state(arm);
}

}  // namespace kestrel::python
