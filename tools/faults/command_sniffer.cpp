#include "command_sniffer.hpp"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <system_error>

#include "kestrel_sim/dm_protocol.hpp"
#include "kestrel_sim/frame.hpp"
#include "kestrel_sim/simulated_motor.hpp"

namespace kestrel::faults {

namespace {

int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

CommandSniffer::CommandSniffer(const std::string& interface) {
  socket_ = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  if (socket_ < 0) {
    throw std::system_error(errno, std::generic_category(), "sniffer socket");
  }
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, interface.c_str(), IFNAMSIZ - 1);
  sockaddr_can addr{};
  addr.can_family = AF_CAN;
  if (::ioctl(socket_, SIOCGIFINDEX, &ifr) < 0) {
    const int e = errno;
    ::close(socket_);
    throw std::system_error(e, std::generic_category(), "sniffer interface " + interface);
  }
  addr.can_ifindex = ifr.ifr_ifindex;
  timeval tv{0, 20000};
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  if (::bind(socket_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) {
    const int e = errno;
    ::close(socket_);
    throw std::system_error(e, std::generic_category(), "sniffer bind " + interface);
  }
  thread_ = std::thread([this] { run(); });
}

CommandSniffer::~CommandSniffer() {
  stopping_ = true;
  thread_.join();
  ::close(socket_);
}

std::vector<MitCommandSeen> CommandSniffer::commands_since(int64_t since_ns) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<MitCommandSeen> out;
  for (const auto& c : seen_) {
    if (c.time_ns >= since_ns) {
      out.push_back(c);
    }
  }
  return out;
}

void CommandSniffer::run() {
  const auto configs = sim::arm_motor_configs();
  while (!stopping_) {
    can_frame frame{};
    const ssize_t n = ::read(socket_, &frame, sizeof(frame));
    if (n != static_cast<ssize_t>(sizeof(frame))) {
      continue;  // time-out, or an interface that went down
    }
    const uint32_t id = frame.can_id & CAN_SFF_MASK;
    if (id < 1 || id > 6 || frame.can_dlc != 8) {
      continue;
    }
    sim::Payload payload{};
    std::copy(frame.data, frame.data + 8, payload.begin());
    if (sim::dm::special_command(payload) != sim::dm::CommandByte::kNone) {
      continue;
    }
    const auto limits = sim::dm::limits_of_type(configs[id - 1].type);
    const auto mit = sim::dm::decode_mit(payload, limits);
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.push_back({now_ns(), static_cast<int>(id - 1), mit.q, mit.dq, mit.kp});
  }
}

double largest_command_step(const std::vector<MitCommandSeen>& commands,
                            const std::array<double, 6>& vmax, const std::array<double, 6>& amax) {
  // 16-bit positions over +-12.5 rad; 12-bit velocities over +-8 rad/s (joints 1-3) and
  // +-30 rad/s (joints 4-6).
  constexpr double kPositionCount = 25.0 / 65535.0;
  const double velocity_count[6] = {16.0 / 4095, 16.0 / 4095, 16.0 / 4095,
                                    60.0 / 4095, 60.0 / 4095, 60.0 / 4095};
  constexpr double kPeriod = 0.0025;
  std::array<const MitCommandSeen*, 6> previous{};
  double worst = 0.0;
  for (const auto& c : commands) {
    if (c.kp == 0.0) {
      previous[c.joint] = nullptr;  // a torque-only stretch starts a new chain
      continue;
    }
    if (const MitCommandSeen* p = previous[c.joint]) {
      const double dt =
          std::max(static_cast<double>(c.time_ns - p->time_ns) * 1e-9, kPeriod) + kPeriod;
      const double position = std::abs(c.q - p->q) / (vmax[c.joint] * dt + 2 * kPositionCount);
      const double velocity =
          std::abs(c.dq - p->dq) / (amax[c.joint] * dt + 2 * velocity_count[c.joint]);
      worst = std::max({worst, position, velocity});
    }
    previous[c.joint] = &c;
  }
  return worst;
}

}  // namespace kestrel::faults
