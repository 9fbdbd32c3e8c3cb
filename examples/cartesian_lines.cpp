// Example: Cartesian motions. move_l draws straight tool lines through poses, rounding each
// corner within the blend radius; move_p reaches poses point to point (joint-space motion).
// Poses are x, y, z (m) and roll, pitch, yaw (rad, fixed axes X, Y, Z) of the tool point.
//   usage: cartesian_lines [INTERFACE]
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

int main(int argc, char** argv) {
  ArmController arm(true, argc > 1 ? argv[1] : "can0", false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const double down = 3.14159265358979;  // tool pointing down: roll pi
  arm.move_p({{0.28, -0.07, 0.20, down, 0.0, 0.0}}, 3.0);

  // A square in a horizontal plane, corners rounded within 2 cm, at half speed.
  const double duration = arm.move_l({{0.28, 0.07, 0.20, down, 0.0, 0.0},
                                      {0.40, 0.07, 0.20, down, 0.0, 0.0},
                                      {0.40, -0.07, 0.20, down, 0.0, 0.0},
                                      {0.28, -0.07, 0.20, down, 0.0, 0.0}},
                                     0.0, 0.5, 0.02);
  const auto pose = arm.get_end_effector_pose();
  std::printf("square in %.2f s; tool at x %.3f y %.3f z %.3f m\n", duration, pose[0], pose[1],
              pose[2]);

  // A target out of reach is refused before anything moves.
  try {
    arm.move_l({{1.5, 0.0, 0.20, down, 0.0, 0.0}});
  } catch (const std::runtime_error& e) {
    std::printf("refused: %s\n", e.what());
  }
  return 0;
}
