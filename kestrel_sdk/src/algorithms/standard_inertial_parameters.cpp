// π for the regressor from the model's KDL chain: each movable joint starts a link; a fixed
// segment after it (payload, tool) belongs to that link, moved into its frame.
#include <kdl/chain.hpp>
#include <kdl/rigidbodyinertia.hpp>

#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/standard_regressor.hpp"

namespace kestrel::algorithms {

std::array<double, 60> standard_inertial_parameters(const RobotKinematics& model) {
  std::array<KDL::RigidBodyInertia, 6> links;
  for (auto& l : links) {
    l = KDL::RigidBodyInertia::Zero();
  }
  int link = -1;
  KDL::Frame in_link = KDL::Frame::Identity();  // segment tip in the current link's frame
  for (const KDL::Segment& segment : model.chain().segments) {
    if (segment.getJoint().getType() != KDL::Joint::Fixed) {
      ++link;
      in_link = segment.getFrameToTip();  // identity for the arm's joints
    } else if (link >= 0) {
      in_link = in_link * segment.getFrameToTip();
    }
    if (link >= 0 && link < 6) {
      links[link] = links[link] + in_link * segment.getInertia();
    }
  }
  std::array<double, 60> pi{};
  for (int i = 0; i < 6; ++i) {
    const double m = links[i].getMass();
    const KDL::Vector h = links[i].getCOG() * m;
    const KDL::RotationalInertia I = links[i].getRotationalInertia();  // about the origin
    const double* d = I.data;                                          // row-major 3 x 3
    double* p = &pi[10 * i];
    p[0] = m;
    p[1] = h.x();
    p[2] = h.y();
    p[3] = h.z();
    p[4] = d[0];
    p[5] = d[1];
    p[6] = d[2];
    p[7] = d[4];
    p[8] = d[5];
    p[9] = d[8];
  }
  return pi;
}

}  // namespace kestrel::algorithms
