#include "state_stream.hpp"

#include <chrono>

namespace kestrel::service {

namespace {

json cycle_json(const kestrel::controller::ControlCycleSample& c) {
  return json{{"cycle", c.cycle},
              {"time_sec", c.time_sec},
              {"command_kind", c.command_kind},
              {"commanded_position", c.commanded_position},
              {"commanded_velocity", c.commanded_velocity},
              {"feedforward_torque", c.feedforward_torque},
              {"measured_position", c.measured_position},
              {"measured_velocity", c.measured_velocity},
              {"measured_torque", c.measured_torque},
              {"commanded_gripper_m", c.commanded_gripper_m},
              {"measured_gripper_m", c.measured_gripper_m}};
}

json loop_json(const kestrel::controller::ControlLoopStatistics& s) {
  return json{{"cycles", s.cycles},
              {"missed_deadlines", s.missed_deadlines},
              {"compute_median_us", s.compute_median_us},
              {"compute_p99_us", s.compute_p99_us},
              {"compute_max_us", s.compute_max_us},
              {"io_median_us", s.io_median_us},
              {"io_p99_us", s.io_p99_us},
              {"io_max_us", s.io_max_us},
              {"jitter_median_us", s.jitter_median_us},
              {"jitter_p99_us", s.jitter_p99_us},
              {"jitter_max_us", s.jitter_max_us}};
}

}  // namespace

json StateReader::loop_statistics() {
  std::lock_guard<std::mutex> lock(loop_mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (loop_.is_null() || now - loop_time_ > std::chrono::milliseconds(100)) {
    loop_ = loop_json(arm_.control_loop_statistics());
    loop_time_ = now;
  }
  return loop_;
}

json StateReader::snapshot(int control_holder) {
  json state{
      {"joints", arm_.get_joint()},
      {"velocities", arm_.get_joint_velocities()},
      {"torques", arm_.get_joint_torques()},
      {"tool_pose", arm_.get_end_effector_pose()},
      {"cycle", cycle_json(arm_.get_control_cycle_sample())},
      {"loop", loop_statistics()},
      {"motors", {{"running", arm_.running()}, {"emergency_stopped", arm_.emergency_stopped()}}},
      {"control_holder", control_holder}};
  // Without a gripper the library's getters print a message on every call: leave them alone.
  state["gripper"] = facts_.gripper ? json{{"position", arm_.get_gripper_position()},
                                           {"distance_m", arm_.get_gripper_distance()}}
                                    : json(nullptr);
  return state;
}

StateStream::StateStream(LineChannel& channel, std::function<json()> snapshot)
    : channel_(channel), snapshot_(std::move(snapshot)) {}

StateStream::~StateStream() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    quit_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void StateStream::start(double rate_hz) {
  if (!(rate_hz > 0.0 && rate_hz <= kMaxRateHz)) {
    throw std::invalid_argument("rate_hz must be in (0, 800], not " + std::to_string(rate_hz));
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    period_sec_ = 1.0 / rate_hz;
  }
  wake_.notify_all();
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { run(); });
  }
}

void StateStream::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    period_sec_ = 0.0;
  }
  wake_.notify_all();
}

void StateStream::run() {
  auto next = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  while (!quit_) {
    if (period_sec_ <= 0.0) {
      wake_.wait(lock, [this] { return quit_ || period_sec_ > 0.0; });
      next = std::chrono::steady_clock::now();
      continue;
    }
    const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(period_sec_));
    lock.unlock();
    bool sent = false;
    try {
      sent = channel_.write_line(json{{"event", "state"}, {"state", snapshot_()}}.dump());
    } catch (const std::exception&) {
      // the controller has ended (the service is shutting down): nothing more to stream
    }
    lock.lock();
    if (!sent) {
      return;  // the client has gone (its reader ends the session) or the arm has
    }
    next += period;
    const auto now = std::chrono::steady_clock::now();
    if (next < now) {
      next = now;  // a slow client: skip, never burst
    }
    wake_.wait_until(lock, next, [this] { return quit_; });
  }
}

}  // namespace kestrel::service
