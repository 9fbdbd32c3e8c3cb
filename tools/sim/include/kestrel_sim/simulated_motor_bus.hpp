// Simulated DM motors on a CAN interface. Opens its own raw SocketCAN socket with the ordinary
// calls (socket, ioctl SIOCGIFINDEX, setsockopt CAN_RAW_FD_FRAMES, bind, read, write), so it
// runs on a kernel vcan as well as on a userspace bus. A receive thread answers every frame as
// soon as it arrives; a physics thread advances the mechanics in real time at 1 kHz.
//
//   kestrel::sim::BusOptions options;
//   options.interface = "can0";
//   kestrel::sim::SimulatedMotorBus bus(kestrel::sim::arm_motor_configs(), options);
//   bus.start();
//   ... drive the motors over the bus, inspect bus.motor_state(i), bus.frame_log() ...
//   EXPECT_THAT(bus.verify(), testing::IsEmpty());
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kestrel_sim/expectations.hpp"
#include "kestrel_sim/frame_log.hpp"
#include "kestrel_sim/motor_simulation.hpp"
#include "kestrel_sim/telemetry.hpp"

namespace kestrel::sim {

struct BusOptions {
  std::string interface = "simcan0";
  bool fd = false;  // FD-enabled socket: answers FD requests with FD frames
  std::chrono::microseconds physics_period{1000};
  SimulationOptions simulation;
  size_t frame_log_capacity = 20000;  // oldest entries are dropped beyond this
  uint64_t random_seed = 0x6b657374;  // for dropped-reply probabilities
  BusTiming timing;                   // bit rates the telemetry's bus load refers to
};

struct PhysicsStats {
  double rate_hz = 0.0;  // steps per second since start
  uint64_t steps = 0;
  uint64_t late_steps = 0;  // woke more than one period after the deadline
  double max_lateness_us = 0.0;
  double mean_step_us = 0.0;  // computation per step
};

class SimulatedMotorBus {
 public:
  explicit SimulatedMotorBus(std::vector<MotorConfig> configs = arm_motor_configs(),
                             BusOptions options = {}, std::unique_ptr<Plant> plant = nullptr);
  // Stops, then reports on standard error every expectation left unmet and not yet verified.
  ~SimulatedMotorBus();
  SimulatedMotorBus(const SimulatedMotorBus&) = delete;
  SimulatedMotorBus& operator=(const SimulatedMotorBus&) = delete;

  // Opens and binds the socket and starts the threads. Throws std::system_error when the
  // interface cannot be opened (for example ENODEV for an unknown name).
  void start();
  void stop();
  bool running() const { return running_; }
  const BusOptions& options() const { return options_; }

  // --- Inspection ---
  size_t motor_count() const;
  // Index of the motor with this command id; throws std::out_of_range.
  size_t index_of(uint32_t send_id) const;
  MotorState motor_state(size_t motor) const;
  std::vector<MotorState> motor_states() const;
  // Anything else, under the simulation's lock (keep it short: the threads wait meanwhile).
  void with_simulation(const std::function<void(MotorSimulation&)>& fn);

  std::vector<LoggedFrame> frame_log() const;  // received and sent, in order
  std::vector<LoggedFrame> received_frames() const;
  void clear_frame_log();
  // The received entries in order, and the whole log cleared, in one step under the log's lock:
  // a collector that drains the log more often than it fills loses no received frame.
  // `lost` (optional) receives how many received frames fell out of the full log since the last
  // clear or take.
  std::vector<LoggedFrame> take_received_frames(size_t* lost = nullptr);
  // Waits until at least `count` frames were received since the last clear_frame_log().
  bool wait_for_received(size_t count, std::chrono::milliseconds timeout) const;

  // --- Fault injection ---
  // A silent motor is unpowered: it neither acts on frames nor answers them.
  void set_silent(size_t motor, bool silent);
  // Status fault (8..14): the motor stops applying torque and reports the code; clear-error
  // clears it unless `sticky`, which only clear_fault() ends.
  void inject_fault(size_t motor, uint8_t code, bool sticky = false);
  void clear_fault(size_t motor);
  void set_external_torque(size_t motor, double tau);
  // Shaft positions (one per motor, or fewer), at rest.
  void set_posture(const std::vector<double>& positions);
  // Replies lost on the wire: each with probability p, and/or the next `count` (of one motor,
  // or of any motor).
  void set_reply_drop_probability(double p);
  void drop_next_replies(size_t count, std::optional<size_t> motor = std::nullopt);
  // Replies go out this long after the request arrived (0: at once).
  void set_reply_delay(std::chrono::microseconds delay);
  // A motor configured before power-on: sets a register directly.
  void set_register(size_t motor, uint8_t rid, double value);
  // Register read-back faults: reads (0x33) return the stored value plus `offset`, or `value`.
  void set_read_back_offset(size_t motor, uint8_t rid, double offset);
  void set_read_back_override(size_t motor, uint8_t rid, double value);
  void clear_read_back_faults(size_t motor);
  void set_temperatures(size_t motor, double t_mos, double t_rotor);

  // --- Scripted expectations ---
  ExpectationScript& expectations() { return script_; }
  void expect(Expectation e) { script_.expect(std::move(e)); }
  // Unmet expectations and strict-mode violations; empty when the script was followed.
  std::vector<std::string> verify() const { return script_.unmet(); }

  // --- Telemetry ---
  TelemetrySnapshot telemetry() const;
  PhysicsStats physics_stats() const;

 private:
  void open_socket();
  void receive_loop();
  void physics_loop();
  void sender_loop();
  void process(const Frame& frame, TimePoint received);
  bool should_drop(size_t motor);
  void transmit(const Frame& frame);
  void log(const LoggedFrame& entry);
  void append_log(const LoggedFrame& entry);  // log_mutex_ held

  BusOptions options_;
  MotorSimulation simulation_;
  mutable std::mutex simulation_mutex_;

  int socket_ = -1;
  int wake_fd_ = -1;
  std::atomic<bool> running_{false};
  std::atomic<bool> stopping_{false};
  std::thread receiver_;
  std::thread physics_;
  std::thread sender_;

  // Wire faults and delayed replies.
  mutable std::mutex wire_mutex_;
  std::condition_variable wire_cv_;
  double drop_probability_ = 0.0;
  size_t drop_any_ = 0;
  std::map<size_t, size_t> drop_motor_;
  std::chrono::microseconds delay_{0};
  std::mt19937_64 random_;
  std::multimap<std::pair<TimePoint, uint64_t>, Frame> delayed_;
  uint64_t delay_sequence_ = 0;

  // Guards the frame log; also held while a reply is written (see transmit). Readers copy the
  // log's entries after releasing it.
  mutable std::mutex log_mutex_;
  mutable std::condition_variable log_cv_;
  FrameLog log_;
  size_t received_since_clear_ = 0;

  ExpectationScript script_;
  TelemetryMeter telemetry_;

  mutable std::mutex stats_mutex_;
  std::condition_variable stop_cv_;
  std::mutex stop_mutex_;
  TimePoint physics_start_{};
  PhysicsStats stats_;
  double step_time_sum_us_ = 0.0;
};

}  // namespace kestrel::sim
