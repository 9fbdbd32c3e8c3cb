// Distance primitives of the self-collision check against closed-form answers and brute force.
#include <gtest/gtest.h>

#include <random>

#include "kestrel/algorithms/collision_geometry.hpp"
#include "safety/osprey_geometry.hpp"

using namespace kestrel::algorithms;
using Eigen::Vector3d;

namespace {

// References: one segment densely sampled, each point measured exactly.
template <typename F>
double sampled_min(const Vector3d& a, const Vector3d& b, F distance) {
  double best = 1e9;
  for (int i = 0; i <= 20000; ++i) {
    best = std::min(best, distance(a + (b - a) * (i / 20000.0)));
  }
  return best;
}

double point_box(const Vector3d& p, const Eigen::Isometry3d& pose, const Vector3d& half) {
  const Vector3d local = pose.inverse() * p;
  return (local - local.cwiseMax(-half).cwiseMin(half)).norm();
}

}  // namespace

TEST(SegmentDistance, ClosedFormParallelAndDegenerateCases) {
  const Vector3d o = Vector3d::Zero(), x = Vector3d::UnitX(), y = Vector3d::UnitY(),
                 z = Vector3d::UnitZ();
  const double r2 = std::sqrt(2.0);
  const std::tuple<const char*, Vector3d, Vector3d, Vector3d, Vector3d, double> cases[] = {
      {"crossing", -x, x, 0.3 * z - y, 0.3 * z + y, 0.3},
      {"end to end", o, x, 2 * x + z, 3 * x + z, r2},
      {"parallel, overlapping", o, 2 * x, 0.1 * y + x, 0.1 * y + 3 * x, 0.1},
      {"parallel, apart", o, x, 0.1 * y + 3 * x, 0.1 * y + 2 * x, std::hypot(1.0, 0.1)},
      {"collinear", o, x, 1.5 * x, 4 * x, 0.5},
      {"collinear, reversed", x, o, 4 * x, 1.5 * x, 0.5},
      {"point and segment", z, z, o, x, 1.0},
      {"segment and point", o, x, 2 * x + y, 2 * x + y, r2},
      {"two points", z, z, y, y, r2},
      {"touching", o, x, 0.5 * x - y, 0.5 * x + y, 0.0},
  };
  for (const auto& [name, p0, p1, q0, q1, expected] : cases) {
    EXPECT_NEAR(segment_segment_distance(p0, p1, q0, q1), expected, 1e-15) << name;
  }
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-0.5, 0.5);
  for (int i = 0; i < 300; ++i) {  // random, every third nearly parallel
    const Vector3d p0(u(rng), u(rng), u(rng)), q0(u(rng), u(rng), u(rng));
    const Vector3d p1 = i % 3 ? Vector3d(u(rng), u(rng), u(rng)) : p0 + Vector3d(0.3, 1e-7, 0);
    const Vector3d q1 = i % 3 ? Vector3d(u(rng), u(rng), u(rng)) : q0 + Vector3d(0.2, 0, 0);
    const double exact = segment_segment_distance(p0, p1, q0, q1);
    const double brute = sampled_min(p0, p1, [&](const Vector3d& p) {
      return kestrel::testing::point_segment_distance(p, q0, q1);
    });
    EXPECT_LE(exact, brute + 1e-6) << i;  // never more than a real pair of points
    EXPECT_NEAR(exact, brute, 1e-4) << i;
  }
}

TEST(BoxDistance, PointsAndCapsulesAroundRotatedBoxes) {
  const Eigen::Isometry3d pose = transform_from_xyz_rpy({1, 2, 3}, {0.3, -0.4, 1.2});
  const std::array<double, 3> size{0.2, 0.4, 0.6};
  const auto at = [&](double x, double y, double z) { return pose * Vector3d(x, y, z); };
  EXPECT_EQ(point_box_distance(at(0.05, -0.1, 0.2), pose, size), 0.0);     // inside
  EXPECT_NEAR(point_box_distance(at(0.3, 0, 0), pose, size), 0.2, 1e-12);  // face
  EXPECT_NEAR(point_box_distance(at(0.4, 0.5, 0), pose, size), std::hypot(0.3, 0.3), 1e-12);
  EXPECT_NEAR(point_box_distance(at(-0.2, -0.3, 0.5), pose, size), std::sqrt(0.06), 1e-12);
  EXPECT_NEAR(point_box_distance(at(0.3, 0.4, 0), pose, {0, -1, 0}), 0.5, 1e-12);  // no extent

  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-0.6, 0.6);
  for (int i = 0; i < 200; ++i) {
    const Eigen::Isometry3d box =
        transform_from_xyz_rpy({u(rng), u(rng), u(rng)}, {5 * u(rng), 5 * u(rng), 5 * u(rng)});
    const std::array<double, 3> s{0.1 + std::abs(u(rng)), 0.05 + std::abs(u(rng)), 0.3};
    const Vector3d p0 = box.translation() + Vector3d(u(rng), u(rng), u(rng));
    const Vector3d p1 = i % 4 ? box.translation() + Vector3d(u(rng), u(rng), u(rng)) : p0;
    const double brute = sampled_min(p0, p1, [&](const Vector3d& p) {
      return point_box(p, box, 0.5 * Vector3d(s[0], s[1], s[2]));
    });
    EXPECT_NEAR(capsule_box_clearance(p0, p1, 0.02, box, s), brute - 0.02, 1e-4) << i;
  }
  const Eigen::Isometry3d unit = Eigen::Isometry3d::Identity();
  EXPECT_EQ(capsule_box_clearance({-1, 0, 0}, {1, 0, 0}, 0.05, unit, {0.1, 0.1, 0.1}), -0.05);
  // An axis grazing an edge: a sharp V along the axis, found only by a search run to precision.
  EXPECT_NEAR(capsule_box_clearance({0.2, 0.8, 0}, {1.2, -0.2, 0.1}, 0.05, unit, {1, 1, 2}), -0.05,
              1e-12);
}

// Bounding spheres of two boxes: SelfCollision.BodiesFollowTheLinkFramesAndBoxPairsUseTheirRules.
TEST(BoxDistance, BoxPosesComposeTheLinkAndTheBodyPlacement) {
  const Eigen::Isometry3d link = transform_from_xyz_rpy({1, 0, 0}, {0, 0, M_PI / 2});
  const Eigen::Isometry3d pose = body_box_transform(link, {0.5, 0, 0}, {M_PI / 2, 0, 0});
  EXPECT_TRUE(pose.translation().isApprox(Vector3d(1, 0.5, 0)));
  EXPECT_TRUE((pose.linear() * Vector3d::UnitY()).isApprox(Vector3d::UnitZ()));
}
