// Round trips through the userspace CAN bus: the library's motor group on a CANSocket asks a
// simulated motor for feedback and waits for it. Prints latency (median, p99, max) and the
// frame rate of a full control cycle (six MIT frames out, six replies in), with and without
// wire-time pacing, side by side in one run.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <vector>

#include "kestrel/canbus/can_socket.hpp"
#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"

namespace dm = kestrel::damiao_motor;
using Clock = std::chrono::steady_clock;

namespace {

struct Figures {
  double median_us;
  double p99_us;
  double max_us;
  double frames_per_second;  // both directions, full control cycles
  double cycle_median_us;
};

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

// Reads replies until `count` frames arrived (or 50 ms passed without one).
int take_replies(kestrel::canbus::CANSocket& socket, dm::DMDeviceCollection& group, int count) {
  int got = 0;
  can_frame frame;
  while (got < count && socket.is_data_available(50000) && socket.read_can_frame(frame)) {
    group.get_device_collection().dispatch_frame_callback(frame);
    ++got;
  }
  return got;
}

Figures measure(bool wire_time, int round_trips, int cycles) {
  kestrel::simbus::HubOptions hub_options;
  hub_options.wire_time = wire_time;
  kestrel::simbus::ScopedSimbus bus({"benchcan0"}, hub_options);
  auto configs = kestrel::sim::arm_motor_configs();
  configs.resize(6);
  kestrel::sim::BusOptions options;
  options.interface = "benchcan0";
  kestrel::sim::SimulatedMotorBus motors(configs, options);
  motors.start();

  kestrel::canbus::CANSocket socket("benchcan0", false);
  dm::DMDeviceCollection group(socket);
  std::deque<dm::Motor> host;
  for (unsigned i = 1; i <= 6; ++i) {
    host.emplace_back(i <= 3 ? dm::MotorType::DM_V8_T28 : dm::MotorType::DM_V30_T10, i, 0x10 + i);
    group.get_device_collection().add_device(
        std::make_shared<dm::DMCANDevice>(host.back(), dm::PARAM_CAN_ID, false));
  }
  group.enable_all();
  take_replies(socket, group, 6);

  std::vector<double> latency;
  latency.reserve(round_trips);
  for (int i = 0; i < round_trips; ++i) {
    const auto t0 = Clock::now();
    group.refresh_one(i % 6);
    if (take_replies(socket, group, 1) != 1) {
      continue;  // a lost reply is not a latency
    }
    latency.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }

  std::vector<double> cycle_time;
  std::vector<dm::MITParam> hold(6, dm::MITParam{20.0, 1.0, 0.0, 0.0, 0.0});
  const auto start = Clock::now();
  long frames = 0;
  for (int c = 0; c < cycles; ++c) {
    const auto t0 = Clock::now();
    group.mit_control_all(hold);
    frames += 6 + take_replies(socket, group, 6);
    cycle_time.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  group.disable_all();
  take_replies(socket, group, 6);
  return {percentile(latency, 0.5), percentile(latency, 0.99),
          *std::max_element(latency.begin(), latency.end()), frames / elapsed,
          percentile(cycle_time, 0.5)};
}

}  // namespace

int main() {
  std::freopen("/dev/null", "w", stderr);  // the motors' first-feedback status lines
  const int round_trips = 20000;
  const int cycles = 5000;
  std::printf("Userspace CAN bus round trips: host group -> simulated motor -> host\n");
  std::printf("(%d refresh round trips, %d control cycles of 6 MIT frames + 6 replies)\n\n",
              round_trips, cycles);
  std::printf("%-22s %12s %12s %12s %14s %16s\n", "bus", "median us", "p99 us", "max us",
              "cycle med us", "frames/s (both)");
  for (bool wire_time : {false, true}) {
    const Figures f = measure(wire_time, round_trips, cycles);
    std::printf("%-22s %12.1f %12.1f %12.1f %14.1f %16.0f\n",
                wire_time ? "1 Mbit/s wire time" : "no wire time", f.median_us, f.p99_us, f.max_us,
                f.cycle_median_us, f.frames_per_second);
  }
  std::printf("\nA 1 Mbit/s classic bus carries at most ~9000 8-byte frames/s (111 bits each).\n");
  return 0;
}
