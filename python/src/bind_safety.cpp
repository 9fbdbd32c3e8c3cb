// The planning-time safety checks (joint-limit margins, self-collision, singularity), their
// configuration and verdicts, and the standard dynamics regressor. Trajectories are given as
// their joint positions, one row of six per sample: the checks read nothing else.
#include <pybind11/eigen.h>
#include <pybind11/stl.h>

#include <array>
#include <kestrel/algorithms/kinematics.hpp>
#include <kestrel/algorithms/safety_config.hpp>
#include <kestrel/algorithms/singularity.hpp>
#include <kestrel/algorithms/standard_regressor.hpp>
#include <kestrel/algorithms/trajectory_safety.hpp>
#include <stdexcept>
#include <string>

#include "bindings.hpp"
#include "numpy_conversions.hpp"

namespace py = pybind11;
using namespace pybind11::literals;

namespace kestrel::python {
namespace {

using namespace kestrel::algorithms;

constexpr std::size_t kJoints = 6;

void require_joint_count(const Vector& values, const char* name) {
  if (values.size() != kJoints) {
    throw std::invalid_argument(std::string(name) + " must hold 6 values, got " +
                                std::to_string(values.size()));
  }
}

std::vector<WaypointTrajectorySample> samples_from_positions(const Matrix& positions) {
  std::vector<WaypointTrajectorySample> samples(positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i) {
    if (positions[i].size() != kJoints) {
      throw std::invalid_argument("sample " + std::to_string(i) +
                                  " must hold 6 joint positions, got " +
                                  std::to_string(positions[i].size()));
    }
    std::copy(positions[i].begin(), positions[i].end(), samples[i].position.begin());
  }
  return samples;
}

void bind_verdicts(py::module_& m) {
  py::enum_<SafetyLevel>(m, "SafetyLevel")
      .value("ok", SafetyLevel::ok)
      .value("warning", SafetyLevel::warning)
      .value("stop", SafetyLevel::stop);
  py::class_<SafetyResult>(m, "SafetyResult", "One safety verdict.")
      .def(py::init<>())
      .def_readwrite("level", &SafetyResult::level)
      .def_readwrite("code", &SafetyResult::code, "Machine-readable; empty for ok.")
      .def_readwrite("message", &SafetyResult::message, "Human-readable; empty for ok.")
      .def_readwrite("sample", &SafetyResult::sample)
      .def_readwrite("joint", &SafetyResult::joint, "0..5, or -1 when not about one joint.")
      .def_readwrite("value", &SafetyResult::value, "The measured quantity.")
      .def_readwrite("threshold", &SafetyResult::threshold, "The level it was compared with.")
      .def_readwrite("speed_scale", &SafetyResult::speed_scale, "1 = full speed, 0 for stop.")
      .def("__repr__", &format_safety_result);
  m.def("combine_safety_results", &combine_safety_results, "results"_a,
        "The first stop; else the warning with the smallest speed scale; else an ok result.");
  m.def("format_safety_result", &format_safety_result, "result"_a);
}

void bind_configuration(py::module_& m) {
  using Singularity = SingularityProtectionConfig;
  py::class_<Singularity>(m, "SingularityProtectionConfig")
      .def(py::init<>())
      .def_readwrite("enabled", &Singularity::enabled)
      .def_readwrite("wrist_target_abs_rad", &Singularity::wrist_target_abs_rad)
      .def_readwrite("wrist_warn_margin_rad", &Singularity::wrist_warn_margin_rad)
      .def_readwrite("wrist_stop_margin_rad", &Singularity::wrist_stop_margin_rad)
      .def_readwrite("shoulder_warn_radius_m", &Singularity::shoulder_warn_radius_m)
      .def_readwrite("shoulder_stop_radius_m", &Singularity::shoulder_stop_radius_m)
      .def_readwrite("elbow_j3_target_rad", &Singularity::elbow_j3_target_rad)
      .def_readwrite("elbow_j4_target_rad", &Singularity::elbow_j4_target_rad)
      .def_readwrite("elbow_warn_radius_rad", &Singularity::elbow_warn_radius_rad)
      .def_readwrite("elbow_stop_radius_rad", &Singularity::elbow_stop_radius_rad)
      .def_readwrite("jacobian_warn_sigma_min", &Singularity::jacobian_warn_sigma_min)
      .def_readwrite("jacobian_stop_sigma_min", &Singularity::jacobian_stop_sigma_min)
      .def_readwrite("jacobian_warn_condition", &Singularity::jacobian_warn_condition)
      .def_readwrite("jacobian_stop_condition", &Singularity::jacobian_stop_condition)
      .def_readwrite("jacobian_angular_scale_m", &Singularity::jacobian_angular_scale_m)
      .def_readwrite("yellow_min_speed_scale", &Singularity::yellow_min_speed_scale);

  using Trajectory = TrajectorySafetyConfig;
  py::class_<Trajectory>(m, "TrajectorySafetyConfig")
      .def(py::init<>())
      .def_readwrite("enabled", &Trajectory::enabled)
      .def_readwrite("joint_limit_warn_margin_rad", &Trajectory::joint_limit_warn_margin_rad)
      .def_readwrite("joint_limit_stop_margin_rad", &Trajectory::joint_limit_stop_margin_rad)
      .def_readwrite("tracking_error_warn_rad", &Trajectory::tracking_error_warn_rad)
      .def_readwrite("tracking_error_stop_rad", &Trajectory::tracking_error_stop_rad)
      .def_readwrite("tracking_error_stop_cycles", &Trajectory::tracking_error_stop_cycles)
      .def_readwrite("velocity_warn_scale", &Trajectory::velocity_warn_scale)
      .def_readwrite("velocity_stop_scale", &Trajectory::velocity_stop_scale)
      .def_readwrite("acceleration_warn_scale", &Trajectory::acceleration_warn_scale)
      .def_readwrite("acceleration_stop_scale", &Trajectory::acceleration_stop_scale)
      .def_readwrite("jerk_warn_scale", &Trajectory::jerk_warn_scale)
      .def_readwrite("jerk_stop_scale", &Trajectory::jerk_stop_scale)
      .def_readwrite("derivative_stop_cycles", &Trajectory::derivative_stop_cycles);

  using Collision = SelfCollisionConfig;
  py::class_<Collision> collision(m, "SelfCollisionConfig");
  py::class_<Collision::Body>(collision, "Body",
                              "A capsule (p0, p1, radius) or box (center, size, rpy) on a link.")
      .def(py::init<>())
      .def_readwrite("name", &Collision::Body::name)
      .def_readwrite("link", &Collision::Body::link)
      .def_readwrite("type", &Collision::Body::type)
      .def_readwrite("p0", &Collision::Body::p0)
      .def_readwrite("p1", &Collision::Body::p1)
      .def_readwrite("radius", &Collision::Body::radius)
      .def_readwrite("center", &Collision::Body::center)
      .def_readwrite("size", &Collision::Body::size)
      .def_readwrite("rpy", &Collision::Body::rpy);
  collision.def(py::init<>())
      .def_readwrite("enabled", &Collision::enabled)
      .def_readwrite("warn_distance_m", &Collision::warn_distance_m)
      .def_readwrite("stop_distance_m", &Collision::stop_distance_m)
      .def_readwrite("ignored_pairs", &Collision::ignored_pairs)
      .def_readwrite("bodies", &Collision::bodies);

  py::class_<SafetyConfig>(m, "SafetyConfig")
      .def(py::init<>())
      .def_readwrite("singularity_protection", &SafetyConfig::singularity_protection)
      .def_readwrite("trajectory_safety", &SafetyConfig::trajectory_safety)
      .def_readwrite("self_collision", &SafetyConfig::self_collision);
  m.def("read_safety_config", &read_safety_config, "config_path"_a,
        "The safety sections of the named robot_kinematics.yaml; raises on any error.");
  m.def("load_safety_config", &load_safety_config,
        "The safety sections of the configuration beside the library. A bad file ends the "
        "process with status 1 (one line on standard error).");
}

void bind_checks(py::module_& m) {
  m.def(
      "check_joint_limit_margins",
      [](const Matrix& positions, const Vector& lower, const Vector& upper,
         const std::vector<bool>& limit_enabled, const TrajectorySafetyConfig& config) {
        return check_joint_limit_margins(samples_from_positions(positions), lower, upper,
                                         limit_enabled, config);
      },
      "positions"_a, "lower"_a, "upper"_a, "limit_enabled"_a, "config"_a,
      "Margin to the nearer joint limit of every checked joint of every sample (rows of six "
      "joint positions): stop 'joint_limit_margin_stop', warning 'joint_limit_margin_warn'.");
  m.def(
      "check_self_collision",
      [](const RobotKinematics& kinematics, const Matrix& positions,
         const SelfCollisionConfig& config) {
        const auto samples = samples_from_positions(positions);
        py::gil_scoped_release release;
        return check_self_collision(kinematics, samples, config);
      },
      "kinematics"_a, "positions"_a, "config"_a,
      "Clearance between every pair of configured bodies at every sample: stop "
      "'self_collision_stop', warning 'self_collision_warn'.");
  m.def(
      "assess_singularity",
      [](RobotKinematics& kinematics, const Matrix& positions,
         const SingularityProtectionConfig& config) {
        const auto samples = samples_from_positions(positions);
        py::gil_scoped_release release;
        return assess_singularity(kinematics, samples, config);
      },
      "kinematics"_a, "positions"_a, "config"_a,
      "Wrist, shoulder, elbow and Jacobian singularity margins of every sample: stop "
      "'singularity_stop', warning 'singularity_warn'.");
}

void bind_regressor(py::module_& m) {
  m.def(
      "standard_regressor",
      [](const Vector& q, const Vector& dq, const Vector& ddq) {
        require_joint_count(q, "q");
        require_joint_count(dq, "dq");
        require_joint_count(ddq, "ddq");
        py::array_t<double> out({kJoints, std::size_t{60}});
        standard_regressor(q.data(), dq.data(), ddq.data(), out.mutable_data());
        return out;
      },
      "q"_a, "dq"_a, "ddq"_a,
      "Y(q, dq, ddq), 6 x 60: joint torques = Y · π, with ten inertial parameters per link "
      "(m, m·cx, m·cy, m·cz, Ixx, Ixy, Ixz, Iyy, Iyz, Izz), link 1 first.");
  m.def(
      "standard_inertial_parameters",
      [](const RobotKinematics& model) { return to_array(standard_inertial_parameters(model)); },
      "model"_a, "π of the model's links in the regressor's order (60 values).");
}

}  // namespace

void bind_safety(py::module_& m) {
  bind_verdicts(m);
  bind_configuration(m);
  bind_checks(m);
  bind_regressor(m);
}

}  // namespace kestrel::python
