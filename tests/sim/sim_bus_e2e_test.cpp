// The simulated motors on a userspace CAN bus, driven through raw SocketCAN calls exactly as a
// host program would: exact reply bytes, classic and FD framing, wire faults, the watchdog, and
// the host driver's own start-up traffic checked against a strict script.
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <thread>

#include "kestrel/canbus/can_socket.hpp"
#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "sim_test_support.hpp"
#include "simbus/simbus_testing.hpp"

namespace kestrel::sim {
namespace {

using test::command_bytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

constexpr const char* kInterface = "simcan0";
// How long to listen before concluding that no reply comes.
constexpr std::chrono::milliseconds kSilence{100};

// A host-side raw CAN socket, with nothing but the ordinary calls.
class HostSocket {
 public:
  HostSocket(const char* name, bool fd) {
    fd_ = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
    EXPECT_GE(fd_, 0) << std::strerror(errno);
    struct ifreq ifr {};
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    EXPECT_EQ(::ioctl(fd_, SIOCGIFINDEX, &ifr), 0) << std::strerror(errno);
    int one = 1;
    if (fd) {
      EXPECT_EQ(::setsockopt(fd_, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof one), 0);
    }
    struct sockaddr_can addr {};
    addr.can_family = AF_CAN;
    addr.can_ifindex = ifr.ifr_ifindex;
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  }
  ~HostSocket() { ::close(fd_); }

  bool send(uint32_t id, const Payload& p, bool fd = false) {
    canfd_frame f{};
    f.can_id = id;
    f.len = 8;
    f.flags = fd ? CANFD_BRS : 0;
    std::memcpy(f.data, p.data(), 8);
    const size_t size = fd ? CANFD_MTU : CAN_MTU;
    return ::write(fd_, &f, size) == static_cast<ssize_t>(size);
  }

  struct Reply {
    size_t size = 0;
    canfd_frame frame{};
    Payload payload() const {
      Payload p;
      std::memcpy(p.data(), frame.data, 8);
      return p;
    }
  };
  std::optional<Reply> receive(std::chrono::milliseconds timeout = 500ms) {
    struct pollfd pfd = {fd_, POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(timeout.count())) != 1) {
      return std::nullopt;
    }
    Reply r;
    ssize_t n = ::read(fd_, &r.frame, sizeof r.frame);
    if (n <= 0) {
      return std::nullopt;
    }
    r.size = static_cast<size_t>(n);
    return r;
  }
  // Sends and returns the reply payload as text, or "" when none comes in time.
  std::string ask(uint32_t id, const Payload& p, uint32_t reply_id,
                  std::chrono::milliseconds timeout = 500ms) {
    send(id, p);
    auto r = receive(timeout);
    if (!r) {
      return "";
    }
    EXPECT_EQ(r->frame.can_id, reply_id);
    return to_hex(r->payload());
  }

 private:
  int fd_ = -1;
};

BusOptions on_interface(bool fd) {
  BusOptions o;
  o.interface = kInterface;
  o.fd = fd;
  return o;
}

class SimOnSimbus : public ::testing::Test {
 protected:
  explicit SimOnSimbus(bool fd = false) : sim_(arm_motor_configs(), on_interface(fd)) {
    sim_.start();
  }
  simbus::ScopedSimbus bus_{{kInterface}};
  SimulatedMotorBus sim_;
};

TEST_F(SimOnSimbus, ClassicCommandsGetExactRepliesAndAreLoggedInOrder) {
  HostSocket host(kInterface, false);
  EXPECT_EQ(host.ask(0x01, command_bytes(0xFC), 0x11), "11 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0x55, 0x09, 0xE8, 0x03}, 0x11), "01 00 55 09 E8 03 00 00");
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0x33, 0x09}, 0x11), "01 00 33 09 E8 03 00 00");
  EXPECT_EQ(host.ask(0x04, dm::encode_mit({1.0, 0, 10, 1, 0}, dm::limits_of_type(1)), 0x14),
            "04 7F FF 7F F7 FF 21 1E");  // disabled: answered, not applied
  EXPECT_EQ(host.ask(0x7FF, {0x07, 0x00, 0xCC}, 0x17), "07 7F FF 7F F7 FF 21 1E");

  std::vector<LoggedFrame> log = sim_.frame_log();
  std::vector<std::string> seen;
  for (size_t i = 0; i < log.size(); ++i) {
    seen.push_back((log[i].direction == LoggedFrame::Direction::kReceived ? "rx " : "tx ") +
                   to_string(log[i].frame));
    if (i > 0) {
      EXPECT_LE(log[i - 1].time, log[i].time);
    }
  }
  EXPECT_THAT(
      seen,
      ElementsAre("rx 0x001 [8] FF FF FF FF FF FF FF FC", "tx 0x011 [8] 11 7F FF 7F F7 FF 21 1E",
                  "rx 0x7FF [8] 01 00 55 09 E8 03 00 00", "tx 0x011 [8] 01 00 55 09 E8 03 00 00",
                  "rx 0x7FF [8] 01 00 33 09 00 00 00 00", "tx 0x011 [8] 01 00 33 09 E8 03 00 00",
                  "rx 0x004 [8] 8A 3C 7F F0 51 33 37 FF", "tx 0x014 [8] 04 7F FF 7F F7 FF 21 1E",
                  "rx 0x7FF [8] 07 00 CC 00 00 00 00 00", "tx 0x017 [8] 07 7F FF 7F F7 FF 21 1E"));
  EXPECT_EQ(log[6].command.kind, CommandKind::kMit);
  EXPECT_FALSE(log[6].command.applied);
  sim_.clear_frame_log();
  EXPECT_THAT(sim_.frame_log(), IsEmpty());
}

class SimOnSimbusFd : public SimOnSimbus {
 protected:
  SimOnSimbusFd() : SimOnSimbus(true) {}
};

TEST_F(SimOnSimbusFd, FdRequestsGetFdRepliesAndClassicRequestsClassicReplies) {
  HostSocket host(kInterface, true);
  ASSERT_TRUE(host.send(0x02, command_bytes(0xFC), true));
  auto fd_reply = host.receive();
  ASSERT_TRUE(fd_reply);
  EXPECT_EQ(fd_reply->size, CANFD_MTU);
  EXPECT_EQ(fd_reply->frame.can_id, 0x12u);
  EXPECT_EQ(fd_reply->frame.len, 8);
  EXPECT_TRUE(fd_reply->frame.flags & CANFD_BRS);
  EXPECT_EQ(to_hex(fd_reply->payload()), "12 7F FF 7F F7 FF 21 1E");

  ASSERT_TRUE(host.send(0x7FF, {0x02, 0x00, 0xCC}, false));
  auto classic_reply = host.receive();
  ASSERT_TRUE(classic_reply);
  EXPECT_EQ(classic_reply->size, CAN_MTU);
  EXPECT_EQ(to_hex(classic_reply->payload()), "12 7F FF 7F F7 FF 21 1E");
}

TEST_F(SimOnSimbus, SilentMotorsDroppedAndDelayedRepliesOnTheWire) {
  HostSocket host(kInterface, false);
  sim_.set_silent(2, true);
  EXPECT_EQ(host.ask(0x03, command_bytes(0xFC), 0x13, kSilence), "");
  EXPECT_EQ(host.ask(0x02, command_bytes(0xFC), 0x12), "12 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(sim_.motor_state(2).status, dm::kDisabled);
  EXPECT_EQ(sim_.received_frames().front().command.kind, CommandKind::kEnable);
  EXPECT_EQ(sim_.received_frames().front().command.motor, 2);

  sim_.drop_next_replies(2, 0);
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0xCC}, 0x11, kSilence), "");
  EXPECT_EQ(host.ask(0x7FF, {0x02, 0x00, 0xCC}, 0x12), "12 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0xCC}, 0x11, kSilence), "");
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0xCC}, 0x11), "01 7F FF 7F F7 FF 21 1E");
  sim_.set_reply_drop_probability(1.0);
  EXPECT_EQ(host.ask(0x7FF, {0x04, 0x00, 0xCC}, 0x14, kSilence), "");
  sim_.set_reply_drop_probability(0.0);
  EXPECT_EQ(sim_.telemetry().dropped_total, 3u);

  sim_.set_reply_delay(30ms);
  const TimePoint sent = Clock::now();
  host.send(0x7FF, {0x05, 0x00, 0xCC});
  host.send(0x7FF, {0x06, 0x00, 0xCC});
  auto first = host.receive();
  auto second = host.receive();
  const auto waited = Clock::now() - sent;
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->frame.can_id, 0x15u);  // delayed replies keep their order
  EXPECT_EQ(second->frame.can_id, 0x16u);
  EXPECT_GE(waited, 30ms);
}

TEST_F(SimOnSimbus, CommunicationTimeoutDisablesAMotorLeftWithoutFrames) {
  HostSocket host(kInterface, false);
  host.ask(0x7FF, {0x01, 0x00, 0x55, 0x09, 0x20, 0x03}, 0x11);  // 800 x 50 µs = 40 ms
  host.ask(0x01, command_bytes(0xFC), 0x11);
  for (int i = 0; i < 30; ++i) {  // refreshed every 5 ms: stays enabled
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0xCC}, 0x11).substr(0, 2), "11");
  }
  const TimePoint last_frame = sim_.received_frames().back().time;
  while (sim_.motor_state(0).status == dm::kEnabled && Clock::now() - last_frame < 1s) {
    std::this_thread::sleep_for(200us);
  }
  const auto silence = Clock::now() - last_frame;
  EXPECT_EQ(sim_.motor_state(0).status, dm::kCommunicationLost);
  EXPECT_GE(silence, 40ms);
  EXPECT_LT(silence, 80ms);
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0xCC}, 0x11).substr(0, 2), "D1");
}

TEST_F(SimOnSimbus, TheHostDriverStartUpSequenceFollowsAStrictScript) {
  namespace host = kestrel::damiao_motor;
  sim_.expectations().set_mode(ExpectationScript::Mode::kStrict);
  auto for_joints = [&](auto make) {
    for (uint32_t id = 1; id <= 6; ++id) {
      sim_.expect(make(id));
    }
  };
  for_joints([](uint32_t id) { return Expectation::clear_error(id); });
  for_joints([](uint32_t id) { return Expectation::write_register(id, reg::kControlMode, 2); });
  for_joints([](uint32_t id) { return Expectation::write_register(id, reg::kAcc, 6.5, 1e-6); });
  for_joints([](uint32_t id) { return Expectation::read_register(id, reg::kAcc); });
  for_joints([](uint32_t id) { return Expectation::write_register(id, reg::kTimeout, 1000); });
  for_joints([](uint32_t id) { return Expectation::enable(id); });
  for_joints([](uint32_t id) { return Expectation::refresh(id); });
  sim_.set_read_back_offset(2, reg::kAcc, 2e-4);
  sim_.set_posture({0.1, -0.2, 0.3, -0.4, 0.5, -0.6});

  canbus::CANSocket socket(kInterface, false);
  host::DMDeviceCollection arm(socket);
  std::vector<std::unique_ptr<host::Motor>> motors;
  for (uint32_t id = 1; id <= 6; ++id) {
    motors.push_back(std::make_unique<host::Motor>(
        id <= 3 ? host::MotorType::DM_V8_T28 : host::MotorType::DM_V30_T10, id, 0x10 + id));
    arm.get_device_collection().add_device(
        std::make_shared<host::DMCANDevice>(*motors.back(), 0x7FF, false));
  }
  auto drain = [&] {
    can_frame f;
    while (socket.is_data_available(20000) && socket.read_can_frame(f)) {
      arm.get_device_collection().dispatch_frame_callback(f);
    }
  };
  arm.clrErr_all();
  drain();
  arm.set_callback_mode_all(host::PARAM);
  arm.switch_all_motors_mode(2);
  arm.set_acc_all(std::vector<float>(6, 6.5f));
  arm.query_acc_all();
  drain();
  std::vector<double> acc;
  for (const host::Motor& m : arm.get_motors()) {
    acc.push_back(m.get_param(4));
  }
  arm.set_timeout_all(1000);
  arm.enable_all();
  drain();
  arm.set_callback_mode_all(host::STATE);
  arm.refresh_all();
  drain();

  EXPECT_TRUE(sim_.expectations().wait_all_met(1s));
  EXPECT_THAT(sim_.verify(), IsEmpty());
  EXPECT_THAT(acc, ElementsAre(6.5, 6.5, ::testing::DoubleNear(6.5002, 1e-6), 6.5, 6.5, 6.5));
  const std::vector<double> posture{0.1, -0.2, 0.3, -0.4, 0.5, -0.6};
  for (size_t i = 0; i < 6; ++i) {
    const host::Motor m = arm.get_motors()[i];
    EXPECT_EQ(m.get_error_code(), 1);
    EXPECT_NEAR(m.get_position(), posture[i], 25.0 / 65535.0);
    EXPECT_EQ(sim_.motor_state(i).mode, dm::kModePosVel);
  }
}

TEST_F(SimOnSimbus, KeepsAnsweringAcrossAnInterfaceGoingDownAndUp) {
  HostSocket host(kInterface, false);
  EXPECT_EQ(host.ask(0x01, command_bytes(0xFC), 0x11).substr(0, 2), "11");
  bus_.set_up(kInterface, false);
  EXPECT_FALSE(host.send(0x7FF, {0x01, 0x00, 0xCC}));
  bus_.set_up(kInterface, true);
  EXPECT_EQ(host.ask(0x7FF, {0x01, 0x00, 0xCC}, 0x11).substr(0, 2), "11");
}

TEST_F(SimOnSimbus, RepliesPromptlyWhileThePhysicsRunsAtOneKilohertz) {
  HostSocket host(kInterface, false);
  std::this_thread::sleep_for(300ms);
  std::vector<double> round_trip_us;
  for (int i = 0; i < 300; ++i) {
    const TimePoint t0 = Clock::now();
    host.send(0x7FF, {static_cast<uint8_t>(1 + i % 7), 0x00, 0xCC});
    ASSERT_TRUE(host.receive());
    round_trip_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  std::sort(round_trip_us.begin(), round_trip_us.end());
  const PhysicsStats physics = sim_.physics_stats();
  const TelemetrySnapshot t = sim_.telemetry();
  std::cout << "[ measured ] physics " << physics.rate_hz << " Hz, step " << physics.mean_step_us
            << " us, max lateness " << physics.max_lateness_us << " us; round trip median "
            << round_trip_us[150] << " us, p99 " << round_trip_us[297] << " us; in-simulator "
            << t.mean_reply_latency_us << " us (max " << t.max_reply_latency_us << ")\n";
  EXPECT_GT(physics.rate_hz, 500.0);  // 1000 nominal; a loaded sanitizer run gets less
  EXPECT_EQ(t.received_total, 300u);
  EXPECT_EQ(t.sent_total, 300u);

  EXPECT_LT(round_trip_us[150], 5000.0);
}

}  // namespace
}  // namespace kestrel::sim
