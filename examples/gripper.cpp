// Example: the gripper. Open and close, a position fraction, and an opening in metres with
// chosen stiffness; the measured opening comes from the motor through the finger linkage.
//   usage: gripper [INTERFACE]
#include <chrono>
#include <cstdio>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

namespace {
void settle() {
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
}
}  // namespace

int main(int argc, char** argv) {
  ArmController arm(true, argc > 1 ? argv[1] : "can0", false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  arm.openGripper();
  settle();
  std::printf("open:   %.4f m (position %.2f)\n", arm.get_gripper_distance(),
              arm.get_gripper_position());
  arm.setGripperPosition(0.5);
  settle();
  std::printf("half:   %.4f m\n", arm.get_gripper_distance());
  arm.setGripperDistance(0.02, /*kp=*/10.0, /*kd=*/0.3);  // 2 cm, softer grip
  settle();
  std::printf("20 mm:  %.4f m\n", arm.get_gripper_distance());
  arm.closeGripper();
  settle();
  std::printf("closed: %.4f m\n", arm.get_gripper_distance());
  return 0;
}
