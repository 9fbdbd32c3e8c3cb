// Runs the controller against the simulated arm (rigid-body physics of the shipped URDF, as
// kestrel-sim runs it) on a 1 Mbit/s wire-timed userspace bus for a while (60 s by default;
// first argument overrides) with the arm moving, and prints the control loop's timing and the
// bus traffic it causes. The controller's status lines are hidden; set KESTREL_BENCH_STATUS=1
// to see them.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "kestrel/controller/interfaces.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 60.0;
  if (!(seconds > 0.0)) {
    std::fprintf(stderr, "usage: bench_controller [SECONDS]\n");
    return 2;
  }
  if (std::getenv("KESTREL_BENCH_STATUS") == nullptr) {
    std::freopen("/dev/null", "w", stderr);
  }

  kestrel::simbus::HubOptions hub;
  hub.wire_time = true;
  kestrel::simbus::ScopedSimbus bus({"benchcan0"}, hub);
  kestrel::sim::BusOptions options;
  options.interface = "benchcan0";
  kestrel::sim::SimulatedMotorBus motors(
      kestrel::sim::arm_motor_configs(), options,
      kestrel::sim::RigidBodyArmPlant::from_shipped_configuration());
  motors.start();

  ArmController arm(true, "benchcan0", false, MIT_MODE, false);
  std::printf("\nController on the simulated arm, 1 Mbit/s classic bus with wire time, %.0f s\n",
              seconds);
  std::fflush(stdout);

  // Keep the arm moving: slow joint-space swings, a new 2 s move every 2 s.
  const auto start = std::chrono::steady_clock::now();
  int move = 0;
  while (std::chrono::steady_clock::now() - start < std::chrono::duration<double>(seconds) &&
         !arm.emergency_stopped()) {
    const double a = (move % 2 == 0) ? 0.25 : -0.25;
    arm.set_joint({a, a * 0.6, -a, a, -a, a}, 2.0);
    ++move;
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const auto loop = arm.control_loop_statistics();
  const auto traffic = motors.telemetry();
  const bool stopped = arm.emergency_stopped();
  arm.cleanup();
  if (stopped) {
    std::printf("the controller stopped the arm after %.1f s (KESTREL_BENCH_STATUS=1 shows why)\n",
                elapsed);
    return 1;
  }

  std::printf("\n%-34s %10s %10s %10s\n", "control loop (2.5 ms period)", "median", "p99", "max");
  std::printf("%-34s %10.1f %10.1f %10.1f\n", "cycle compute time, us", loop.compute_median_us,
              loop.compute_p99_us, loop.compute_max_us);
  std::printf("%-34s %10.1f %10.1f %10.1f\n", "wake-up jitter, us", loop.jitter_median_us,
              loop.jitter_p99_us, loop.jitter_max_us);
  std::printf("%-34s %10llu\n", "cycles", static_cast<unsigned long long>(loop.cycles));
  std::printf("%-34s %10llu\n", "missed deadlines",
              static_cast<unsigned long long>(loop.missed_deadlines));
  // Rates over the whole run (loop start-up included); bus load over its last second.
  std::printf("\n%-34s %10.0f\n", "frames/s host -> motors",
              static_cast<double>(traffic.received_total) / elapsed);
  std::printf("%-34s %10.0f\n", "frames/s motors -> host",
              static_cast<double>(traffic.sent_total) / elapsed);
  std::printf("%-34s %9.1f%%\n", "load on a 1 Mbit/s classic bus", 100.0 * traffic.classic_load);
  std::printf("%-34s %9.1f%%\n", "load on CAN FD 1/5 Mbit/s", 100.0 * traffic.fd_load);
  return 0;
}
