// Tuning of the inverse-kinematics entry point: the `ik_solver` and `ik_fallback` sections of
// "robot_kinematics.yaml", validated once and cached for the life of the process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::algorithms {

struct IkSolverConfig {
  // "fast", "kdl", "kdl_with_approx_fallback", or "analytic" (every solution of the pose first,
  // the nearest taken, then the strategy of "kdl_with_approx_fallback" behind it)
  std::string mode = "kdl_with_approx_fallback";
  double position_tolerance_m = 0.003;           // largest accepted position residual
  double orientation_tolerance_rad = 0.05;       // largest accepted orientation residual
  int32_t max_fast_iterations = 5;               // damped least-squares budget of the fast solver
  int32_t max_residual_search_iterations = 60;   // coordinate-search budget
  double damping = 0.02;                         // damping of the least-squares steps
  double max_joint_step_rad = 0.25;              // largest change of one joint per step
  double max_joint_delta_time_sec = 0.02;        // with the speed limits: largest move from seed
  std::vector<double> max_joint_velocity_rad_s;  // per-joint speed limits for that check
  bool allow_kdl_fallback = true;                // a failed fast solve may go on to KDL
  // Mode "analytic" and the nearest-solution queries: the global search's time budget, and the
  // per-joint weights of the distance that ranks solutions (empty: 1 for every joint).
  double global_search_time_ms = 5.0;
  std::vector<double> nearest_joint_weights;
};

struct IkFallbackConfig {
  bool enabled = false;                 // the position-tolerant last resort may run
  double position_tolerance_m = 0.005;  // how far the adjusted target may move, metres
  uint64_t max_candidates = 32;         // adjusted targets tried at most
  double max_time_ms = 3.0;             // time budget, milliseconds
};

// Read and validate the section from the resolved configuration file; throw std::runtime_error.
IkSolverConfig read_ik_solver_config();
IkFallbackConfig read_ik_fallback_config();

// Same, for an explicitly named file.
IkSolverConfig read_ik_solver_config(const std::string& config_path);
IkFallbackConfig read_ik_fallback_config(const std::string& config_path);

// Cached copies, read on first use. A failed first read throws and is retried on the next call;
// later edits of the file are not seen until the process restarts.
const IkSolverConfig& ik_solver_config();
const IkFallbackConfig& ik_fallback_config();

}  // namespace kestrel::algorithms
