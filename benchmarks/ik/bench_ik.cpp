// Inverse kinematics over 10,000 random reachable targets (tool poses of random joint vectors
// inside the limits), in two protocols: the seed near the answer (each joint within ±0.05 rad)
// and the seed random in the joint box. solve_ik_kdl runs once per mode, each in its own process
// (the mode is configuration, read once per process), beside bare KDL solvers on the same chain.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainiksolverpos_lma.hpp>
#include <kdl/chainiksolverpos_nr_jl.hpp>
#include <kdl/chainiksolvervel_pinv.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kestrel/algorithms/kinematics.hpp"
#include "support/config_sandbox.hpp"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kTargets = 10000;

struct Case {
  std::vector<double> answer;
  std::vector<double> near_seed;
  std::vector<double> random_seed;
  std::vector<double> pos;
  std::vector<double> euler;
};

std::vector<Case> make_cases(RobotKinematics& model) {
  std::mt19937 rng(2024);
  std::vector<Case> cases(kTargets);
  for (auto& c : cases) {
    for (int j = 0; j < model.num_joints(); ++j) {
      const double lo = model.joint_lower_limits()[j];
      const double hi = model.joint_upper_limits()[j];
      std::uniform_real_distribution<double> box(lo, hi);
      c.answer.push_back(box(rng));
      c.random_seed.push_back(box(rng));
    }
    for (int j = 0; j < model.num_joints(); ++j) {
      const double offset = std::uniform_real_distribution<double>(-0.05, 0.05)(rng);
      c.near_seed.push_back(std::min(std::max(c.answer[j] + offset, model.joint_lower_limits()[j]),
                                     model.joint_upper_limits()[j]));
    }
    const auto fk = model.forwardKinematics_kdl(c.answer);
    c.pos = {fk[0], fk[1], fk[2]};
    double r, p, y;
    KDL::Rotation::Quaternion(fk[3], fk[4], fk[5], fk[6]).GetRPY(r, p, y);
    c.euler = {r, p, y};
  }
  return cases;
}

struct Row {
  double success = 0.0;
  double median_us = 0.0;
  double p99_us = 0.0;
};

Row summarise(std::vector<double> times, int solved) {
  std::sort(times.begin(), times.end());
  return {100.0 * solved / static_cast<double>(times.size()), times[times.size() / 2],
          times[static_cast<size_t>(0.99 * static_cast<double>(times.size() - 1))]};
}

// A solve counts when the answer is a posture the arm can take (inside the joint limits once
// wrapped into one turn) and puts the tool within 3 mm and 0.05 rad of the target.
bool lands(RobotKinematics& model, std::vector<double> q, const Case& c) {
  for (size_t j = 0; j < q.size(); ++j) {
    q[j] = std::remainder(q[j], 2.0 * M_PI);
    if (q[j] < model.joint_lower_limits()[j] - 1e-9 ||
        q[j] > model.joint_upper_limits()[j] + 1e-9) {
      return false;
    }
  }
  const auto fk = model.forwardKinematics_kdl(q);
  const double d = std::hypot(fk[0] - c.pos[0], fk[1] - c.pos[1], fk[2] - c.pos[2]);
  const KDL::Rotation got = KDL::Rotation::Quaternion(fk[3], fk[4], fk[5], fk[6]);
  const KDL::Rotation want = KDL::Rotation::RPY(c.euler[0], c.euler[1], c.euler[2]);
  KDL::Vector axis;
  const double angle = (got * want.Inverse()).GetRotAngle(axis);
  return d <= 0.003 && angle <= 0.05;
}

template <typename Solve>
Row run(RobotKinematics& model, const std::vector<Case>& cases, bool near, Solve&& solve) {
  std::vector<double> times;
  times.reserve(cases.size());
  int solved = 0;
  for (const auto& c : cases) {
    std::vector<double> out;
    const auto t0 = Clock::now();
    const bool ok = solve(c, near ? c.near_seed : c.random_seed, out);
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    solved += ok && lands(model, out, c) ? 1 : 0;
  }
  return summarise(std::move(times), solved);
}

std::string row_text(const Row& near, const Row& random) {
  std::ostringstream s;
  s << near.success << ' ' << near.median_us << ' ' << near.p99_us << ' ' << random.success << ' '
    << random.median_us << ' ' << random.p99_us;
  return s.str();
}

void print_row(const std::string& name, const std::string& figures) {
  std::istringstream in(figures);
  double v[6];
  for (double& x : v) {
    in >> x;
  }
  std::printf("%-44s %8.2f%% %9.1f %9.1f   %8.2f%% %9.1f %9.1f\n", name.c_str(), v[0], v[1], v[2],
              v[3], v[4], v[5]);
}

}  // namespace

// Child side: solve_ik_kdl with whatever mode this process's configuration names.
KESTREL_CONFIG_SCENARIO(ik_mode) {
  std::cerr.setstate(std::ios::failbit);  // the solver's warning and failure lines
  RobotKinematics model;
  const auto cases = make_cases(model);
  auto solve = [&](const Case& c, const std::vector<double>& seed, std::vector<double>& out) {
    return model.solve_ik_kdl(c.pos, c.euler, seed, out);
  };
  const Row near = run(model, cases, true, solve);
  const Row random = run(model, cases, false, solve);
  std::cout << "ROW " << row_text(near, random) << '\n';
  return 0;
}

int main(int argc, char** argv) {
  kestrel::testing::run_config_scenario_if_child();
  (void)argc;
  (void)argv;
  std::cout.setstate(std::ios::failbit);  // "urdf num_joints_" banners
  RobotKinematics model;
  std::cout.clear();
  const auto cases = make_cases(model);
  const KDL::Chain& chain = model.chain();
  const unsigned n = chain.getNrOfJoints();

  Eigen::Matrix<double, 6, 1> weights;
  weights << 1, 1, 1, 1, 1, 1;
  KDL::ChainIkSolverPos_LMA lma(chain, weights, 1e-5, 500, 1e-15);
  KDL::ChainFkSolverPos_recursive fk(chain);
  KDL::ChainIkSolverVel_pinv vel(chain);
  KDL::JntArray q_min(n), q_max(n);
  for (unsigned j = 0; j < n; ++j) {
    q_min(j) = model.joint_lower_limits()[j];
    q_max(j) = model.joint_upper_limits()[j];
  }
  KDL::ChainIkSolverPos_NR_JL nr_jl(chain, q_min, q_max, fk, vel, 100, 1e-6);
  auto bare = [&](KDL::ChainIkSolverPos& solver) {
    return [&](const Case& c, const std::vector<double>& seed, std::vector<double>& out) {
      KDL::JntArray s(n), result(n);
      for (unsigned j = 0; j < n; ++j) {
        s(j) = seed[j];
      }
      const KDL::Frame goal(KDL::Rotation::RPY(c.euler[0], c.euler[1], c.euler[2]),
                            KDL::Vector(c.pos[0], c.pos[1], c.pos[2]));
      const int ret = solver.CartToJnt(s, goal, result);
      out.assign(result.data.data(), result.data.data() + n);
      return ret >= 0;
    };
  };

  std::printf(
      "\nInverse kinematics, %d random reachable targets (success = an answer inside the "
      "joint limits with the tool within 3 mm and 0.05 rad)\n\n",
      kTargets);
  std::printf("%-44s %30s   %30s\n", "", "seed near the answer (+-0.05)",
              "seed random in the joint box");
  std::printf("%-44s %9s %9s %9s   %9s %9s %9s\n", "solver", "success", "median us", "p99 us",
              "success", "median us", "p99 us");
  for (const char* mode : {"fast", "kdl", "kdl_with_approx_fallback"}) {
    kestrel::testing::ConfigSandbox box;
    std::string yaml = kestrel::testing::ConfigSandbox::shipped_config();
    yaml = kestrel::testing::replace_yaml_section(yaml, "ik_solver", "");
    yaml += std::string("\nik_solver: {mode: ") + mode + "}\n";
    box.write_config(yaml);
    kestrel::testing::RunOptions options;
    options.timeout = std::chrono::seconds(600);
    const auto r = box.run("ik_mode", options);
    const auto at = r.out.find("ROW ");
    if (r.exit_code != 0 || at == std::string::npos) {
      std::fprintf(stderr, "mode %s failed:\n%s\n", mode, r.describe().c_str());
      return 1;
    }
    print_row(std::string("solve_ik_kdl, mode ") + mode, r.out.substr(at + 4));
  }
  print_row("bare KDL ChainIkSolverPos_LMA",
            row_text(run(model, cases, true, bare(lma)), run(model, cases, false, bare(lma))));
  print_row("bare KDL ChainIkSolverPos_NR_JL",
            row_text(run(model, cases, true, bare(nr_jl)), run(model, cases, false, bare(nr_jl))));
  return 0;
}
