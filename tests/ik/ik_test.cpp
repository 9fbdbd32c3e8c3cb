// Inverse kinematics of the shipped arm and of an irregular test arm: argument errors, round
// trips, the strategies of each mode and the exact lines their fallbacks and failures print;
// then every solution of a pose and the nearest one, through the closed form (with a fixed
// random seed) and the global search as its check, singular and unreachable poses, joints taken
// at the turn nearest the seed, an arm without a spherical wrist, and the refusals. Settings are
// read once per process, so every configuration variant runs in a child process against an
// edited copy of the shipped file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <numeric>
#include <random>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "support/config_sandbox.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace kestrel::testing;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using Joints = std::vector<double>;
using Method = RobotKinematics::IkMethod;
using Text = ::testing::Matcher<const std::string&>;

RobotKinematics& shipped() {
  static RobotKinematics* m = new RobotKinematics();  // outlives the tests
  return *m;
}

struct Pose {
  Joints pos, euler;
};

// Position and RPY angles of the tool point at q.
Pose pose_of(const Joints& q, RobotKinematics& model = shipped()) {
  const auto fk = model.forwardKinematics_kdl(q);
  double r, p, y;
  KDL::Rotation::Quaternion(fk[3], fk[4], fk[5], fk[6]).GetRPY(r, p, y);
  return {{fk[0], fk[1], fk[2]}, {r, p, y}};
}

// Position (m) and orientation (rad) error of q's tool pose against `pose`, by KDL's own FK.
std::pair<double, double> miss(const Joints& q, const Pose& pose,
                               RobotKinematics& model = shipped()) {
  const auto fk = model.forwardKinematics_kdl(q);
  const KDL::Rotation got = KDL::Rotation::Quaternion(fk[3], fk[4], fk[5], fk[6]);
  const KDL::Rotation want = KDL::Rotation::RPY(pose.euler[0], pose.euler[1], pose.euler[2]);
  KDL::Vector axis;
  return {std::hypot(fk[0] - pose.pos[0], fk[1] - pose.pos[1], fk[2] - pose.pos[2]),
          (got * want.Inverse()).GetRotAngle(axis)};
}

// `text` with its only `from` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to) {
  EXPECT_NE(text.find(from), std::string::npos) << from;
  return text.replace(text.find(from), from.size(), to);
}

Joints offset(Joints q, size_t joint, double by) {
  q[joint] += by;
  return q;
}

const Joints kWorking = {0.3, 0.5, -0.4, 0.2, -0.6, 0.1};

// The elbow stretched (the wrist bent, away from its own singularity), and a seed near it:
// close enough that fallback answers pass the 20 ms velocity-plausibility window.
const Joints kStretched = {0.0, 0.9, -M_PI / 2, 0.0, -1.0, 0.0};
const Joints kNearStretched = offset(kStretched, 2, 0.01);

// A target `by` metres beyond the arm's reach, with the stretched posture's orientation.
Pose beyond_reach(double by) {
  Pose t = pose_of(kStretched);
  const double shoulder_z = 0.165;
  const double dx = t.pos[0], dz = t.pos[2] - shoulder_z;
  const double n = std::hypot(dx, dz);
  t.pos[0] += by * dx / n;
  t.pos[2] += by * dz / n;
  return t;
}

// With the default settings: the result, whether a fallback answered, and what is printed.
TEST(SolveIk, DefaultStrategiesReportTheirOutcome) {
  struct Row {
    const char* name;
    Pose target;
    Joints seed;
    bool ok, fallback;
    Text err;
    Joints expected = {};
  };
  const std::vector<Row> rows = {
      {"target at the seed: KDL at once", pose_of(kWorking), kWorking, true, false, "", kWorking},
      {"1.5 mm beyond reach: accepted within tolerance", beyond_reach(0.0015), kNearStretched, true,
       true,
       AllOf(StartsWith("[WARN][solve_ik_kdl] accepted KDL residual IK fallback, target_pos=["),
             HasSubstr(", fk_pos_error_m=0.001"))},
      {"5 cm beyond reach: one failure line", beyond_reach(0.05), kNearStretched, false, false,
       MatchesRegex("solve_ik_kdl failed: ret=-[0-9]+, reason=[^\n]+, "
                    "target_pos=\\[[^]]+\\], target_euler=\\[[^]]+\\]\n")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Joints out;
    bool fallback = !row.fallback;
    bool ok = !row.ok;
    const std::string err = capture_stderr([&] {
      ok = shipped().solve_ik_kdl(row.target.pos, row.target.euler, row.seed, out, &fallback);
    });
    EXPECT_EQ(ok, row.ok);
    EXPECT_EQ(fallback, row.fallback);
    EXPECT_THAT(err, row.err);
    EXPECT_TRUE(ok || out.empty()) << "out is written only on success";
    for (size_t j = 0; j < row.expected.size(); ++j) {
      EXPECT_NEAR(out.at(j), row.expected[j], 1e-6);
    }
  }
}

// KDL converges to the posture beyond joint 3's upper limit (0.58 rad) that the target came from;
// the answer is clamped onto the limit, never returned beyond it.
TEST(SolveIk, KdlAnswerBeyondALimitIsClampedOntoIt) {
  const Joints beyond = {0.2, 0.3, 0.8, 0.1, -0.5, 0.2};
  const Pose t = pose_of(beyond);
  Joints out;
  ASSERT_TRUE(shipped().solve_ik_kdl(t.pos, t.euler, offset(beyond, 0, 0.01), out));
  EXPECT_EQ(out[2], shipped().joint_upper_limits()[2]);
  EXPECT_NEAR(out[0], beyond[0], 1e-4);  // KDL stops within its eps of 1e-5
}

// A continuous joint has no limit to clamp to: its answer is wrapped into one turn instead.
TEST(SolveIk, ContinuousJointIsWrappedIntoOneTurn) {
  TempDir dir;
  RobotKinematics m(dir.write("arm.yaml", ConfigSandbox::shipped_config()),
                    dir.write("arm.urdf", replaced(ConfigSandbox::shipped_urdf(),
                                                   R"(<joint name="joint6" type="revolute">)",
                                                   R"(<joint name="joint6" type="continuous">)")));
  const Joints q = offset(kWorking, 5, 3.5 - kWorking[5]);  // joint 6 turns the tool about its axis
  const Pose t = pose_of(q, m);
  Joints out;
  ASSERT_TRUE(m.solve_ik_kdl(t.pos, t.euler, offset(q, 5, -0.05), out));
  EXPECT_NEAR(out[5], 3.5 - 2 * M_PI, 1e-4);
}

TEST(JacobianIk, ConvergesToTheToolPointAndFailsWithItsLine) {
  const Pose t = pose_of(kWorking);
  const Eigen::VectorXd start =
      Eigen::Map<const Eigen::VectorXd>(kWorking.data(), 6).array() + 0.05;
  const auto q = shipped().inverse_kinematics_jacobian(
      Eigen::Vector3d(t.pos.data()), Eigen::Vector3d(t.euler.data()), start, 1e-4, 1e-3, 200, 1e-4);
  ASSERT_TRUE(q.has_value());
  EXPECT_LT(miss(Joints(q->data(), q->data() + 6), t).first, 2e-4);

  std::optional<Eigen::VectorXd> none;
  const std::string err = capture_stderr([&] {
    none = shipped().inverse_kinematics_jacobian(
        Eigen::Vector3d(0.1, 0.2, 0.3), Eigen::Vector3d(0, 0, 0), start, 1e-4, 1e-3, 0, 0.01);
  });
  EXPECT_FALSE(none.has_value());
  EXPECT_EQ(err,
            "inverse_kinematics_jacobian failed: reason=failed to converge within "
            "iteration/threshold limits, max_iterations=0, threshold_pos=0.0001, "
            "threshold_rot=0.001, damping=0.01, target_pos=[0.1, 0.2, 0.3], target_euler=[0, 0, "
            "0]\n");
}

// ---- Configuration variants -------------------------------------------------------------------

// args: target x y z roll pitch yaw, then the six seed values. Prints the outcome and stderr.
KESTREL_CONFIG_SCENARIO(solve_ik) {
  Joints v, out;
  for (const auto& arg : args) {
    v.push_back(std::stod(arg));
  }
  bool fallback = false;
  const bool ok =
      RobotKinematics().solve_ik_kdl({v.begin(), v.begin() + 3}, {v.begin() + 3, v.begin() + 6},
                                     {v.begin() + 6, v.end()}, out, &fallback);
  std::cout << "ok=" << ok << " fallback=" << fallback << '\n';
  return 0;
}

class IkConfig : public ::testing::Test {
 protected:
  ChildResult solve(const std::string& sections, const Pose& target, const Joints& seed) {
    std::string yaml = ConfigSandbox::shipped_config();
    for (const char* section : {"ik_solver", "ik_fallback", "logging"}) {
      yaml = replace_yaml_section(yaml, section, "");
    }
    box.write_config(yaml + "\n" + sections);
    kestrel::testing::RunOptions options;
    for (const auto& v : {target.pos, target.euler, seed}) {
      for (double x : v) {
        std::ostringstream s;
        s.precision(17);
        s << x;
        options.args.push_back(s.str());
      }
    }
    return box.run("solve_ik", options);
  }
  ConfigSandbox box;
};

// Each mode's strategies from a given seed: what the child prints and the exact lines on
// standard error.
TEST_F(IkConfig, EachModeSolvesOrFailsWithItsOwnLines) {
  const std::string fast_only = "ik_solver: {mode: fast, allow_kdl_fallback: false}\n";
  // Tight tolerances make the fast solver land exactly on the answer; joint 3 of the answer
  // lies 0.06 or 0.07 rad from the seed, against 3 rad/s x 0.02 s = 0.06 rad.
  const std::string velocity_check =
      "ik_solver: {mode: fast, allow_kdl_fallback: false, position_tolerance_m: 1.0e-7, "
      "orientation_tolerance_rad: 1.0e-7, max_fast_iterations: 60, max_joint_delta_time_sec: "
      "0.02, max_joint_velocity_rad_s: [3, 3, 3, 3, 3, 3]}\nlogging: {ik_diagnostics: true}\n";
  // A reachable pose that the default strategies cannot find from the home posture, but mode
  // "analytic" solves exactly, as a strict answer (no fallback line).
  const Pose other_branch = {{-0.124330, 0.388542, 0.708917}, {0.151142, -0.618955, -1.514741}};
  const Joints home = {0.0, 0.4, -0.9, 0.0, -0.6, 0.0};
  struct Row {
    const char* name;
    std::string settings;
    Pose target;
    Joints seed;
    Text out, err;
    bool exits_cleanly = true;
  };
  const std::vector<Row> rows = {
      {"fast without KDL fallback, beyond reach", fast_only, beyond_reach(0.05), kNearStretched,
       HasSubstr("ok=0 fallback=0"),
       MatchesRegex("solve_ik_kdl failed: fast IK residual exceeded tolerance, "
                    "target_pos=\\[[^]]+\\], target_euler=\\[[^]]+\\]\n")},
      {"fast without KDL fallback, reachable", fast_only, pose_of(kWorking),
       offset(kWorking, 1, 0.03), HasSubstr("ok=1 fallback=0"), ""},
      {"velocity check: on the limit", velocity_check, pose_of(kWorking),
       offset(kWorking, 2, -0.06), HasSubstr("ok=1"), ::testing::_},
      {"velocity check: beyond the limit", velocity_check, pose_of(kWorking),
       offset(kWorking, 2, -0.07), HasSubstr("ok=0"),
       HasSubstr("[DEBUG][solve_ik_kdl] rejected fast residual IK: joint2 delta=0.07 exceeds "
                 "velocity-derived limit=0.06 (max_vel=3, dt=0.02)")},
      {"tolerant fallback without candidates",
       "ik_solver: {mode: kdl}\nik_fallback: {enabled: true, max_candidates: 0}\n",
       beyond_reach(0.004), kNearStretched, HasSubstr("ok=0"),
       HasSubstr("; tolerant fallback failed, tolerance_m=0.005, candidates_tried=0, "
                 "max_candidates=0, max_time_ms=3, time_exceeded=false\n")},
      {"analytic: another branch than the seed", "ik_solver: {mode: analytic}\n", other_branch,
       home, HasSubstr("ok=1 fallback=0"), ""},
      // Beyond reach the default strategies still run behind the closed form.
      {"analytic: beyond reach", "ik_solver: {mode: analytic}\n", beyond_reach(0.05),
       kNearStretched, HasSubstr("ok=0 fallback=0"), HasSubstr("solve_ik_kdl failed: ret=")},
      // Weights for another arm are a configuration error of the call, not a silent default.
      {"analytic: weights for another arm",
       "ik_solver: {mode: analytic, nearest_joint_weights: [1, 2]}\n", other_branch, home,
       ::testing::_, HasSubstr("ik_solver.nearest_joint_weights must have 6 values, one per joint"),
       false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto r = solve(row.settings, row.target, row.seed);
    EXPECT_EQ(r.exit_code == 0, row.exits_cleanly) << r.describe();
    EXPECT_THAT(r.out, row.out) << r.describe();
    EXPECT_THAT(r.err, row.err) << r.describe();
  }
}

TEST_F(IkConfig, PositionAdjustedResidualAnswerIsReportedAsTolerantFallback) {
  // 4 mm beyond reach KDL fails, toward the target and toward every moved target still out of
  // reach. Its answer for the target itself trades 0.36 mrad of orientation for reach and is
  // refused by the tight orientation tolerance; the one for the target moved 4 mm along -x misses
  // the requested target by 4.7 mm and 0.08 mrad and is accepted.
  const auto r = solve(
      "ik_solver: {mode: kdl, position_tolerance_m: 0.0049, orientation_tolerance_rad: 0.0002}\n"
      "ik_fallback: {enabled: true, position_tolerance_m: 0.008, max_time_ms: 0}\n",
      beyond_reach(0.004), kNearStretched);
  EXPECT_THAT(r.out, HasSubstr("ok=1 fallback=1")) << r.describe();
  const auto lines = r.err_lines();
  ASSERT_EQ(lines.size(), 2u) << r.describe();
  const std::string v = "\\[[^]]+\\]", n = "[-+0-9.e]+";
  EXPECT_THAT(lines[0], MatchesRegex("\\[WARN\\]\\[solve_ik_kdl\\] accepted position-adjusted "
                                     "residual IK fallback, target_pos=" +
                                     v + ", target_euler=" + v + ", fk_pos_error_m=" + n +
                                     ", fk_rot_error_rad=" + n + ", q_delta_max_rad=" + n));
  EXPECT_THAT(
      lines[1],
      MatchesRegex("\\[WARN\\]\\[solve_ik_kdl\\] strict IK failed ret=-[0-9]+, reason=[^;]+; "
                   "accepted position-tolerant IK fallback, original_target_pos=" +
                   v + ", adjusted_target_pos=" + v + ", target_euler=" + v +
                   ", adjusted_distance_m=0\\.004, tolerance_m=0\\.008, fk_pos_error_m=" + n +
                   ", fk_rot_error_rad=" + n + ", q_delta_max_rad=" + n +
                   ", candidates_tried=[0-9]+, elapsed_ms=" + n));
  // Both lines give the errors of the same joints against the requested target.
  const auto field = [](const std::string& line, const std::string& key) {
    const size_t from = line.find(", " + key + "=") + key.size() + 3;
    return line.substr(from, line.find(',', from) - from);
  };
  for (const char* key : {"fk_pos_error_m", "fk_rot_error_rad", "q_delta_max_rad"}) {
    EXPECT_EQ(field(lines[0], key), field(lines[1], key)) << key;
  }
}

// ---- Every solution and the nearest -----------------------------------------------------------

// Largest joint difference, whole turns ignored.
double turn_gap(const Joints& a, const Joints& b) {
  double gap = 0.0;
  for (size_t j = 0; j < a.size(); ++j) {
    gap = std::max(gap, std::abs(std::remainder(a[j] - b[j], 2.0 * M_PI)));
  }
  return gap;
}

// Every answer is a posture the arm can take that puts the tool on the pose.
// (A non-finite value fails the first two checks.)
void expect_valid(RobotKinematics& model, const std::vector<Joints>& solutions, const Pose& pose) {
  for (const auto& s : solutions) {
    const auto [dp, dr] = miss(s, pose, model);
    EXPECT_LT(dp, 1e-6);
    EXPECT_LT(dr, 1e-6);
    for (size_t j = 0; j < s.size(); ++j) {
      if (model.joint_has_limits()[j]) {
        EXPECT_GE(s[j], model.joint_lower_limits()[j]) << "joint " << j + 1;
        EXPECT_LE(s[j], model.joint_upper_limits()[j]) << "joint " << j + 1;
      }
    }
  }
}

Joints random_joints(RobotKinematics& model, std::mt19937& rng) {
  Joints q;
  for (int j = 0; j < model.num_joints(); ++j) {
    const double lo = model.joint_has_limits()[j] ? model.joint_lower_limits()[j] : -M_PI;
    const double hi = model.joint_has_limits()[j] ? model.joint_upper_limits()[j] : M_PI;
    q.push_back(std::uniform_real_distribution<double>(lo, hi)(rng));
  }
  return q;
}

bool contains(const std::vector<Joints>& solutions, const Joints& q, double within = 1e-6) {
  return std::any_of(solutions.begin(), solutions.end(),
                     [&](const Joints& s) { return turn_gap(s, q) <= within; });
}

// On the first 40 poses the global search answers with a subset of the same solutions.
TEST(ClosedFormIk, ShippedArmHasItAndEveryRandomPostureIsAmongItsSolutions) {
  RobotKinematics& m = shipped();
  ASSERT_TRUE(m.has_closed_form_ik()) << m.closed_form_ik_status();
  std::mt19937 rng(17);
  int branches = 0;
  int searched_ok = 0;
  for (int trial = 0; trial < 400; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    const Joints q = random_joints(m, rng);
    const Pose pose = pose_of(q, m);
    const Joints seed = random_joints(m, rng);
    const auto all = m.solve_ik_all(pose.pos, pose.euler, seed, Method::closed_form);
    ASSERT_TRUE(contains(all, q));
    ASSERT_LE(all.size(), 8u);
    expect_valid(m, all, pose);
    branches += static_cast<int>(all.size());
    // Nearest first; and from the posture itself the nearest is that posture.
    Joints nearest;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, seed, nearest));
    EXPECT_EQ(nearest, all.front());
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, q, nearest));
    EXPECT_LT(turn_gap(nearest, q), 1e-6);
    if (trial < 40) {
      const auto searched = m.solve_ik_all(pose.pos, pose.euler, {}, Method::global_search);
      expect_valid(m, searched, pose);
      EXPECT_LE(searched.size(), all.size()) << "a solution twice";
      for (const auto& s : searched) {
        EXPECT_TRUE(contains(all, s, 1e-5)) << "a solution not in the set";
      }
      searched_ok += !searched.empty();
    }
  }
  EXPECT_GT(branches, 400 * 2) << "the limits leave most poses more than one branch";
  EXPECT_GE(searched_ok, 36) << "the search found nothing for too many reachable poses";
}

// Singular poses have a continuum (or a double root) of solutions: valid ones come back, and
// from the posture itself the nearest is that posture.
TEST(ClosedFormIk, SingularPosesGiveValidSolutions) {
  RobotKinematics& m = shipped();
  // Shoulder: the wrist centre on the base axis, 0.26 sin q2 + 0.25 cos(q2 + q3) = 0 (upper arm
  // 0.26 m, elbow to wrist centre 0.25 m), q3 found by Newton steps.
  Joints shoulder = {0.4, -0.3, -1.0, 0.5, -0.8, 0.2};
  for (int it = 0; it < 50; ++it) {
    const double x = 0.26 * std::sin(shoulder[1]) + 0.25 * std::cos(shoulder[1] + shoulder[2]);
    shoulder[2] -= x / (-0.25 * std::sin(shoulder[1] + shoulder[2]));
  }
  const std::vector<std::pair<const char*, Joints>> cases = {
      {"wrist axes 4 and 6 aligned", {0.3, 0.4, -0.9, 0.7, -M_PI / 2, -0.4}},
      {"elbow stretched", {-0.2, 0.5, -M_PI / 2, 0.3, -0.7, 0.1}},
      {"wrist centre over the base axis", shoulder},
      {"elbow stretched and wrist aligned", {0.1, 0.2, -M_PI / 2, 1.0, -M_PI / 2, 0.5}},
  };
  for (const auto& [name, q] : cases) {
    SCOPED_TRACE(name);
    const Pose pose = pose_of(q, m);
    const auto all = m.solve_ik_all(pose.pos, pose.euler, q);
    ASSERT_FALSE(all.empty());
    expect_valid(m, all, pose);
    Joints nearest;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, q, nearest));
    EXPECT_LT(turn_gap(nearest, q), 1e-5);
    // From elsewhere a member of the continuum still comes back.
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), nearest));
  }
}

TEST(ClosedFormIk, UnreachablePosesHaveNoSolution) {
  RobotKinematics& m = shipped();
  const Pose far = {{1.5, 0.0, 0.3}, {0.0, 0.0, 0.0}};
  EXPECT_TRUE(m.solve_ik_all(far.pos, far.euler, {}, Method::closed_form).empty());
  Joints out = {9.0};
  EXPECT_FALSE(m.solve_ik_nearest(far.pos, far.euler, Joints(6, 0.0), out));
  EXPECT_EQ(out, Joints{9.0}) << "out is written only on success";
  EXPECT_TRUE(m.solve_ik_all(far.pos, far.euler, {}, Method::global_search).empty());
}

// A joint whose limits allow more than one turn is taken at the turn nearest the seed.
TEST(ClosedFormIk, MultiTurnJointsAreTakenNearestTheSeed) {
  TempDir dir;
  const std::string urdf =
      replaced(ConfigSandbox::shipped_urdf(), "<limit lower=\"-3\" upper=\"3\"",
               "<limit lower=\"-9\" upper=\"9\"");  // joint 6's
  RobotKinematics m(dir.write("arm.yaml", ConfigSandbox::shipped_config()),
                    dir.write("arm.urdf", urdf));
  ASSERT_TRUE(m.has_closed_form_ik());
  const Joints q = {0.2, 0.3, -0.8, 0.4, -0.9, 0.5};
  const Pose pose = pose_of(q, m);
  // {seed of joint 6, answer}: the turn nearest the seed, within the limits.
  for (const auto& [seed6, expect6] :
       {std::pair{0.0, 0.5}, std::pair{6.0, 0.5 + 2 * M_PI}, std::pair{-6.0, 0.5 - 2 * M_PI},
        std::pair{8.9, 0.5 + 2 * M_PI}}) {
    Joints seed = q;
    seed[5] = seed6;
    Joints out;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, seed, out));
    EXPECT_NEAR(out[5], expect6, 1e-9) << "seed " << seed6;
  }
}

// The irregular test arm (skew axis, tilted origins, a continuous joint): no closed form, and
// the global search answers from a seed near and far.
TEST(GlobalIkSearch, ArmWithoutSphericalWristIsSolvedBySearch) {
  TempDir dir;
  const auto [yaml, urdf] = TestArm().write(dir);
  RobotKinematics m(yaml, urdf);
  EXPECT_FALSE(m.has_closed_form_ik());
  EXPECT_THAT(m.closed_form_ik_status(), StartsWith("axes 2 and 3 are not parallel"));
  const auto closed_form = [&] {
    m.solve_ik_all({0.3, 0, 0.3}, {0, 0, 0}, {}, Method::closed_form);
  };
  EXPECT_EQ(refusal_of<std::runtime_error>(closed_form),
            "closed-form IK is not available for this arm: " + m.closed_form_ik_status());
  std::mt19937 rng(5);
  int from_far = 0;
  for (int trial = 0; trial < 20; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    const Joints q = random_joints(m, rng);
    const Pose pose = pose_of(q, m);
    Joints near = q;
    for (double& v : near) {
      v += 0.05;
    }
    Joints out;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, near, out));
    expect_valid(m, {out}, pose);
    EXPECT_LT(turn_gap(out, q), 1e-5) << "the solution on the seed's branch is the nearest";
    // The continuous joint (4) comes back at the turn nearest its seed.
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, offset(near, 3, 4 * M_PI), out));
    EXPECT_NEAR(out[3], q[3] + 4 * M_PI, 1e-5);
    if (m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), out)) {
      ++from_far;
      expect_valid(m, {out}, pose);  // from the far seed
    }
  }
  EXPECT_GE(from_far, 10) << "restarts from a far seed found too few of the poses";
}

TEST(SolveIk, RefusesBadArguments) {
  RobotKinematics& m = shipped();
  const double nan = std::nan("");
  const Joints seed(6, 0.0), target = {0.1, 0.2, 0.3};
  struct Row {
    const char* name;
    Joints pos, seed, weights;
    std::string message;  // after "solve_ik_nearest "
  };
  const std::string weights = "weights must be 6 positive values";
  const std::vector<Row> rows = {
      {"short position", {0.1, 0.2}, seed, {}, "expects 3D position and 3D Euler target"},
      {"short seed", target, {0, 0}, {}, "seed size does not match the joint count (6)"},
      {"NaN target", {nan, 0.2, 0.3}, seed, {}, "target and seed must contain only finite values"},
      {"zero weight", target, seed, {1, 1, 1, 0, 1, 1}, weights},
      {"short weights", target, seed, {1}, weights},
  };
  Joints out;
  for (const auto& row : rows) {
    const auto call = [&] { m.solve_ik_nearest(row.pos, {0, 0, 0}, row.seed, out, row.weights); };
    EXPECT_EQ(refusal_of(call), "solve_ik_nearest " + row.message) << row.name;
  }
  const auto all = [&] { m.solve_ik_all(target, {0, 0, 0}, {0}); };
  EXPECT_EQ(refusal_of(all), "solve_ik_all seed size does not match the joint count (6)");
  const auto kdl_target = [&] { m.solve_ik_kdl({0.1, 0.2}, {0, 0, 0}, seed, out); };
  const auto kdl_seed = [&] { m.solve_ik_kdl(target, {0, 0, 0}, {0, 0}, out); };
  EXPECT_EQ(refusal_of(kdl_target), "solve_ik_kdl expects 3D position and 3D Euler target");
  EXPECT_EQ(refusal_of(kdl_seed), "solve_ik_kdl seed size does not match KDL joint count");
  EXPECT_TRUE(out.empty()) << "out is written only on success";
}

// Weights choose between branches: the nearest is the branch with the least weighted distance,
// whichever joints the weights favour.
TEST(SolveIkNearest, WeightsRankTheBranches) {
  RobotKinematics& m = shipped();
  std::mt19937 rng(31);
  Pose pose;
  std::vector<Joints> all;
  while (all.size() < 3) {  // a pose with three branches inside the limits
    pose = pose_of(random_joints(m, rng), m);
    all = m.solve_ik_all(pose.pos, pose.euler);
  }
  for (const auto& weights : {Joints{1, 100, 100, 1, 1, 1}, Joints{1, 1, 1, 100, 100, 100}}) {
    Joints out;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), out, weights));
    const auto distance = [&](const Joints& s) {  // from the zero seed
      return std::inner_product(s.begin(), s.end(), weights.begin(), 0.0, std::plus<>(),
                                [](double q, double w) { return w * q * q; });
    };
    const auto by_distance = [&](const Joints& a, const Joints& b) {
      return distance(a) < distance(b);
    };
    EXPECT_LT(turn_gap(out, *std::min_element(all.begin(), all.end(), by_distance)), 1e-9);
  }
}

}  // namespace
