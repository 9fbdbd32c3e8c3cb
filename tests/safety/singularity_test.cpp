// The singularity assessment on the shipped arm: its Jacobian and wrist centre against the link
// frames, postures whose answer is known, and the zone boundaries and speed scales.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/SVD>
#include <limits>
#include <random>

#include "algorithms/test_files.hpp"
#include "kestrel/algorithms/singularity.hpp"
#include "safety/osprey_geometry.hpp"

using namespace kestrel::algorithms;
using kestrel::testing::Posture;
using kestrel::testing::shipped_model;
using ::testing::HasSubstr;

namespace {

const Posture kForward{0.0, 0.6, -0.28, 0.0, -0.32, 0.0};  // a working posture, clear of all zones

// Every measure switched off except the wrist margin: target 1.25, warning 0.5, stop 0.25.
SingularityProtectionConfig wrist_only() {
  SingularityProtectionConfig c;
  c.wrist_target_abs_rad = 1.25;
  c.wrist_warn_margin_rad = 0.5;
  c.wrist_stop_margin_rad = 0.25;
  c.shoulder_warn_radius_m = c.shoulder_stop_radius_m = c.elbow_warn_radius_rad = -1;
  c.elbow_stop_radius_rad = c.jacobian_warn_sigma_min = c.jacobian_stop_sigma_min = -1;
  c.jacobian_warn_condition = c.jacobian_stop_condition = std::numeric_limits<double>::infinity();
  return c;
}

// kForward with the wrist (q5) at `q5`, or with the elbow (q3, q4) at `q3`, `q4`.
Posture wrist(double q5) {
  return {0.0, 0.6, -0.28, 0.0, q5, 0.0};
}
Posture elbow(double q3, double q4) {
  return {0.0, 0.6, q3, q4, -0.32, 0.0};
}

SafetyResult assess(const std::vector<Posture>& postures, const SingularityProtectionConfig& c) {
  return assess_singularity(shipped_model(), kestrel::testing::samples_of(postures), c);
}

}  // namespace

TEST(Singularity, JacobianAndWristCentreAgreeWithTheLinkFrames) {
  auto& model = shipped_model();
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int trial = 0; trial < 20; ++trial) {
    const Posture q{1.5 * u(rng), 1.5 * u(rng), 1.5 * u(rng),
                    1.5 * u(rng), 1.5 * u(rng), 1.5 * u(rng)};
    const auto frames = kestrel::testing::link_frames(model.urdf_joints(), q);
    EXPECT_LT((joint_origin_position(model, q) - frames.at("link5").translation()).norm(), 1e-12);
    const auto J = finite_difference_jacobian(model, q);
    const auto tcp = model.forwardKinematics_kdl(std::vector<double>(q.begin(), q.end()));
    const Eigen::Vector3d p(tcp[0], tcp[1], tcp[2]);
    const Eigen::Matrix3d R = Eigen::Quaterniond(tcp[6], tcp[3], tcp[4], tcp[5]).toRotationMatrix();
    for (int j = 0; j < 6; ++j) {
      const auto& joint = model.urdf_joints()[static_cast<std::size_t>(j)];
      const Eigen::Isometry3d& F = frames.at(joint.child_link);
      const Eigen::Vector3d axis = F.linear() * joint.axis;  // base frame, through F's origin
      EXPECT_LT((J.block<3, 1>(0, j) - axis.cross(p - F.translation())).norm(), 1e-4) << j;
      EXPECT_LT((J.block<3, 1>(3, j) - R.transpose() * axis).norm(), 1e-4) << j;  // tool frame
    }
  }
  // The singular values match a two-sided Jacobi decomposition, badly conditioned ones too.
  for (int trial = 0; trial < 200; ++trial) {
    Eigen::Matrix<double, 6, 6> m =
        Eigen::Matrix<double, 6, 6>::NullaryExpr([&] { return u(rng); });
    m.col(trial % 6) *= trial % 2 ? 1e-6 : 1.0;
    const auto reference = Eigen::JacobiSVD<Eigen::Matrix<double, 6, 6>>(m).singularValues();
    const auto range = detail::singular_value_range(m);
    EXPECT_NEAR(range.sigma_max / reference(0), 1.0, 1e-12);
    EXPECT_NEAR(range.sigma_min / reference(5), 1.0, 1e-9);
  }
}

TEST(Singularity, KnownPosturesOfTheShippedArm) {
  const SingularityProtectionConfig c = load_safety_config().singularity_protection;
  EXPECT_EQ(assess({kForward}, c).level, SafetyLevel::ok);
  // Wrist aligned: q5 at the target gives margin 0 (the other side: InclusiveZones).
  const SafetyResult r = assess({kForward, wrist(-c.wrist_target_abs_rad)}, c);
  EXPECT_TRUE(r.level == SafetyLevel::stop && r.sample == 1 && r.joint == -1 &&
              r.speed_scale == 0.0 && r.code == "singularity_stop");
  EXPECT_THAT(r.message, HasSubstr("singularity stop at sample=1 q=[0, 0.6, -0.28, 0, "));
  EXPECT_THAT(r.message, HasSubstr(" wrist_margin_rad=0 shoulder_radius_m="));
  // Stretched elbow: q3 and q4 at their configured targets.
  const SafetyResult elbow_stop = assess({elbow(c.elbow_j3_target_rad, c.elbow_j4_target_rad)}, c);
  EXPECT_EQ(elbow_stop.level, SafetyLevel::stop);
  EXPECT_THAT(elbow_stop.message, HasSubstr("elbow_radius_rad=0 "));
  // Wrist centre on the base axis: q3 solved for x = 0 with the upper arm leaning back.
  double lo = -1.3, hi = -0.6;
  for (int i = 0; i < 80; ++i) {
    const double mid = 0.5 * (lo + hi);
    (joint_origin_position(shipped_model(), {0, -0.3, mid, 0, 0, 0}).x() > 0 ? hi : lo) = mid;
  }
  const Posture on_axis{0.7, -0.3, lo, 0.4, -0.3, 0.2};
  EXPECT_LT(joint_origin_position(shipped_model(), on_axis).head<2>().norm(), 1e-9);
  EXPECT_EQ(assess({kForward, on_axis}, c).level, SafetyLevel::stop);
  SingularityProtectionConfig off = c;
  off.enabled = false;
  EXPECT_EQ(assess({wrist(-c.wrist_target_abs_rad)}, off).level, SafetyLevel::ok);
  EXPECT_EQ(assess({}, c).level, SafetyLevel::ok);
}

TEST(Singularity, InclusiveZonesLinearScalesAndTheWorstSample) {
  const SingularityProtectionConfig c = wrist_only();
  const auto wrist_at = [&](double q5) { return assess({wrist(q5)}, c); };
  EXPECT_EQ(wrist_at(1.0).level, SafetyLevel::stop);       // margin 0.25: the stop margin
  EXPECT_EQ(wrist_at(-1.0).level, SafetyLevel::stop);      // |q5| counts
  EXPECT_EQ(wrist_at(0.75).level, SafetyLevel::ok);        // margin 0.5: in the zone, scale 1
  EXPECT_EQ(wrist_at(0.7501).level, SafetyLevel::ok);      // scale 0.9996 is not reported
  EXPECT_NEAR(wrist_at(0.7505).speed_scale, 0.998, 1e-9);  // 0.998 is
  EXPECT_NEAR(wrist_at(0.875).speed_scale, 0.5, 1e-12);    // half way
  EXPECT_EQ(wrist_at(0.99).speed_scale, 0.2);              // clamped to the minimum
  // Margins 0.45, 0.25: the first stop ends the assessment.
  EXPECT_THAT(assess({wrist(0.8), wrist(1.0), kForward}, c).message,
              HasSubstr("singularity stop at sample=1 q=[0, 0.6, -0.28, 0, 1, 0] "
                        "wrist_margin_rad=0.25 "));
  // Margins 0.45, 0.3, 0.45: the middle sample is the worst, and the scale is its scale.
  const SafetyResult warn = assess({wrist(0.8), wrist(0.95), wrist(0.8)}, c);
  EXPECT_TRUE(warn.level == SafetyLevel::warning && warn.code == "singularity_warn" &&
              warn.sample == 1 && warn.threshold == -1.0);
  EXPECT_NEAR(warn.speed_scale, 0.2, 1e-12);
  EXPECT_THAT(warn.message,
              HasSubstr("singularity warning: wrist_margin_rad=0.3, shoulder_radius_m="));

  // The Jacobian measures, with this posture's own values as the bounds (angular rows scaled).
  Eigen::Matrix<double, 6, 6> J = finite_difference_jacobian(shipped_model(), kForward);
  J.bottomRows<3>() *= c.jacobian_angular_scale_m;
  const auto range = detail::singular_value_range(J);
  const double cond = range.sigma_max / range.sigma_min;
  SingularityProtectionConfig sigma = c, condition = c;
  sigma.jacobian_stop_sigma_min = range.sigma_min;
  condition.jacobian_stop_condition = cond;
  EXPECT_EQ(assess({kForward}, sigma).level, SafetyLevel::stop);
  EXPECT_EQ(assess({kForward}, condition).level, SafetyLevel::stop);
  sigma.jacobian_stop_sigma_min = 0.5 * range.sigma_min;
  sigma.jacobian_warn_sigma_min = 1.5 * range.sigma_min;
  condition.jacobian_warn_condition = 0.5 * cond;
  condition.jacobian_stop_condition = 1.5 * cond;
  EXPECT_NEAR(assess({kForward}, sigma).speed_scale, 0.5, 1e-9);
  EXPECT_NEAR(assess({kForward}, condition).speed_scale, 0.5, 1e-9);

  // The elbow posture matches either sign of q3, modulo a turn.
  SingularityProtectionConfig stretched = c;
  stretched.elbow_j3_target_rad = -2.912226;
  stretched.elbow_j4_target_rad = -0.267559;
  stretched.elbow_stop_radius_rad = 1e-9;
  for (const double q3 : {2.912226, -2.912226, -2.912226 + 2 * M_PI}) {
    EXPECT_EQ(assess({elbow(q3, -0.267559)}, stretched).level, SafetyLevel::stop) << q3;
  }
}

TEST(Singularity, AJacobianWithoutFullRankStops) {
  // A five-joint arm: its sixth Jacobian column is zero, sigma_min 0, the condition infinite.
  kestrel::testing::TempDir dir;
  std::string urdf = "<robot name=\"five\"><link name=\"l0\"/>";
  const char* origin_axis[][2] = {{"0 0 0.1", "0 0 1"},
                                  {"0 0 0.1", "0 1 0"},
                                  {"0 0 0.3", "0 1 0"},
                                  {"0.1 0 0", "1 0 0"},
                                  {"0.2 0 0", "0 1 0"}};
  for (int i = 0; i < 5; ++i) {
    const std::string parent = "l" + std::to_string(i), child = "l" + std::to_string(i + 1);
    urdf += "<link name=\"" + child + "\"/><joint name=\"j" + child +
            "\" type=\"revolute\"><parent link=\"" + parent + "\"/><child link=\"" + child +
            "\"/><origin xyz=\"" + origin_axis[i][0] + "\"/><axis xyz=\"" + origin_axis[i][1] +
            "\"/><limit lower=\"-3\" upper=\"3\" effort=\"1\" velocity=\"1\"/></joint>";
  }
  RobotKinematics five(
      dir.write("five.yaml", "kinematics: {tool: {xyz: [0, 0, 0.1], rpy: [0, 0, 0]}}\n"),
      dir.write("five.urdf", urdf + "</robot>"));
  SingularityProtectionConfig c = wrist_only();
  c.jacobian_stop_condition = 1e300;
  const SafetyResult r =
      assess_singularity(five, kestrel::testing::samples_of({{0.1, 0.5, -0.5, 0.2, -0.4, 0.0}}), c);
  EXPECT_EQ(r.level, SafetyLevel::stop);
  EXPECT_THAT(r.message, HasSubstr("jacobian_sigma_min=0 jacobian_condition=inf"));
}
