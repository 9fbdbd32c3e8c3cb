// Example: the motors without the controller. Brings the arm's motors up through the Kestrel
// hardware facade, enables them, swings each joint a little with MIT commands streamed at
// 400 Hz by this program itself, and prints what the motors' feedback says. For users who write
// their own control loop; everyone else uses ArmController (see the other examples).
#include <getopt.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/arm/kestrel.hpp"
#include "kestrel/damiao_motor/dm_motor_device.hpp"

namespace dm = kestrel::damiao_motor;
using kestrel::can::socket::Kestrel;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double kPi = 3.14159265358979323846;

void print_state(Kestrel& arm, double t) {
  std::printf("t=%5.2fs  %-5s %9s %9s %9s %5s %5s  %s\n", t, "motor", "q rad", "dq rad/s", "tau Nm",
              "MOS", "rotor", "status");
  auto motors = arm.get_arm().get_motors();
  for (const auto& m : arm.get_gripper().get_motors()) {
    motors.push_back(m);
  }
  for (size_t i = 0; i < motors.size(); ++i) {
    const auto& m = motors[i];
    const std::string name = i < 6 ? "J" + std::to_string(i + 1) : "GRIP";
    std::printf("         %-5s %9.4f %9.4f %9.4f %5d %5d  %s\n", name.c_str(), m.get_position(),
                m.get_velocity(), m.get_torque(), m.get_t_mos(), m.get_t_rotor(),
                dm::dm_status_text(m.get_error_code()));
  }
}

void usage() {
  std::printf(
      "Usage: facade_mit_streaming [--interface NAME | NAME] [--fd] [--seconds S]\n"
      "Enables the arm's six joint motors and the gripper, swings every joint by a tenth of a\n"
      "radian around where it stands for S seconds (default 2) with MIT commands at 400 Hz,\n"
      "and prints the decoded feedback. Run it beside the simulated arm:\n"
      "  kestrel-sim --serve &  kestrel-simbus run -- facade_mit_streaming\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::string interface = "can0";
  bool fd = false;
  double seconds = 2.0;
  static const option options[] = {{"interface", required_argument, nullptr, 'i'},
                                   {"fd", no_argument, nullptr, 'f'},
                                   {"seconds", required_argument, nullptr, 's'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "i:fs:h", options, nullptr)) != -1) {
    switch (c) {
      case 'i':
        interface = optarg;
        break;
      case 'f':
        fd = true;
        break;
      case 's':
        seconds = std::atof(optarg);
        if (!(seconds > 0.0 && seconds < 3600.0)) {
          std::fprintf(stderr, "facade_mit_streaming: --seconds must be a positive number\n");
          return 2;
        }
        break;
      case 'h':
        usage();
        return 0;
      default:
        usage();
        return 2;
    }
  }

  if (optind < argc) {
    interface = argv[optind];  // the interface may also be given alone, like the other examples
  }
  try {
    Kestrel arm(interface, fd);
    using T = dm::MotorType;
    arm.init_arm_motors(
        {T::DM_V8_T28, T::DM_V8_T28, T::DM_V8_T28, T::DM_V30_T10, T::DM_V30_T10, T::DM_V30_T10},
        {1, 2, 3, 4, 5, 6}, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16});
    arm.init_gripper_motor(T::DM_V30_T10, 7, 0x17);

    std::printf("== Bringing the motors up on %s (%s)\n", interface.c_str(),
                fd ? "CAN FD" : "classic CAN");
    arm.get_arm().clrErr_all();
    arm.get_gripper().clrErr_all();
    arm.switch_all_motors_mode(dm::MIT_MODE);
    arm.recv_all(2000);
    arm.set_timeout_all(1000);  // 50 ms: a motor that stops hearing from us disables itself
    arm.recv_all(2000);
    arm.enable_all();
    arm.recv_all(2000);
    print_state(arm, 0.0);

    std::vector<double> start;
    for (const auto& m : arm.get_arm().get_motors()) {
      start.push_back(m.get_position());
    }
    // Stiff shoulder and elbow, softer wrist; every joint swings 0.1 rad at 0.5 Hz.
    const double kp[6] = {40, 40, 40, 12, 12, 12};
    const double kd[6] = {1.5, 1.5, 1.5, 0.4, 0.4, 0.4};
    std::printf("\n== Streaming MIT commands at 400 Hz for %.1f s\n", seconds);
    const auto t0 = Clock::now();
    auto next = t0;
    double next_print = 0.5;
    for (;;) {
      const double t = std::chrono::duration<double>(Clock::now() - t0).count();
      if (t >= seconds) {
        break;
      }
      const double s = std::sin(2.0 * kPi * 0.5 * t);
      const double v = 2.0 * kPi * 0.5 * std::cos(2.0 * kPi * 0.5 * t);
      for (int j = 0; j < 6; ++j) {
        arm.get_arm().mit_control_one(j, {kp[j], kd[j], start[j] + 0.1 * s, 0.1 * v, 0.0});
      }
      arm.get_gripper().set_distance(0.0425 + 0.03 * s, 8.0, 0.2);
      arm.recv_all(100);
      if (t >= next_print) {
        std::printf("\n");
        print_state(arm, t);
        next_print += 0.5;
      }
      next += std::chrono::microseconds(2500);
      std::this_thread::sleep_until(next);
    }

    std::printf("\n== Disabling\n");
    arm.disable_all();
    arm.recv_all(2000);
    print_state(arm, seconds);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "facade_mit_streaming: %s\n", e.what());
    return 1;
  }
}
