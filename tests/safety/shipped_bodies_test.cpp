// The shipped self-collision bodies against the arm's real shapes (the URDF's visual solids):
// they cover every solid, every contact between links that are not neighbours is stopped, the
// forearm folded onto the base is stopped, and motions between working postures run unhindered.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/singularity.hpp"
#include "safety/osprey_geometry.hpp"

using namespace kestrel::algorithms;
using namespace kestrel::testing;

namespace {

const SafetyConfig& shipped_config() {
  static const SafetyConfig c = load_safety_config();
  return c;
}

SafetyResult collide(const Samples& s) {
  return check_self_collision(shipped_model(), s, shipped_config().self_collision);
}

const std::vector<VisualSolid>& solids() {
  static const auto s = read_visual_solids(resolve_robot_urdf_path());
  return s;
}

int link_index(const std::string& link) {
  return link == "base_link" ? 0 : std::stoi(link.substr(4));  // "link<i>"
}

// Postures drawn from the joint limits, half of them with the arm folded down towards its base
// (shoulder leaning far out, elbow folded), where the contacts are.
std::vector<Posture> sampled_postures(int count, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Posture> out(static_cast<std::size_t>(2 * count));
  for (std::size_t i = 0; i < out.size(); ++i) {
    const auto& lower = shipped_model().joint_lower_limits();
    const auto& upper = shipped_model().joint_upper_limits();
    for (std::size_t j = 0; j < 6; ++j) {
      out[i][j] = std::uniform_real_distribution<double>(lower[j], upper[j])(rng);
    }
    if (i % 2 == 1) {
      out[i][1] =
          std::uniform_real_distribution<double>(0.9, upper[1])(rng) * (i % 4 == 1 ? 1 : -1);
      out[i][2] = std::uniform_real_distribution<double>(0.0, upper[2])(rng);
    }
  }
  return out;
}

// Whether two placed solids intersect, from 4 mm surface samples of each inside the other.
bool solids_touch(std::size_t a, std::size_t b, const std::map<std::string, Eigen::Isometry3d>& F) {
  const VisualSolid& A = solids()[a];
  const VisualSolid& B = solids()[b];
  const Eigen::Isometry3d pa = F.at(A.link) * A.pose, pb = F.at(B.link) * B.pose;
  if ((pa.translation() - pb.translation()).norm() > A.bounding_radius() + B.bounding_radius()) {
    return false;
  }
  const auto inside = [&](const VisualSolid& from, const VisualSolid& to,
                          const Eigen::Isometry3d& to_pose) {
    const auto points = surface_points(from, 0.004);
    return std::any_of(points.begin(), points.end(), [&](const Eigen::Vector3d& p) {
      return visual_signed_distance(to, to_pose, F.at(from.link) * p) <= 0;
    });
  };
  return inside(A, B, pb) || inside(B, A, pa);
}

// Working postures of this arm; the tool points down unless said otherwise.
const std::vector<std::pair<const char*, Posture>> kWorking = {
    {"zero pose (forearm forward)", {0, 0, 0, 0, 0, 0}},
    {"folded home", {0, -0.3, 0.35, 0, -0.25, 0}},
    {"forward, mid height", {0, 0.6, -0.28, 0, -0.32, 0}},
    {"forward, far", {0, 1.2, -1.16, 0, -0.04, 0}},
    {"left", {1.4, 0.6, -0.28, 0, -0.32, 0}},
    {"right, wrist rolled", {-1.4, 0.6, -0.28, 0.5, -0.32, -0.5}},
    {"high, tool forward", {0, 0, -1.0, 0, -0.57, 0}},
    {"high, to the side", {1.0, 0.2, -1.1, 0.3, -0.3, 0}},
    {"low over the table", {0, 0.9, -0.46, 0, -0.44, 0}},
    {"low over the table, to the side", {-0.9, 0.9, -0.46, 0, -0.44, 0.8}},
    {"low near the base", {0.3, 0.45, 0.3, 0, -0.75, 0}},
};

}  // namespace

TEST(ShippedSelfCollision, CheckIsOnWithBodiesEverywhereIgnoringOnlyPairsAtAJoint) {
  const auto& sc = shipped_config().self_collision;
  EXPECT_TRUE(sc.enabled);
  std::map<std::string, int> link_of;
  std::set<int> links;
  for (const auto& b : sc.bodies) {
    links.insert(link_of[b.name] = link_index(b.link));
  }
  EXPECT_EQ(links.size(), 7u);  // the base and every moving link
  for (const auto& [a, b] : sc.ignored_pairs) {
    ASSERT_TRUE(link_of.count(a) && link_of.count(b)) << a << ", " << b;
    EXPECT_LE(std::abs(link_of[a] - link_of[b]), 1) << a << ", " << b;
  }
}

TEST(ShippedSelfCollision, BodiesCoverEveryVisualSolidAtEveryPosture) {
  std::vector<Posture> postures = sampled_postures(5, 21);
  for (const auto& w : kWorking) {
    postures.push_back(w.second);
  }
  for (const Posture& q : postures) {
    const auto F = link_frames(shipped_model().urdf_joints(), q);
    for (const VisualSolid& s : solids()) {
      double worst = -1.0;
      for (const auto& local : surface_points(s, 0.003)) {
        double inside = 1.0;
        for (const auto& b : shipped_config().self_collision.bodies) {
          inside = std::min(inside, body_signed_distance(b, F.at(b.link), F.at(s.link) * local));
        }
        worst = std::max(worst, inside);
      }
      ASSERT_LE(worst, 1e-9) << s.describe() << " sticks out of every body";
    }
  }
}

// Contacts between neighbours are the joint limits' to prevent (and their solids meet at the
// joint by design); they are not judged here.
TEST(ShippedSelfCollision, EveryContactBetweenLinksThatAreNotNeighboursIsStopped) {
  std::vector<std::pair<std::size_t, std::size_t>> far;
  for (std::size_t a = 0; a < solids().size(); ++a) {
    for (std::size_t b = a + 1; b < solids().size(); ++b) {
      if (std::abs(link_index(solids()[a].link) - link_index(solids()[b].link)) >= 2) {
        far.emplace_back(a, b);
      }
    }
  }
  int contacts = 0;
  for (const Posture& q : sampled_postures(500, 7)) {
    const auto F = link_frames(shipped_model().urdf_joints(), q);
    for (const auto& [a, b] : far) {
      if (solids_touch(a, b, F)) {
        ++contacts;
        EXPECT_EQ(collide(samples_of({q})).level, SafetyLevel::stop)
            << solids()[a].describe() << " and " << solids()[b].describe()
            << " touch at q = " << q[0] << ' ' << q[1] << ' ' << q[2] << ' ' << q[3] << ' ' << q[4]
            << ' ' << q[5];
        break;
      }
    }
  }
  EXPECT_GE(contacts, 30);  // the sampling does reach contacts
}

TEST(ShippedSelfCollision, MotionsBetweenWorkingPosturesRunUnhindered) {
  const SafetyConfig& c = shipped_config();
  auto& model = shipped_model();
  for (std::size_t a = 0; a < kWorking.size(); ++a) {
    for (std::size_t b = a + 1; b < kWorking.size(); ++b) {
      SCOPED_TRACE(std::string(kWorking[a].first) + " to " + kWorking[b].first);
      const auto move = straight_move(kWorking[a].second, kWorking[b].second, 200);
      const auto collision = collide(move);
      EXPECT_EQ(collision.level, SafetyLevel::ok) << format_safety_result(collision);
      const auto verdict = combine_safety_results(  // and the planner's whole verdict
          {check_joint_limit_margins(move, model.joint_lower_limits(), model.joint_upper_limits(),
                                     model.joint_has_limits(), c.trajectory_safety),
           assess_singularity(model, move, c.singularity_protection), collision});
      EXPECT_NE(verdict.level, SafetyLevel::stop) << format_safety_result(verdict);
    }
  }
}

TEST(ShippedSelfCollision, FoldingTheForearmOntoTheBaseIsStopped) {
  // Shoulder and elbow at their forward stops, forearm rolled and wrist bent fully back: the
  // forearm's wrist fork comes down onto the base.
  const Posture folded{0, 1.4, 0.58, -1.5, -2.2, 0};
  const auto F = link_frames(shipped_model().urdf_joints(), folded);
  bool base_touched = false;
  for (std::size_t a = 0; a < solids().size(); ++a) {
    for (std::size_t b = 0; b < solids().size(); ++b) {
      base_touched |= solids()[a].link == "base_link" && link_index(solids()[b].link) >= 4 &&
                      solids_touch(a, b, F);
    }
  }
  ASSERT_TRUE(base_touched);  // the real shapes do meet there
  EXPECT_EQ(collide(samples_of({folded})).message.rfind("self collision stop: base vs ", 0), 0u);
  const auto r = collide(straight_move(kWorking[1].second, folded, 100));
  EXPECT_EQ(r.level, SafetyLevel::stop);
  EXPECT_LT(r.sample, 100u);  // on the way there, before the contact posture
}
