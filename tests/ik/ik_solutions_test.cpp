// Every IK solution of a pose and the nearest one: round trips through the closed form with a
// fixed random seed, the global search as its check, singular and unreachable poses, joints
// taken at the turn nearest the seed, an arm without a spherical wrist, and the refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "support/config_sandbox.hpp"
#include "support/refusal.hpp"

namespace {

using kestrel::testing::refusal_of;
using kestrel::testing::TempDir;
using Joints = std::vector<double>;
using Method = RobotKinematics::IkMethod;

RobotKinematics& shipped() {
  static RobotKinematics* m = new RobotKinematics();  // outlives the tests
  return *m;
}

struct Pose {
  Joints pos, euler;
};

Pose pose_of(RobotKinematics& model, const Joints& q) {
  const auto fk = model.forwardKinematics_kdl(q);
  double r, p, y;
  KDL::Rotation::Quaternion(fk[3], fk[4], fk[5], fk[6]).GetRPY(r, p, y);
  return {{fk[0], fk[1], fk[2]}, {r, p, y}};
}

// Position (m) and orientation (rad) error of q's tool pose against `pose`, by KDL's own FK.
std::pair<double, double> miss(RobotKinematics& model, const Joints& q, const Pose& pose) {
  const auto fk = model.forwardKinematics_kdl(q);
  const KDL::Rotation got = KDL::Rotation::Quaternion(fk[3], fk[4], fk[5], fk[6]);
  const KDL::Rotation want = KDL::Rotation::RPY(pose.euler[0], pose.euler[1], pose.euler[2]);
  KDL::Vector axis;
  return {std::hypot(fk[0] - pose.pos[0], fk[1] - pose.pos[1], fk[2] - pose.pos[2]),
          (got * want.Inverse()).GetRotAngle(axis)};
}

// Largest joint difference, whole turns ignored.
double turn_gap(const Joints& a, const Joints& b) {
  double gap = 0.0;
  for (size_t j = 0; j < a.size(); ++j) {
    gap = std::max(gap, std::abs(std::remainder(a[j] - b[j], 2.0 * M_PI)));
  }
  return gap;
}

// Every answer is a posture the arm can take that puts the tool on the pose.
void expect_valid(RobotKinematics& model, const std::vector<Joints>& solutions, const Pose& pose,
                  const std::string& what) {
  for (const auto& s : solutions) {
    const auto [dp, dr] = miss(model, s, pose);
    EXPECT_LT(dp, 1e-6) << what;
    EXPECT_LT(dr, 1e-6) << what;
    for (size_t j = 0; j < s.size(); ++j) {
      if (model.joint_has_limits()[j]) {
        EXPECT_GE(s[j], model.joint_lower_limits()[j]) << what << " joint " << j + 1;
        EXPECT_LE(s[j], model.joint_upper_limits()[j]) << what << " joint " << j + 1;
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
  for (const auto& s : solutions) {
    if (turn_gap(s, q) <= within) {
      return true;
    }
  }
  return false;
}

TEST(ClosedFormIk, ShippedArmHasItAndEveryRandomPostureIsAmongItsSolutions) {
  RobotKinematics& m = shipped();
  ASSERT_TRUE(m.has_closed_form_ik()) << m.closed_form_ik_status();
  std::mt19937 rng(17);
  int branches = 0;
  for (int trial = 0; trial < 400; ++trial) {
    const Joints q = random_joints(m, rng);
    const Pose pose = pose_of(m, q);
    const Joints seed = random_joints(m, rng);
    const auto all = m.solve_ik_all(pose.pos, pose.euler, seed, Method::closed_form);
    ASSERT_TRUE(contains(all, q)) << "trial " << trial;
    ASSERT_LE(all.size(), 8u);
    expect_valid(m, all, pose, "trial " + std::to_string(trial));
    branches += static_cast<int>(all.size());
    // Nearest first; and from the posture itself the nearest is that posture.
    Joints nearest;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, seed, nearest));
    EXPECT_EQ(nearest, all.front());
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, q, nearest));
    EXPECT_LT(turn_gap(nearest, q), 1e-6);
  }
  EXPECT_GT(branches, 400 * 2) << "the limits leave most poses more than one branch";
}

// The global search answers the same poses with a subset of the same solutions.
TEST(GlobalIkSearch, AgreesWithTheClosedForm) {
  RobotKinematics& m = shipped();
  std::mt19937 rng(23);
  int found = 0;
  for (int trial = 0; trial < 40; ++trial) {
    const Joints q = random_joints(m, rng);
    const Pose pose = pose_of(m, q);
    const auto exact = m.solve_ik_all(pose.pos, pose.euler, {}, Method::closed_form);
    const auto searched = m.solve_ik_all(pose.pos, pose.euler, {}, Method::global_search);
    expect_valid(m, searched, pose, "trial " + std::to_string(trial));
    EXPECT_LE(searched.size(), exact.size()) << "trial " << trial << ": a solution twice";
    for (const auto& s : searched) {
      EXPECT_TRUE(contains(exact, s, 1e-5)) << "trial " << trial << ": a solution not in the set";
    }
    found += !searched.empty();
  }
  EXPECT_GE(found, 36) << "the search found nothing for too many reachable poses";
}

// Singular poses have a continuum (or a double root) of solutions: valid ones come back, and
// from the posture itself the nearest is that posture.
TEST(ClosedFormIk, SingularPosesGiveValidSolutions) {
  RobotKinematics& m = shipped();
  struct Case {
    const char* name;
    Joints q;
  };
  // Shoulder: the wrist centre on the base axis, 0.26 sin q2 + 0.25 cos(q2 + q3) = 0 (upper arm
  // 0.26 m, elbow to wrist centre 0.25 m), q3 found by Newton steps.
  Joints shoulder = {0.4, -0.3, -1.0, 0.5, -0.8, 0.2};
  for (int it = 0; it < 50; ++it) {
    const double x = 0.26 * std::sin(shoulder[1]) + 0.25 * std::cos(shoulder[1] + shoulder[2]);
    shoulder[2] -= x / (-0.25 * std::sin(shoulder[1] + shoulder[2]));
  }
  const std::vector<Case> cases = {
      {"wrist axes 4 and 6 aligned", {0.3, 0.4, -0.9, 0.7, -M_PI / 2, -0.4}},
      {"elbow stretched", {-0.2, 0.5, -M_PI / 2, 0.3, -0.7, 0.1}},
      {"wrist centre over the base axis", shoulder},
      {"elbow stretched and wrist aligned", {0.1, 0.2, -M_PI / 2, 1.0, -M_PI / 2, 0.5}},
  };
  for (const auto& c : cases) {
    const Pose pose = pose_of(m, c.q);
    const auto all = m.solve_ik_all(pose.pos, pose.euler, c.q);
    ASSERT_FALSE(all.empty()) << c.name;
    expect_valid(m, all, pose, c.name);
    for (const auto& s : all) {
      for (double v : s) {
        ASSERT_TRUE(std::isfinite(v)) << c.name;
      }
    }
    Joints nearest;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, c.q, nearest)) << c.name;
    EXPECT_LT(turn_gap(nearest, c.q), 1e-5) << c.name;
    // From elsewhere a member of the continuum still comes back.
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), nearest)) << c.name;
  }
}

TEST(ClosedFormIk, UnreachablePosesHaveNoSolution) {
  RobotKinematics& m = shipped();
  const Pose far = {{1.5, 0.0, 0.3}, {0.0, 0.0, 0.0}};
  const Pose above = {{0.0, 0.0, 1.2}, {M_PI, 0.0, 0.0}};  // the arm reaches 0.85 m up
  for (const Pose& pose : {far, above}) {
    EXPECT_TRUE(m.solve_ik_all(pose.pos, pose.euler, {}, Method::closed_form).empty());
    Joints out = {9.0};
    EXPECT_FALSE(m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), out));
    EXPECT_EQ(out, Joints{9.0}) << "out is written only on success";
  }
  EXPECT_TRUE(m.solve_ik_all(far.pos, far.euler, {}, Method::global_search).empty());
}

// A joint whose limits allow more than one turn is taken at the turn nearest the seed.
TEST(ClosedFormIk, MultiTurnJointsAreTakenNearestTheSeed) {
  TempDir dir;
  std::string urdf = kestrel::testing::ConfigSandbox::shipped_urdf();
  const std::string six = "<limit lower=\"-3\" upper=\"3\"";
  ASSERT_NE(urdf.find(six), std::string::npos);
  urdf.replace(urdf.find(six), six.size(), "<limit lower=\"-9\" upper=\"9\"");
  RobotKinematics m(dir.write("arm.yaml", kestrel::testing::ConfigSandbox::shipped_config()),
                    dir.write("arm.urdf", urdf));
  ASSERT_TRUE(m.has_closed_form_ik());
  const Joints q = {0.2, 0.3, -0.8, 0.4, -0.9, 0.5};
  const Pose pose = pose_of(m, q);
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
  const kestrel::testing::TestArm arm;
  const auto [yaml, urdf] = arm.write(dir);
  RobotKinematics m(yaml, urdf);
  EXPECT_FALSE(m.has_closed_form_ik());
  EXPECT_EQ(m.closed_form_ik_status().rfind("axes 2 and 3 are not parallel", 0), 0u)
      << m.closed_form_ik_status();
  EXPECT_EQ(refusal_of<std::runtime_error>([&] {
              m.solve_ik_all({0.3, 0, 0.3}, {0, 0, 0}, {}, Method::closed_form);
            }),
            "closed-form IK is not available for this arm: " + m.closed_form_ik_status());
  std::mt19937 rng(5);
  int from_far = 0;
  for (int trial = 0; trial < 20; ++trial) {
    const Joints q = random_joints(m, rng);
    const Pose pose = pose_of(m, q);
    Joints near = q;
    for (double& v : near) {
      v += 0.05;
    }
    Joints out;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, near, out)) << "trial " << trial;
    expect_valid(m, {out}, pose, "trial " + std::to_string(trial));
    EXPECT_LT(turn_gap(out, q), 1e-5) << "the solution on the seed's branch is the nearest";
    // The continuous joint (4) comes back at the turn nearest its seed.
    Joints turned = near;
    turned[3] += 4 * M_PI;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, turned, out));
    EXPECT_NEAR(out[3], q[3] + 4 * M_PI, 1e-5);
    if (m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), out)) {
      ++from_far;
      expect_valid(m, {out}, pose, "far seed, trial " + std::to_string(trial));
    }
  }
  EXPECT_GE(from_far, 10) << "restarts from a far seed found too few of the poses";
}

TEST(SolveIkNearest, RefusesBadArguments) {
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
  EXPECT_TRUE(out.empty());
  const auto all = [&] { m.solve_ik_all(target, {0, 0, 0}, {0}); };
  EXPECT_EQ(refusal_of(all), "solve_ik_all seed size does not match the joint count (6)");
}

// Weights choose between branches: the nearest is the branch with the least weighted distance,
// whichever joints the weights favour.
TEST(SolveIkNearest, WeightsRankTheBranches) {
  RobotKinematics& m = shipped();
  std::mt19937 rng(31);
  Pose pose;
  std::vector<Joints> all;
  while (all.size() < 3) {  // a pose with three branches inside the limits
    pose = pose_of(m, random_joints(m, rng));
    all = m.solve_ik_all(pose.pos, pose.euler);
  }
  for (const auto& weights : {Joints{1, 100, 100, 1, 1, 1}, Joints{1, 1, 1, 100, 100, 100}}) {
    Joints out;
    ASSERT_TRUE(m.solve_ik_nearest(pose.pos, pose.euler, Joints(6, 0.0), out, weights));
    double best = 1e300;
    Joints expected;
    for (const auto& s : all) {
      double d = 0.0;
      for (size_t j = 0; j < 6; ++j) {
        d += weights[j] * s[j] * s[j];
      }
      if (d < best) {
        best = d;
        expected = s;
      }
    }
    EXPECT_LT(turn_gap(out, expected), 1e-9);
  }
}

}  // namespace
