#include "kestrel_sim/simulated_motor_bus.hpp"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace kestrel::sim {

namespace {

// Longest stretch of real time one physics step simulates; beyond it (a stalled process)
// simulated time falls behind instead of taking one huge step.
constexpr double kMaxStep = 0.02;

std::system_error socket_error(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

std::optional<Frame> from_kernel(const canfd_frame& raw, ssize_t size) {
  if (size != static_cast<ssize_t>(CAN_MTU) && size != static_cast<ssize_t>(CANFD_MTU)) {
    return std::nullopt;
  }
  if (raw.can_id & CAN_ERR_FLAG) {
    return std::nullopt;  // error frames are not commands
  }
  Frame f;
  f.extended = raw.can_id & CAN_EFF_FLAG;
  f.remote = raw.can_id & CAN_RTR_FLAG;
  f.id = raw.can_id & (f.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
  f.fd = size == static_cast<ssize_t>(CANFD_MTU);
  f.flags = f.fd ? raw.flags : 0;
  f.len = std::min<uint8_t>(raw.len, f.fd ? CANFD_MAX_DLEN : CAN_MAX_DLEN);
  std::memcpy(f.data.data(), raw.data, f.len);
  return f;
}

}  // namespace

SimulatedMotorBus::SimulatedMotorBus(std::vector<MotorConfig> configs, BusOptions options,
                                     std::unique_ptr<Plant> plant)
    : options_(std::move(options)),
      simulation_(std::move(configs), std::move(plant), options_.simulation),
      random_(options_.random_seed),
      log_(options_.frame_log_capacity),
      telemetry_(options_.timing) {
  if (options_.physics_period <= std::chrono::microseconds::zero()) {
    throw std::invalid_argument("physics period must be positive");
  }
}

SimulatedMotorBus::~SimulatedMotorBus() {
  stop();
  if (script_.unreported()) {
    for (const std::string& line : script_.unmet()) {
      std::fprintf(stderr, "[kestrel-sim] expectation failed: %s\n", line.c_str());
    }
  }
}

void SimulatedMotorBus::open_socket() {
  int fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  if (fd < 0) {
    throw socket_error("socket(PF_CAN, SOCK_RAW, CAN_RAW)");
  }
  struct ifreq ifr {};
  std::strncpy(ifr.ifr_name, options_.interface.c_str(), IFNAMSIZ - 1);
  if (::ioctl(fd, SIOCGIFINDEX, &ifr) < 0) {
    auto e = socket_error("CAN interface " + options_.interface);
    ::close(fd);
    throw e;
  }
  if (options_.fd) {
    int one = 1;
    if (::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof one) < 0) {
      auto e = socket_error("CAN FD on " + options_.interface);
      ::close(fd);
      throw e;
    }
  }
  struct sockaddr_can addr {};
  addr.can_family = AF_CAN;
  addr.can_ifindex = ifr.ifr_ifindex;
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) < 0) {
    auto e = socket_error("bind to " + options_.interface);
    ::close(fd);
    throw e;
  }
  socket_ = fd;
}

void SimulatedMotorBus::start() {
  if (running_) {
    return;
  }
  open_socket();
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) {
    auto e = socket_error("eventfd");
    ::close(socket_);
    socket_ = -1;
    throw e;
  }
  stopping_ = false;
  running_ = true;
  {
    std::lock_guard<std::mutex> lock(stats_mutex_);
    stats_ = PhysicsStats{};
    step_time_sum_us_ = 0.0;
    physics_start_ = Clock::now();
  }
  telemetry_.reset(Clock::now());
  sender_ = std::thread(&SimulatedMotorBus::sender_loop, this);
  physics_ = std::thread(&SimulatedMotorBus::physics_loop, this);
  receiver_ = std::thread(&SimulatedMotorBus::receive_loop, this);
}

void SimulatedMotorBus::stop() {
  if (!running_) {
    return;
  }
  {
    std::lock_guard<std::mutex> lock(stop_mutex_);
    stopping_ = true;
  }
  stop_cv_.notify_all();
  {
    std::lock_guard<std::mutex> lock(wire_mutex_);
    wire_cv_.notify_all();
  }
  uint64_t one = 1;
  if (::write(wake_fd_, &one, sizeof one) < 0) {
    // The receive loop also polls with a time-out; it ends soon anyway.
  }
  receiver_.join();
  physics_.join();
  sender_.join();
  ::close(wake_fd_);
  ::close(socket_);
  wake_fd_ = socket_ = -1;
  {
    std::lock_guard<std::mutex> lock(wire_mutex_);
    delayed_.clear();
  }
  running_ = false;
}

void SimulatedMotorBus::receive_loop() {
  struct pollfd fds[2] = {{socket_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
  while (!stopping_) {
    int n = ::poll(fds, 2, 100);
    if (n < 0 && errno != EINTR) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      continue;
    }
    if (n <= 0 || (fds[1].revents & POLLIN)) {
      continue;
    }
    if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL) && !(fds[0].revents & POLLIN)) {
      // The interface went away or down: keep listening, it may come back.
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      continue;
    }
    canfd_frame raw{};
    ssize_t size = ::read(socket_, &raw, sizeof raw);
    const TimePoint received = Clock::now();
    if (size <= 0) {
      if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      continue;
    }
    if (std::optional<Frame> frame = from_kernel(raw, size)) {
      process(*frame, received);
    }
  }
}

void SimulatedMotorBus::process(const Frame& frame, TimePoint received) {
  std::vector<MotorSimulation::Outcome> outcomes;
  {
    std::lock_guard<std::mutex> lock(simulation_mutex_);
    outcomes = simulation_.handle_frame(frame, received);
  }
  telemetry_.record(TelemetryMeter::Direction::kReceived, frame, received);

  ReceivedCommand unaddressed;
  const ReceivedCommand& first = outcomes.empty() ? unaddressed : outcomes.front().command;
  log(LoggedFrame{received, LoggedFrame::Direction::kReceived, frame, first});

  std::vector<std::function<void()>> actions;
  if (outcomes.empty()) {
    if (auto action = script_.observe(unaddressed, frame)) {
      actions.push_back(std::move(action));
    }
  }
  for (const MotorSimulation::Outcome& o : outcomes) {
    if (auto action = script_.observe(o.command, frame)) {
      actions.push_back(std::move(action));
    }
  }

  for (const MotorSimulation::Outcome& o : outcomes) {
    if (!o.reply) {
      continue;
    }
    if (should_drop(o.motor)) {
      telemetry_.record_drop();
      continue;
    }
    bool sent_now = false;
    {
      std::lock_guard<std::mutex> lock(wire_mutex_);
      if (delay_.count() > 0 || !delayed_.empty()) {
        delayed_.emplace(std::make_pair(received + delay_, delay_sequence_++), *o.reply);
        wire_cv_.notify_all();
      } else {
        sent_now = true;
      }
    }
    if (sent_now) {
      transmit(*o.reply);
      telemetry_.record_latency(
          std::chrono::duration<double, std::micro>(Clock::now() - received).count());
    }
  }
  for (auto& action : actions) {
    action();
  }
}

bool SimulatedMotorBus::should_drop(size_t motor) {
  std::lock_guard<std::mutex> lock(wire_mutex_);
  auto it = drop_motor_.find(motor);
  if (it != drop_motor_.end() && it->second > 0) {
    --it->second;
    return true;
  }
  if (drop_any_ > 0) {
    --drop_any_;
    return true;
  }
  if (drop_probability_ > 0.0) {
    return std::uniform_real_distribution<double>(0.0, 1.0)(random_) < drop_probability_;
  }
  return false;
}

void SimulatedMotorBus::transmit(const Frame& frame) {
  // Written under the record lock: whoever has seen the reply on the bus and then looks at the
  // log or the telemetry finds it there.
  std::lock_guard<std::mutex> lock(log_mutex_);
  ssize_t written;
  if (frame.fd) {
    canfd_frame raw{};
    raw.can_id = frame.id | (frame.extended ? CAN_EFF_FLAG : 0);
    raw.len = frame.len;
    raw.flags = frame.flags;
    std::memcpy(raw.data, frame.data.data(), frame.len);
    written = ::write(socket_, &raw, sizeof raw);
  } else {
    can_frame raw{};
    raw.can_id = frame.id | (frame.extended ? CAN_EFF_FLAG : 0);
    raw.can_dlc = frame.len;
    std::memcpy(raw.data, frame.data.data(), frame.len);
    written = ::write(socket_, &raw, sizeof raw);
  }
  if (written <= 0) {
    return;  // interface down or queue full: the frame is lost, as on a real bus
  }
  const TimePoint now = Clock::now();
  telemetry_.record(TelemetryMeter::Direction::kSent, frame, now);
  append_log(LoggedFrame{now, LoggedFrame::Direction::kSent, frame, ReceivedCommand{}});
}

void SimulatedMotorBus::sender_loop() {
  std::unique_lock<std::mutex> lock(wire_mutex_);
  while (!stopping_) {
    if (delayed_.empty()) {
      wire_cv_.wait(lock);
      continue;
    }
    auto first = delayed_.begin();
    const TimePoint due = first->first.first;
    if (Clock::now() < due) {
      wire_cv_.wait_until(lock, due);
      continue;
    }
    Frame frame = first->second;
    delayed_.erase(first);
    lock.unlock();
    transmit(frame);
    lock.lock();
  }
}

void SimulatedMotorBus::physics_loop() {
  const auto period = options_.physics_period;
  TimePoint last = Clock::now();
  TimePoint deadline = last + period;
  std::unique_lock<std::mutex> stop_lock(stop_mutex_);
  while (!stopping_) {
    // Absolute deadlines: the rate does not drift with the time each step takes.
    if (stop_cv_.wait_until(stop_lock, deadline, [this] { return stopping_.load(); })) {
      break;
    }
    const TimePoint now = Clock::now();
    const double dt = std::min(std::chrono::duration<double>(now - last).count(), kMaxStep);
    {
      std::lock_guard<std::mutex> lock(simulation_mutex_);
      simulation_.advance(dt, now);
    }
    last = now;
    const TimePoint done = Clock::now();
    {
      std::lock_guard<std::mutex> lock(stats_mutex_);
      ++stats_.steps;
      const double lateness = std::chrono::duration<double, std::micro>(now - deadline).count();
      stats_.max_lateness_us = std::max(stats_.max_lateness_us, lateness);
      if (now - deadline > period) {
        ++stats_.late_steps;
      }
      step_time_sum_us_ += std::chrono::duration<double, std::micro>(done - now).count();
    }
    deadline += period;
    if (done - deadline > 50 * period) {
      deadline = done + period;  // far behind (stopped in a debugger): resynchronise
    }
  }
}

void SimulatedMotorBus::log(const LoggedFrame& entry) {
  std::lock_guard<std::mutex> lock(log_mutex_);
  append_log(entry);
}

void SimulatedMotorBus::append_log(const LoggedFrame& entry) {
  if (entry.direction == LoggedFrame::Direction::kReceived) {
    ++received_since_clear_;
  }
  log_.append(entry);
  log_cv_.notify_all();
}

size_t SimulatedMotorBus::motor_count() const {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  return simulation_.size();
}

size_t SimulatedMotorBus::index_of(uint32_t send_id) const {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  if (auto i = simulation_.find_send_id(send_id)) {
    return *i;
  }
  throw std::out_of_range("no simulated motor with id " + std::to_string(send_id));
}

MotorState SimulatedMotorBus::motor_state(size_t motor) const {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  return simulation_.state(motor);
}

std::vector<MotorState> SimulatedMotorBus::motor_states() const {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  std::vector<MotorState> out;
  for (size_t i = 0; i < simulation_.size(); ++i) {
    out.push_back(simulation_.state(i));
  }
  return out;
}

void SimulatedMotorBus::with_simulation(const std::function<void(MotorSimulation&)>& fn) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  fn(simulation_);
}

namespace {

// The entries of `snapshot`, or only the received ones; copied with no lock held.
std::vector<LoggedFrame> copy_entries(const FrameLog::Snapshot& snapshot, bool received_only,
                                      size_t expected) {
  std::vector<LoggedFrame> out;
  out.reserve(expected);
  snapshot.for_each([&](const LoggedFrame& e) {
    if (!received_only || e.direction == LoggedFrame::Direction::kReceived) {
      out.push_back(e);
    }
  });
  return out;
}

}  // namespace

std::vector<LoggedFrame> SimulatedMotorBus::frame_log() const {
  FrameLog::Snapshot snapshot;
  {
    std::lock_guard<std::mutex> lock(log_mutex_);
    snapshot = log_.snapshot();
  }
  return copy_entries(snapshot, false, snapshot.size());
}

std::vector<LoggedFrame> SimulatedMotorBus::received_frames() const {
  FrameLog::Snapshot snapshot;
  size_t received = 0;
  {
    std::lock_guard<std::mutex> lock(log_mutex_);
    snapshot = log_.snapshot();
    received = received_since_clear_;
  }
  return copy_entries(snapshot, true, std::min(received, snapshot.size()));
}

void SimulatedMotorBus::clear_frame_log() {
  std::lock_guard<std::mutex> lock(log_mutex_);
  log_.clear();
  received_since_clear_ = 0;
}

std::vector<LoggedFrame> SimulatedMotorBus::take_received_frames(size_t* lost) {
  FrameLog::Snapshot snapshot;
  size_t received = 0;
  {
    std::lock_guard<std::mutex> lock(log_mutex_);
    snapshot = log_.snapshot();
    received = received_since_clear_;
    log_.clear();
    received_since_clear_ = 0;
  }
  std::vector<LoggedFrame> out = copy_entries(snapshot, true, std::min(received, snapshot.size()));
  if (lost != nullptr) {
    *lost = received - out.size();
  }
  return out;
}

bool SimulatedMotorBus::wait_for_received(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(log_mutex_);
  return log_cv_.wait_for(lock, timeout, [&] { return received_since_clear_ >= count; });
}

void SimulatedMotorBus::set_silent(size_t motor, bool silent) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).set_silent(silent);
}

void SimulatedMotorBus::inject_fault(size_t motor, uint8_t code, bool sticky) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).inject_fault(code, sticky);
}

void SimulatedMotorBus::clear_fault(size_t motor) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).clear_injected_fault();
}

void SimulatedMotorBus::set_external_torque(size_t motor, double tau) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.set_external_torque(motor, tau);
}

void SimulatedMotorBus::set_posture(const std::vector<double>& positions) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.set_posture(positions);
}

void SimulatedMotorBus::set_reply_drop_probability(double p) {
  std::lock_guard<std::mutex> lock(wire_mutex_);
  drop_probability_ = std::clamp(p, 0.0, 1.0);
}

void SimulatedMotorBus::drop_next_replies(size_t count, std::optional<size_t> motor) {
  std::lock_guard<std::mutex> lock(wire_mutex_);
  if (motor) {
    drop_motor_[*motor] = count;
  } else {
    drop_any_ = count;
  }
}

void SimulatedMotorBus::set_reply_delay(std::chrono::microseconds delay) {
  std::lock_guard<std::mutex> lock(wire_mutex_);
  delay_ = std::max(delay, std::chrono::microseconds::zero());
}

void SimulatedMotorBus::set_register(size_t motor, uint8_t rid, double value) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).registers().set(rid, value);
}

void SimulatedMotorBus::set_read_back_offset(size_t motor, uint8_t rid, double offset) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).registers().set_read_back_offset(rid, offset);
}

void SimulatedMotorBus::set_read_back_override(size_t motor, uint8_t rid, double value) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).registers().set_read_back_override(rid, value);
}

void SimulatedMotorBus::clear_read_back_faults(size_t motor) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).registers().clear_read_back_faults();
}

void SimulatedMotorBus::set_temperatures(size_t motor, double t_mos, double t_rotor) {
  std::lock_guard<std::mutex> lock(simulation_mutex_);
  simulation_.motor(motor).set_temperatures(t_mos, t_rotor);
}

TelemetrySnapshot SimulatedMotorBus::telemetry() const {
  {
    // A reply being written is counted before this returns (see transmit).
    std::lock_guard<std::mutex> lock(log_mutex_);
  }
  return telemetry_.snapshot(Clock::now());
}

PhysicsStats SimulatedMotorBus::physics_stats() const {
  std::lock_guard<std::mutex> lock(stats_mutex_);
  PhysicsStats s = stats_;
  const double elapsed = std::chrono::duration<double>(Clock::now() - physics_start_).count();
  s.rate_hz = elapsed > 0.0 ? static_cast<double>(s.steps) / elapsed : 0.0;
  s.mean_step_us = s.steps ? step_time_sum_us_ / static_cast<double>(s.steps) : 0.0;
  return s;
}

}  // namespace kestrel::sim
