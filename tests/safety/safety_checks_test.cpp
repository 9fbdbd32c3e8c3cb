// The joint-limit and self-collision checks, the merge of verdicts and their one-line text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "kestrel/algorithms/trajectory_safety.hpp"
#include "safety/osprey_geometry.hpp"

using namespace kestrel::algorithms;
using kestrel::testing::Posture;
using kestrel::testing::samples_of;
using kestrel::testing::shipped_model;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

using Vec3 = std::array<double, 3>;
const std::string kDefaultText = ":  sample=0 joint=-1 value=0 threshold=0 speed_scale=1";

SafetyResult result(SafetyLevel level, const std::string& code, double speed_scale) {
  SafetyResult r;
  r.level = level;
  r.code = code;
  r.speed_scale = speed_scale;
  return r;
}

SelfCollisionConfig::Body capsule(const std::string& name, const std::string& link, Vec3 p0,
                                  Vec3 p1, double radius) {
  return {name, link, "capsule", p0, p1, radius, {}, {}, {}};
}

SafetyResult collide(const kestrel::testing::Samples& s,
                     std::vector<SelfCollisionConfig::Body> bodies, double warn, double stop,
                     std::vector<std::pair<std::string, std::string>> ignored = {}) {
  return check_self_collision(shipped_model(), s,
                              {true, warn, stop, std::move(ignored), std::move(bodies)});
}

Posture joint1_at(double q1) {
  return {q1, 0, 0, 0, 0, 0};
}

}  // namespace

TEST(JointLimitMargins, InclusiveMarginsFirstWarningFirstStopAndUncheckedJoints) {
  TrajectorySafetyConfig config;
  config.joint_limit_warn_margin_rad = 0.5;  // binary fractions: the boundaries are exact
  config.joint_limit_stop_margin_rad = 0.25;
  std::vector<bool> flags(6, true);
  const auto check = [&](const kestrel::testing::Samples& s) {
    return format_safety_result(check_joint_limit_margins(
        s, std::vector<double>(6, -1.0), std::vector<double>(6, 1.0), flags, config));
  };
  EXPECT_EQ(check(samples_of({{}, {0, 0, -0.75, 0, 0, 0}})),
            "joint_limit_margin_stop: trajectory approaches joint limit stop margin sample=1 "
            "joint=2 value=0.25 threshold=0.25 speed_scale=0");
  EXPECT_EQ(check(samples_of({{0, 0, 0, 0, 0.5, 0}})),
            "joint_limit_margin_warn: trajectory approaches joint limit warning margin sample=0 "
            "joint=4 value=0.5 threshold=0.5 speed_scale=0.7");
  EXPECT_EQ(check(samples_of({{0.49, -0.49, 0, 0, 0, 0}})), kDefaultText);

  kestrel::testing::Samples s(10);
  s[3].position = {0, 0, 0, 0.625, -0.6875, 0};  // two warnings: the lower joint is kept
  s[7].position = {0.6875, 0, 0, 0, 0, 0};       // closer, but later
  EXPECT_THAT(check(s), StartsWith("joint_limit_margin_warn"));
  EXPECT_THAT(check(s), HasSubstr(" sample=3 joint=3 value=0.375 "));
  s[8].position = {0, 0, 0, 0, 0, 0.875};
  s[9].position = {0, 0, 0, 0, 0, 1.0};
  EXPECT_THAT(check(s), HasSubstr("stop margin sample=8 joint=5 "));

  const auto at_limits = samples_of({{0, 0, 0, 0, 1.0, 1.0}});
  flags = {true, true, true, true, false};  // joint 5 unflagged, joint 6 beyond the flags
  EXPECT_EQ(check(at_limits), kDefaultText);
  flags.assign(6, true);
  EXPECT_EQ(check({}), kDefaultText);
  config.enabled = false;
  EXPECT_EQ(check(at_limits), kDefaultText);
}

TEST(SelfCollision, ConfigurationProblemsAreStops) {
  const auto one = samples_of({joint1_at(0)});
  const auto a = capsule("a", "base_link", {0, 0, 0}, {0, 0, 1}, 0.1);
  auto lost = capsule("b", "link7", {1, 0, 0}, {1, 0, 1}, 0.1);  // not a child of six joints
  auto sphere = capsule("s", "link1", {1, 0, 0}, {1, 0, 1}, 0.1);
  sphere.type = "sphere";
  const std::string where = " sample=0 joint=-1 value=0 threshold=0.01 speed_scale=0";
  const std::pair<std::vector<SelfCollisionConfig::Body>, std::string> cases[] = {
      {{a},
       "self_collision_config_empty: self-collision is enabled but fewer than two collision "
       "bodies are configured"},
      {{a, lost}, "self_collision_unknown_link: unknown self-collision body link: link7"},
      {{a, sphere}, "self_collision_unsupported_body_type: unsupported self-collision body type"}};
  for (const auto& [bodies, text] : cases) {
    EXPECT_EQ(format_safety_result(collide(one, bodies, 0.03, 0.01)), text + where);
  }
  EXPECT_EQ(collide(one, {a, lost}, 0.03, 0.01, {{"b", "a"}}).level, SafetyLevel::ok);
  EXPECT_EQ(format_safety_result(collide({}, {a}, 0.03, 0.01)), kDefaultText);
  EXPECT_EQ(check_self_collision(shipped_model(), one, {false, 0.03, 0.01, {}, {a}}).level,
            SafetyLevel::ok);
}

TEST(SelfCollision, InclusiveDistancesFirstWarningAndIgnoredPairsInEitherOrder) {
  const auto one = samples_of({joint1_at(0.3)});
  // Parallel axes 0.5 apart with radii 0.125: clearance exactly 0.25.
  const auto a = capsule("a", "base_link", {0, 0, 0}, {0, 0, 1}, 0.125);
  const auto b = capsule("b", "base_link", {0.5, 0, 0.2}, {0.5, 0, 2}, 0.125);
  EXPECT_EQ(format_safety_result(collide(one, {a, b}, 0.5, 0.25)),
            "self_collision_stop: self collision stop: a vs b clearance_m=0.25 sample=0 joint=-1 "
            "value=0.25 threshold=0.25 speed_scale=0");
  EXPECT_EQ(format_safety_result(collide(one, {a, b}, 0.25, 0.2)),
            "self_collision_warn: self collision warning: a vs b clearance_m=0.25 sample=0 "
            "joint=-1 value=0.25 threshold=0.25 speed_scale=0.5");
  EXPECT_EQ(collide(one, {a, b}, 0.2499, 0.2).level, SafetyLevel::ok);

  // Posts on the base at 0 and 90 degrees, 0.3 m out; a post on link1 sweeps past both.
  const auto post_a = capsule("post_a", "base_link", {0.3, 0, 0.1}, {0.3, 0, 0.3}, 0.01);
  const auto post_b = capsule("post_b", "base_link", {0, 0.3, 0.1}, {0, 0.3, 0.3}, 0.01);
  const auto arm = capsule("arm", "link1", {0.3, 0, 0}, {0.3, 0, 0.2}, 0.01);
  const auto sweep = samples_of({joint1_at(-1.5), joint1_at(0.1), joint1_at(1.56)});
  const SafetyResult first = collide(sweep, {post_a, post_b, arm}, 0.1, -1.0);
  EXPECT_EQ(first.sample, 1u);  // the closer pass at sample 2 does not replace it
  EXPECT_THAT(first.message, StartsWith("self collision warning: post_a vs arm"));
  EXPECT_NEAR(first.value, 0.6 * std::sin(0.05) - 0.02, 1e-12);
  const SafetyResult second = collide(sweep, {post_a, post_b, arm}, 0.1, -1.0, {{"arm", "post_a"}});
  EXPECT_THAT(second.message, StartsWith("self collision warning: post_b vs arm"));
  // Within one sample the pairs go in body order: (post_a, arm) before the closer (post_b, arm).
  EXPECT_THAT(collide(samples_of({joint1_at(0.8)}), {post_a, post_b, arm}, 0.3, -1.0).message,
              StartsWith("self collision warning: post_a vs arm"));
  const SafetyResult stop = collide(sweep, {post_a, post_b, arm}, 0.1, 0.05);
  EXPECT_TRUE(stop.level == SafetyLevel::stop && stop.sample == 1u);
}

TEST(SelfCollision, BodiesFollowTheLinkFramesAndBoxPairsUseTheirRules) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  for (int trial = 0; trial < 20; ++trial) {
    const Posture q{u(rng), u(rng), u(rng), u(rng), u(rng), u(rng)};
    const auto frames = kestrel::testing::link_frames(shipped_model().urdf_joints(), q);
    for (const char* link : {"base_link", "link1", "link2", "link3", "link4", "link5", "link6"}) {
      // Two points (capsules of zero length): the clearance is their distance less the radii.
      const auto r =
          collide(samples_of({q}),
                  {capsule("moving", link, {0.02, -0.03, 0.05}, {0.02, -0.03, 0.05}, 1e-3),
                   capsule("fixed", "base_link", {0.1, 0.2, 0.3}, {0.1, 0.2, 0.3}, 1e-3)},
                  10.0, -10.0);
      const Eigen::Vector3d moving = frames.at(link) * Eigen::Vector3d(0.02, -0.03, 0.05);
      EXPECT_NEAR(r.value, (moving - Eigen::Vector3d(0.1, 0.2, 0.3)).norm() - 0.002, 1e-12) << link;
    }
  }
  const auto one = samples_of({joint1_at(0)});
  SelfCollisionConfig::Body cube{"cube", "base_link", "box", {}, {}, 0, {0, 0, 0}, {0.2, 0.2, 0.2}};
  auto far_cube = cube;
  far_cube.name = "far_cube";
  far_cube.center = {1, 0, 0};
  const auto rod = capsule("rod", "base_link", {0.5, -1, 0}, {0.5, 1, 0}, 0.1);
  // Two boxes: bounding spheres, not the 0.8 between the faces.
  EXPECT_NEAR(collide(one, {cube, far_cube}, 1.0, -1.0).value, 1.0 - std::sqrt(0.12), 1e-15);
  // Capsule and box in either order: the exact clearance, the names in configured order.
  const auto box_first = collide(one, {cube, rod}, 1.0, -1.0);
  const auto rod_first = collide(one, {rod, cube}, 1.0, -1.0);
  EXPECT_NEAR(box_first.value, 0.3, 1e-12);
  EXPECT_EQ(box_first.value, rod_first.value);
  EXPECT_THAT(box_first.message, StartsWith("self collision warning: cube vs rod"));
  EXPECT_THAT(rod_first.message, StartsWith("self collision warning: rod vs cube"));
}

TEST(CombineSafetyResults, StopWinsThenTheSlowestEarliestWarning) {
  EXPECT_EQ(format_safety_result(combine_safety_results({})), kDefaultText);
  EXPECT_EQ(format_safety_result(combine_safety_results({SafetyResult{}})), kDefaultText);
  SafetyResult stop = result(SafetyLevel::stop, "stop", 0.0);
  stop.sample = 9;
  stop.message = "m";
  const SafetyResult merged = combine_safety_results(
      {SafetyResult{}, result(SafetyLevel::warning, "w1", 0.5),
       result(SafetyLevel::warning, "w2", 0.5), stop, result(SafetyLevel::stop, "later", 0.0)});
  EXPECT_EQ(format_safety_result(merged), format_safety_result(stop));  // whole, unchanged
  const auto code = [](double first, double second) {
    return combine_safety_results({result(SafetyLevel::warning, "first", first),
                                   result(SafetyLevel::warning, "second", second)})
        .code;
  };
  EXPECT_EQ(code(0.7, 0.5), "second");
  EXPECT_EQ(code(0.5, 0.7), "first");
  EXPECT_EQ(code(0.5, 0.5), "first");
}

TEST(FormatSafetyResult, SixSignificantDigitsAndFullSampleIndex) {
  SafetyResult r = result(SafetyLevel::stop, "code", 0.0);
  r.message = "text";
  r.sample = 18446744073709551615u;
  r.joint = 3;
  r.value = 0.0012345678;
  r.threshold = 1e-7;
  EXPECT_EQ(format_safety_result(r),
            "code: text sample=18446744073709551615 joint=3 value=0.00123457 threshold=1e-07 "
            "speed_scale=0");
}
