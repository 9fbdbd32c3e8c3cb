// RobotKinematics in Python: forward kinematics, the dynamics torques, inverse kinematics and the
// model's data. The KDL-based queries take the model's mutex and release the GIL while they run.
#include <pybind11/eigen.h>
#include <pybind11/stl.h>

#include <kestrel/algorithms/kinematics.hpp>

#include "bindings.hpp"
#include "numpy_conversions.hpp"

namespace py = pybind11;
using namespace pybind11::literals;

namespace kestrel::python {
namespace {

using algorithms::UrdfJoint;

// A joint-space query of the model with the GIL released, its answer as a numpy array.
template <typename Query>
py::array_t<double> model_query(Query&& query) {
  Vector answer;
  {
    py::gil_scoped_release release;
    answer = query();
  }
  return to_array(answer);
}

void bind_model_types(py::module_& m, py::class_<RobotKinematics>& kinematics) {
  py::class_<UrdfJoint>(m, "UrdfJoint", "One <joint> of the URDF.")
      .def_readonly("name", &UrdfJoint::name)
      .def_readonly("type", &UrdfJoint::type)
      .def_readonly("parent_link", &UrdfJoint::parent_link)
      .def_readonly("child_link", &UrdfJoint::child_link)
      .def_readonly("origin_xyz", &UrdfJoint::origin_xyz)
      .def_readonly("origin_rpy", &UrdfJoint::origin_rpy)
      .def_readonly("axis", &UrdfJoint::axis)
      .def_readonly("has_limits", &UrdfJoint::has_limits)
      .def_readonly("lower", &UrdfJoint::lower)
      .def_readonly("upper", &UrdfJoint::upper);
  using ScrewJoint = RobotKinematics::joint_t;
  py::class_<ScrewJoint>(kinematics, "joint_t",
                         "One movable joint of the screw-axis model: origin relative to the "
                         "previous movable joint's frame and unit axis in its own frame.")
      .def_readonly("xyz", &ScrewJoint::xyz)
      .def_readonly("rpy", &ScrewJoint::rpy)
      .def_readonly("axis", &ScrewJoint::axis)
      .def_readonly("prismatic", &ScrewJoint::prismatic);
}

void bind_dynamics(py::class_<RobotKinematics>& kinematics) {
  kinematics
      .def(
          "forwardKinematics_kdl",
          [](RobotKinematics& self, const Vector& q) {
            return model_query([&] { return self.forwardKinematics_kdl(q); });
          },
          "q"_a, "Tool-centre-point pose: x, y, z (m), then the quaternion qx, qy, qz, qw.")
      .def(
          "gravity_compensation_kdl",
          [](const RobotKinematics& self, const Vector& q) {
            return model_query([&] { return self.gravity_compensation_kdl(q); });
          },
          "q"_a, "G(q), N·m.")
      .def(
          "coriolis_compensation_kdl",
          [](const RobotKinematics& self, const Vector& q, const Vector& dq) {
            return model_query([&] { return self.coriolis_compensation_kdl(q, dq); });
          },
          "q"_a, "dq"_a, "C(q, dq)·dq, N·m.")
      .def(
          "inertia_compensation_kdl",
          [](const RobotKinematics& self, const Vector& q, const Vector& ddq) {
            return model_query([&] { return self.inertia_compensation_kdl(q, ddq); });
          },
          "q"_a, "ddq"_a, "M(q)·ddq, N·m.")
      .def(
          "dynamic_compensation_kdl",
          [](const RobotKinematics& self, const Vector& q, const Vector& dq, const Vector& ddq) {
            return model_query([&] { return self.dynamic_compensation_kdl(q, dq, ddq); });
          },
          "q"_a, "dq"_a, "ddq"_a, "M(q)·ddq + C(q, dq)·dq + G(q), N·m.");
}

void bind_inverse_kinematics(py::class_<RobotKinematics>& kinematics) {
  kinematics
      .def(
          "solve_ik_kdl",
          [](RobotKinematics& self, const Vector& target_pos, const Vector& target_euler,
             const Vector& seed) {
            Vector out;
            bool fallback_used = false;
            bool solved = false;
            {
              py::gil_scoped_release release;
              solved = self.solve_ik_kdl(target_pos, target_euler, seed, out, &fallback_used);
            }
            return py::make_tuple(to_array(out), solved, fallback_used);
          },
          "target_pos"_a, "target_euler"_a, "seed"_a,
          "Joints for a tool-centre-point target (x, y, z; roll, pitch, yaw) near seed, by the "
          "configured strategy (ik_solver.mode): (joints, success, fallback_used).")
      .def("inverse_kinematics_jacobian", &RobotKinematics::inverse_kinematics_jacobian,
           "target_pos"_a, "target_euler"_a, "q_init"_a, "threshold_pos"_a, "threshold_rot"_a,
           "max_iterations"_a, "damping"_a, py::call_guard<py::gil_scoped_release>(),
           "Damped least squares on the screw-axis model; None when it does not converge.");
}

void bind_solution_sets(py::class_<RobotKinematics>& kinematics) {
  using Method = RobotKinematics::IkMethod;
  py::enum_<Method>(kinematics, "IkMethod")
      .value("automatic", Method::automatic)
      .value("closed_form", Method::closed_form)
      .value("global_search", Method::global_search);
  kinematics
      .def("has_closed_form_ik", &RobotKinematics::has_closed_form_ik,
           "Whether the arm's geometry has a closed-form IK.")
      .def("closed_form_ik_status", &RobotKinematics::closed_form_ik_status,
           "What the geometry lacks for the closed form; empty when it has one.")
      .def(
          "solve_ik_all",
          [](const RobotKinematics& self, const Vector& target_pos, const Vector& target_euler,
             const Vector& seed, Method method) {
            Matrix solutions;
            {
              py::gil_scoped_release release;
              solutions = self.solve_ik_all(target_pos, target_euler, seed, method);
            }
            return to_matrix(solutions, static_cast<std::size_t>(self.num_joints()));
          },
          "target_pos"_a, "target_euler"_a, "seed"_a = Vector{}, "method"_a = Method::automatic,
          "Every solution inside the joint limits, one row each, nearest the seed first; no rows "
          "when the pose is out of reach.")
      .def(
          "solve_ik_nearest",
          [](const RobotKinematics& self, const Vector& target_pos, const Vector& target_euler,
             const Vector& seed, const Vector& weights, Method method) {
            Vector out;
            bool solved = false;
            {
              py::gil_scoped_release release;
              solved = self.solve_ik_nearest(target_pos, target_euler, seed, out, weights, method);
            }
            return py::make_tuple(to_array(out), solved);
          },
          "target_pos"_a, "target_euler"_a, "seed"_a, "weights"_a = Vector{},
          "method"_a = Method::automatic,
          "(joints, success): the solution nearest seed by weighted joint distance (weights "
          "empty: ik_solver.nearest_joint_weights).");
}

void bind_pure_helpers(py::module_& m, py::class_<RobotKinematics>& kinematics) {
  kinematics.def("build_screw_axes", &RobotKinematics::build_screw_axes)
      .def("forward_kinematics", &RobotKinematics::forward_kinematics, "q"_a,
           "Flange frame (4 x 4) by the product of exponentials; compose with flange_to_tcp().")
      .def("rotation_matrix_to_euler", &RobotKinematics::rotation_matrix_to_euler, "R"_a,
           "(roll, pitch, yaw) of R, pitch = -asin(R20).")
      .def("rotation_matrix_to_quaternion", &RobotKinematics::rotation_matrix_to_quaternion, "R"_a,
           "(x, y, z, w).")
      .def("quaternion_error", &RobotKinematics::quaternion_error, "q_target"_a, "q_current"_a,
           "Rotation vector of q_target · q_current⁻¹ (quaternions x, y, z, w).");
  m.def("t_from_xyzrpy", &t_from_xyzrpy, "xyz"_a, "rpy"_a,
        "Homogeneous transform with rotation RPY(roll, pitch, yaw) and translation xyz.");
  m.def("exp_so3", &exp_so3, "omega"_a, "theta"_a, "Rotation by theta about the unit axis omega.");
  m.def("exp_se3", &exp_se3, "screw"_a, "theta"_a, "Rigid motion of the screw (omega, v).");
}

void bind_model_data(py::class_<RobotKinematics>& kinematics) {
  kinematics.def("num_joints", &RobotKinematics::num_joints)
      .def("urdf_joints", &RobotKinematics::urdf_joints, "The URDF joints in chain order.")
      .def("joint_lower_limits",
           [](const RobotKinematics& self) { return to_array(self.joint_lower_limits()); })
      .def("joint_upper_limits",
           [](const RobotKinematics& self) { return to_array(self.joint_upper_limits()); })
      .def("joint_has_limits", &RobotKinematics::joint_has_limits)
      .def("gravity", &RobotKinematics::gravity, "Gravity in the base frame, m/s².")
      .def("screw_joints", &RobotKinematics::screw_joints)
      .def("screw_axes", &RobotKinematics::screw_axes, "6 x n space-frame screw axes.")
      .def("home_transform", &RobotKinematics::home_transform)
      .def("flange_to_tcp", &RobotKinematics::flange_to_tcp);
}

}  // namespace

void bind_kinematics(py::module_& m) {
  py::class_<RobotKinematics> kinematics(
      m, "RobotKinematics",
      "The arm's kinematic and dynamic model, from the URDF and robot_kinematics.yaml.");
  kinematics.def(py::init<>(), "Reads the configuration beside the library.")
      .def(py::init<const std::string&, const std::string&>(), "config_path"_a, "urdf_path"_a,
           "Reads the named configuration and URDF files.");
  bind_model_types(m, kinematics);
  bind_dynamics(kinematics);
  bind_inverse_kinematics(kinematics);
  bind_solution_sets(kinematics);
  bind_pure_helpers(m, kinematics);
  bind_model_data(kinematics);
}

}  // namespace kestrel::python
