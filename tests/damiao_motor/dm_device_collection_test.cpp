// The motor group's command family as it reaches the wire: a second socket on the same
// userspace bus reads every frame the group writes.
#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>

#include "simbus/simbus_testing.hpp"
#include "support/refusal.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::damiao_motor {
namespace {

using kestrel::testing::refusal_of;

using Bytes = std::vector<uint8_t>;
using simbus::rawcan::open_can;
using simbus::rawcan::read_within;
using simbus::rawcan::stays_silent;

struct WireFrame {
  uint32_t id;
  Bytes data;
  size_t size;  // bytes read: 16 for classic, 72 for FD
  uint8_t flags;
  bool operator==(const WireFrame& o) const { return id == o.id && data == o.data; }
};

std::ostream& operator<<(std::ostream& os, const WireFrame& f) {
  os << std::hex << "0x" << f.id << " [";
  for (uint8_t b : f.data) {
    os << " " << static_cast<int>(b);
  }
  return os << " ]" << std::dec;
}

WireFrame frame(uint32_t id, Bytes data) {
  return {id, std::move(data), 0, 0};
}

// A motor group on its own socket plus a listening socket, both on a private bus.
class GroupTest : public ::testing::TestWithParam<bool> {
 protected:
  bool fd() const { return GetParam(); }

  void add_motor(MotorType type, unsigned send_id, unsigned recv_id) {
    motors.emplace_back(type, send_id, recv_id);
    group.get_device_collection().add_device(
        std::make_shared<DMCANDevice>(motors.back(), PARAM_CAN_ID, fd()));
  }

  void add_arm(int count) {
    for (int i = 1; i <= count; ++i) {
      add_motor(i <= 3 ? MotorType::DM_V8_T28 : MotorType::DM_V30_T10, i, 0x10 + i);
    }
  }

  // Every frame that arrives until the bus has been quiet for 100 ms.
  std::vector<WireFrame> drain() {
    std::vector<WireFrame> frames;
    canfd_frame raw{};
    ssize_t n;
    while ((n = read_within(listener.get(), &raw, sizeof(raw), 100)) > 0) {
      const size_t length = n == CANFD_MTU ? raw.len : reinterpret_cast<can_frame&>(raw).can_dlc;
      frames.push_back({raw.can_id, Bytes(raw.data, raw.data + length), static_cast<size_t>(n),
                        n == CANFD_MTU ? raw.flags : uint8_t{0}});
    }
    return frames;
  }

  simbus::ScopedSimbus bus{{"can0"}};
  canbus::CANSocket socket{"can0", GetParam()};
  simbus::rawcan::Fd listener = open_can("can0", true);
  DMDeviceCollection group{socket};
  std::deque<Motor> motors;  // devices refer to these; a deque never moves them
};

const Bytes kEnable = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFC};

TEST_P(GroupTest, FrameTypeFollowsTheSocket) {
  add_arm(2);
  group.enable_all();
  const auto frames = drain();
  ASSERT_EQ(frames.size(), 2u);
  for (const auto& f : frames) {
    if (fd()) {
      EXPECT_EQ(f.size, CANFD_MTU);
      EXPECT_EQ(f.data.size(), 8u);
      EXPECT_TRUE(f.flags & CANFD_BRS);
    } else {
      EXPECT_EQ(f.size, CAN_MTU);
    }
  }
  EXPECT_EQ(frames, (std::vector<WireFrame>{frame(1, kEnable), frame(2, kEnable)}));
}

TEST_P(GroupTest, DeviceOrderIsAscendingReceiveIdWhateverTheCreationOrder) {
  add_motor(MotorType::DM_V8_T28, 0x03, 0x13);
  add_motor(MotorType::DM_V8_T28, 0x01, 0x11);
  add_motor(MotorType::DM_V8_T28, 0x02, 0x12);
  group.mit_control_all({{0, 0, -12.5, 0, 0}, {0, 0, 0, 0, 0}, {0, 0, 12.5, 0, 0}});
  const auto frames = drain();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].id, 0x01u);
  EXPECT_EQ(frames[0].data[0], 0x00);  // position code 0: entry 0 went to the 0x11 motor
  EXPECT_EQ(frames[1].id, 0x02u);
  EXPECT_EQ(frames[1].data[0], 0x7F);
  EXPECT_EQ(frames[2].id, 0x03u);
  EXPECT_EQ(frames[2].data[0], 0xFF);

  const auto motors_in_order = group.get_motors();
  ASSERT_EQ(motors_in_order.size(), 3u);
  EXPECT_EQ(motors_in_order[0].get_recv_id(), 0x11u);
  EXPECT_EQ(motors_in_order[2].get_recv_id(), 0x13u);
}

TEST_P(GroupTest, OneByteCommandsAndRefreshReachEveryMotor) {
  add_arm(3);
  group.disable_all();
  group.set_zero_all();
  group.clrErr_all();
  group.refresh_all();
  group.refresh_one(1);
  auto ff = [](uint8_t last) { return Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, last}; };
  auto refresh = [](uint8_t id) { return Bytes{id, 0x00, 0xCC, 0, 0, 0, 0, 0}; };
  EXPECT_EQ(drain(),
            (std::vector<WireFrame>{frame(1, ff(0xFD)), frame(2, ff(0xFD)), frame(3, ff(0xFD)),
                                    frame(1, ff(0xFE)), frame(2, ff(0xFE)), frame(3, ff(0xFE)),
                                    frame(1, ff(0xFB)), frame(2, ff(0xFB)), frame(3, ff(0xFB)),
                                    frame(0x7FF, refresh(1)), frame(0x7FF, refresh(2)),
                                    frame(0x7FF, refresh(3)), frame(0x7FF, refresh(2))}));
}

TEST_P(GroupTest, RegisterQueriesAndWrites) {
  add_arm(2);
  group.query_acc_all();
  group.query_dec_all();
  group.query_kp_apr_all();
  group.query_param_one(1, 10);
  group.set_dec_one(0, 10.0f);
  group.set_kp_apr_one(1, -1.5f);
  group.write_param_one(0, 9, 1000u);
  group.switch_all_motors_mode(POS_VEL_MODE);
  auto query = [](uint8_t id, uint8_t rid) { return Bytes{id, 0, 0x33, rid, 0, 0, 0, 0}; };
  EXPECT_EQ(
      drain(),
      (std::vector<WireFrame>{
          frame(0x7FF, query(1, 4)), frame(0x7FF, query(2, 4)), frame(0x7FF, query(1, 5)),
          frame(0x7FF, query(2, 5)), frame(0x7FF, query(1, 27)), frame(0x7FF, query(2, 27)),
          frame(0x7FF, query(2, 10)), frame(0x7FF, {1, 0, 0x55, 5, 0x00, 0x00, 0x20, 0x41}),
          frame(0x7FF, {2, 0, 0x55, 27, 0x00, 0x00, 0xC0, 0xBF}),
          frame(0x7FF, {1, 0, 0x55, 9, 0xE8, 0x03, 0x00, 0x00}),
          frame(0x7FF, {1, 0, 0x55, 10, 2, 0, 0, 0}), frame(0x7FF, {2, 0, 0x55, 10, 2, 0, 0, 0})}));
}

TEST_P(GroupTest, VectorsShorterThanTheGroupReachTheFirstDevicesOnly) {
  add_arm(6);
  group.set_acc_all({1.0f, 2.0f, 3.0f});
  auto frames = drain();
  ASSERT_EQ(frames.size(), 3u) << "three values reach the first three motors only";
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].data[0], i + 1);
    EXPECT_EQ(frames[i].data[3], RID_ACC);
  }
  group.write_param_all(7, std::vector<unsigned>{10, 11, 12, 13, 14, 15});
  group.mit_control_all({{0, 0, 12.5, 0, 0}});
  group.pos_vel_control_all({{1.0f, 0.5f}, {-1.0f, 2.0f}});
  frames = drain();
  ASSERT_EQ(frames.size(), 6u + 1u + 2u);
  EXPECT_EQ(frames[5].data, (Bytes{6, 0, 0x55, 7, 15, 0, 0, 0}));
  EXPECT_EQ(frames[6].id, 0x01u);
  EXPECT_EQ(frames[6].data[0], 0xFF);
  EXPECT_EQ(frames[7].id, 0x101u);
  EXPECT_EQ(frames[8].id, 0x102u);
}

// Each of these would read past the device list, put a NaN on the bus as a real target, or copy
// a payload past the frame: refused by name, and no frame of the call goes out.
TEST_P(GroupTest, RefusedCommandsSendNothing) {
  add_arm(2);
  const double nan = std::nan("");
  const double inf = INFINITY;
  const float nanf = std::nanf("");
  const float inff = INFINITY;
  const std::string two = " for a group of 2 motors";
  const std::string out_of_range = " is out of range" + two;
  const struct {
    const char* name;
    std::function<void()> call;
    std::string message;
  } rows[] = {
      {"more MIT commands than motors", [&] { group.mit_control_all(std::vector<MITParam>(3)); },
       "mit_control_all: 3 commands" + two},
      {"more position-velocity commands than motors",
       [&] { group.pos_vel_control_all(std::vector<POS_VELParam>(3)); },
       "pos_vel_control_all: 3 commands" + two},
      {"more float register values than motors",
       [&] {
         group.write_param_all(4, std::vector<float>{1, 2, 3});
       },
       "write_param_all: 3 values" + two},
      {"more integer register values than motors",
       [&] {
         group.write_param_all(7, std::vector<unsigned>{1, 2, 3, 4});
       },
       "write_param_all: 4 values" + two},
      {"more accelerations than motors",
       [&] {
         group.set_acc_all({1, 2, 3});
       },
       "set_acc_all: 3 values" + two},
      {"more decelerations than motors",
       [&] {
         group.set_dec_all({1, 2, 3});
       },
       "set_dec_all: 3 values" + two},
      {"more KP_APR values than motors",
       [&] {
         group.set_kp_apr_all({1, 2, 3});
       },
       "set_kp_apr_all: 3 values" + two},
      {"MIT index past the end", [&] { group.mit_control_one(2, {}); },
       "mit_control_one: motor index 2" + out_of_range},
      {"negative position-velocity index", [&] { group.pos_vel_control_one(-1, {}); },
       "pos_vel_control_one: motor index -1" + out_of_range},
      {"MIT index past the end, encoded", [&] { group.encode_mit_one(2, {}); },
       "mit_control_one: motor index 2" + out_of_range},
      {"negative position-velocity index, encoded", [&] { group.encode_pos_vel_one(-1, {}); },
       "pos_vel_control_one: motor index -1" + out_of_range},
      {"refresh index past the end", [&] { group.refresh_one(2); },
       "refresh_one: motor index 2" + out_of_range},
      {"query index past the end", [&] { group.query_param_one(7, RID_ACC); },
       "query_param_one: motor index 7" + out_of_range},
      {"integer register index past the end", [&] { group.write_param_one(2, 9, 1u); },
       "write_param_one: motor index 2" + out_of_range},
      {"negative KP_APR index", [&] { group.set_kp_apr_one(-3, 1.0f); },
       "set_kp_apr_one: motor index -3" + out_of_range},
      {"NaN position in the second MIT command",
       [&] {
         group.mit_control_all({{}, {0, 0, nan, 0, 0}});
       },
       "mit_control_all: motor 1 q must be finite, got nan"},
      {"infinite kp",
       [&] {
         group.mit_control_one(0, {inf, 1, 0, 0, 0});
       },
       "mit_control_one: motor 0 kp must be finite, got inf"},
      {"infinite feed-forward torque",
       [&] {
         group.mit_control_one(1, {0, 0, 0, 0, -inf});
       },
       "mit_control_one: motor 1 tau must be finite, got -inf"},
      {"NaN velocity in the second position-velocity command",
       [&] {
         group.pos_vel_control_all({{}, {0.0f, nanf}});
       },
       "pos_vel_control_all: motor 1 dq must be finite, got nan"},
      {"infinite position-velocity target",
       [&] {
         group.pos_vel_control_one(0, {inff, 1.0f});
       },
       "pos_vel_control_one: motor 0 q must be finite, got inf"},
      {"NaN MIT velocity, encoded",
       [&] {
         group.encode_mit_one(1, {0, 0, 0, nan, 0});
       },
       "mit_control_one: motor 1 dq must be finite, got nan"},
      {"infinite position-velocity velocity, encoded",
       [&] {
         group.encode_pos_vel_one(0, {0.0f, -inff});
       },
       "pos_vel_control_one: motor 0 dq must be finite, got -inf"},
      {"NaN acceleration after a good one",
       [&] {
         group.set_acc_all({1.0f, nanf});
       },
       "set_acc_all: motor 1 register 4 value must be finite, got nan"},
      {"infinite float register", [&] { group.write_param_one(1, 27, inff); },
       "write_param_one: motor 1 register 27 value must be finite, got inf"},
      {"NaN deceleration", [&] { group.set_dec_one(0, nanf); },
       "set_dec_one: motor 0 register 5 value must be finite, got nan"},
      {"payload longer than any frame",
       [&] {
         group.send_command_to_device(nullptr, {0x01, Bytes(65, 0x5A)});
       },
       fd() ? "create_canfd_frame: payload of 65 bytes exceeds the 64 bytes of a CAN FD frame"
            : "create_can_frame: payload of 65 bytes exceeds the 8 bytes of a classic CAN frame"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal_of(row.call), row.message) << row.name;
  }
  EXPECT_EQ(drain(), std::vector<WireFrame>{}) << "a refused call sends nothing";
}

TEST_P(GroupTest, TimeoutReachesAtMostSevenMotors) {
  add_arm(6);
  group.set_timeout_all(1000);
  auto frames = drain();
  ASSERT_EQ(frames.size(), 6u);
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(frames[i], frame(0x7FF, {static_cast<uint8_t>(i + 1), 0, 0x55, 9, 0xE8, 0x03, 0, 0}));
  }
  add_motor(MotorType::DM_V30_T10, 7, 0x17);
  add_motor(MotorType::DM_V30_T10, 8, 0x18);
  group.set_timeout_all(1000);
  frames = drain();
  ASSERT_EQ(frames.size(), 7u) << "an eighth motor gets no time-out";
  EXPECT_EQ(frames.back().data[0], 7);
}

TEST_P(GroupTest, PositionVelocityAndCallbackModes) {
  add_arm(2);
  group.pos_vel_control_all({{1.0f, 0.5f}, {-1.0f, 2.0f}});
  EXPECT_EQ(drain(), (std::vector<WireFrame>{
                         frame(0x101, {0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0x3F}),
                         frame(0x102, {0x00, 0x00, 0x80, 0xBF, 0x00, 0x00, 0x00, 0x40})}));
  group.set_callback_mode_all(CallbackMode::PARAM);
  for (const auto& device : group.get_dm_devices()) {
    EXPECT_EQ(device->get_callback_mode(), CallbackMode::PARAM);
  }
  EXPECT_TRUE(stays_silent(listener.get(), 50)) << "changing modes sends nothing";
}

TEST_P(GroupTest, OnlyDmDevicesAreCommanded) {
  struct Foreign : canbus::CANDevice {
    Foreign() : CANDevice(0x09, 0x19, 0x7FF, false) {}
    void callback(const can_frame&) override {}
    void callback(const canfd_frame&) override {}
  };
  add_arm(1);
  group.get_device_collection().add_device(std::make_shared<Foreign>());
  EXPECT_EQ(group.get_dm_devices().size(), 1u);
  group.enable_all();
  EXPECT_EQ(drain(), (std::vector<WireFrame>{frame(1, kEnable)}));
}

TEST_P(GroupTest, DeviceFlagDoesNotChooseTheFrameType) {
  // A device built for the other frame kind still gets the socket's kind.
  motors.emplace_back(MotorType::DM_V8_T28, 0x05, 0x15);
  group.get_device_collection().add_device(
      std::make_shared<DMCANDevice>(motors.back(), PARAM_CAN_ID, !fd()));
  group.enable_all();
  const auto frames = drain();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].size, fd() ? CANFD_MTU : CAN_MTU);
}

INSTANTIATE_TEST_SUITE_P(ClassicAndFd, GroupTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Fd" : "Classic"; });

}  // namespace
}  // namespace kestrel::damiao_motor
