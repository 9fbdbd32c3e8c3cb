// The motor group's command family as it reaches the wire: a second socket on the same
// userspace bus reads every frame the group writes.
#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
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

// Frames as candump prints them: "7FF#01 00 33 04 00 00 00 00".
using Frames = std::vector<std::string>;

// The frame `pattern` once per motor 1..count, each `%` replaced by the motor's number.
Frames each(int count, const std::string& pattern) {
  Frames frames;
  for (int m = 1; m <= count; ++m) {
    std::string text = pattern;
    for (char& c : text) {
      c = c == '%' ? static_cast<char>('0' + m) : c;
    }
    frames.push_back(text);
  }
  return frames;
}

Frames operator+(Frames a, const Frames& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A motor group on its own socket plus a listening socket, both on a private bus.
class GroupTest : public ::testing::TestWithParam<bool> {
 protected:
  bool fd() const { return GetParam(); }

  // Motors with the given send ids (receive id = 0x10 + send id; 1..3 are the big joints),
  // registered in that order.
  void add_motors(const std::vector<unsigned>& send_ids) {
    for (unsigned id : send_ids) {
      motors.emplace_back(id <= 3 ? MotorType::DM_V8_T28 : MotorType::DM_V30_T10, id, 0x10 + id);
      group->get_device_collection().add_device(
          std::make_shared<DMCANDevice>(motors.back(), PARAM_CAN_ID, fd()));
    }
  }

  // Every frame that arrives until the bus has been quiet for 100 ms, each checked to be of the
  // socket's kind: 16 bytes read for classic, 72 with bit-rate switching for FD.
  Frames drain() {
    Frames frames;
    canfd_frame raw{};
    ssize_t n;
    while ((n = simbus::rawcan::read_within(listener.get(), &raw, sizeof(raw), 100)) > 0) {
      EXPECT_EQ(n, fd() ? CANFD_MTU : CAN_MTU);
      EXPECT_EQ(fd(), n == CANFD_MTU && (raw.flags & CANFD_BRS));
      const size_t length = n == CANFD_MTU ? raw.len : reinterpret_cast<can_frame&>(raw).can_dlc;
      char text[4 + 3 * CANFD_MAX_DLEN] = {};
      int at = std::snprintf(text, sizeof(text), "%03X#", raw.can_id);
      for (size_t i = 0; i < length; ++i) {
        at += std::snprintf(text + at, sizeof(text) - at, i == 0 ? "%02X" : " %02X", raw.data[i]);
      }
      frames.push_back(text);
    }
    return frames;
  }

  simbus::ScopedSimbus bus{{"can0"}};
  canbus::CANSocket socket{"can0", GetParam()};
  simbus::rawcan::Fd listener = simbus::rawcan::open_can("can0", true);
  std::deque<Motor> motors;  // devices refer to these; a deque never moves them
  std::unique_ptr<DMDeviceCollection> group = std::make_unique<DMDeviceCollection>(socket);
};

// Each row builds a fresh group. Devices are ordered by receive id whatever the creation order,
// commands with fewer values than motors reach the first motors only, and the communication
// time-out reaches at most seven motors.
TEST_P(GroupTest, CommandsReachTheWireByteExactInDeviceOrder) {
  const std::vector<MITParam> mit_1 = {{0, 0, 12.5, 0, 0}};
  const std::vector<POS_VELParam> pos_vel = {{1.0f, 0.5f}, {-1.0f, 2.0f}};
  const std::vector<float> acc = {1.0f, 2.0f, 3.0f};
  const std::vector<unsigned> one_two = {1, 2}, three = {3, 1, 2}, six = {1, 2, 3, 4, 5, 6};
  const std::vector<unsigned> eight = {1, 2, 3, 4, 5, 6, 7, 8};
  const struct {
    const char* name;
    std::vector<unsigned> send_ids;
    std::function<void(DMDeviceCollection&)> commands;
    Frames expected;
  } rows[] = {
      {"enable", one_two, [](auto& g) { g.enable_all(); }, each(2, "00%#FF FF FF FF FF FF FF FC")},
      {"one-byte commands and refreshes", three,
       [](auto& g) {
         g.disable_all();
         g.set_zero_all();
         g.clrErr_all();
         g.refresh_all();
         g.refresh_one(1);
       },
       each(3, "00%#FF FF FF FF FF FF FF FD") + each(3, "00%#FF FF FF FF FF FF FF FE") +
           each(3, "00%#FF FF FF FF FF FF FF FB") + each(3, "7FF#0% 00 CC 00 00 00 00 00") +
           Frames{"7FF#02 00 CC 00 00 00 00 00"}},
      {"register queries and writes", one_two,
       [](auto& g) {
         g.query_acc_all();
         g.query_dec_all();
         g.query_kp_apr_all();
         g.query_param_one(1, 10);
         g.set_dec_one(0, 10.0f);
         g.set_kp_apr_one(1, -1.5f);
         g.write_param_one(0, 9, 1000u);
         g.switch_all_motors_mode(POS_VEL_MODE);
       },
       each(2, "7FF#0% 00 33 04 00 00 00 00") + each(2, "7FF#0% 00 33 05 00 00 00 00") +
           each(2, "7FF#0% 00 33 1B 00 00 00 00") +
           Frames{"7FF#02 00 33 0A 00 00 00 00", "7FF#01 00 55 05 00 00 20 41",
                  "7FF#02 00 55 1B 00 00 C0 BF", "7FF#01 00 55 09 E8 03 00 00"} +
           each(2, "7FF#0% 00 55 0A 02 00 00 00")},
      {"short vectors", six,
       [&](auto& g) {
         g.set_acc_all(acc);
         g.write_param_all(7, six);  // motor m gets m
         g.mit_control_all(mit_1);
         g.pos_vel_control_all(pos_vel);
       },
       Frames{"7FF#01 00 55 04 00 00 80 3F", "7FF#02 00 55 04 00 00 00 40",
              "7FF#03 00 55 04 00 00 40 40"} +
           each(6, "7FF#0% 00 55 07 0% 00 00 00") +
           Frames{"001#FF FF 7F F0 00 00 07 FF", "101#00 00 80 3F 00 00 00 3F",
                  "102#00 00 80 BF 00 00 00 40"}},
      {"time-out for eight motors", eight, [](auto& g) { g.set_timeout_all(1000); },
       each(7, "7FF#0% 00 55 09 E8 03 00 00")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    group = std::make_unique<DMDeviceCollection>(socket);
    add_motors(row.send_ids);
    row.commands(*group);
    EXPECT_EQ(drain(), row.expected);
    const auto in_order = group->get_motors();
    for (size_t i = 0; i < in_order.size(); ++i) {
      EXPECT_EQ(in_order[i].get_recv_id(), 0x11 + i);
    }
  }
}

// Each of these would read past the device list, put a NaN on the bus as a real target, or copy
// a payload past the frame: refused by name, and no frame of the call goes out.
TEST_P(GroupTest, RefusedCommandsSendNothing) {
  add_motors({1, 2});
  const double nan = std::nan(""), inf = INFINITY;
  const float nanf = std::nanf(""), inff = INFINITY;
  const CANPacket long_payload{1, Bytes(65)};
  const std::vector<float> three = {1, 2, 3}, good_then_nan = {1.0f, nanf};
  const std::vector<MITParam> mit3(3), nan_q = {{}, {0, 0, nan, 0, 0}};
  const std::vector<POS_VELParam> pv3(3), nan_dq = {{}, {0.0f, nanf}};
  const MITParam inf_kp{inf, 1, 0, 0, 0};
  const POS_VELParam inf_dq{0.0f, -inff};
  auto many = [](const std::string& what) { return what + " for a group of 2 motors"; };
  auto index = [](const std::string& op, int i) {
    return op + ": motor index " + std::to_string(i) + " is out of range for a group of 2 motors";
  };
  auto& g = *group;
  const struct {
    const char* name;
    std::function<void()> call;
    std::string message;
  } rows[] = {
      {"MIT commands", [&] { g.mit_control_all(mit3); }, many("mit_control_all: 3 commands")},
      {"pos-vel commands", [&] { g.pos_vel_control_all(pv3); },
       many("pos_vel_control_all: 3 commands")},
      {"float registers", [&] { g.write_param_all(4, three); }, many("write_param_all: 3 values")},
      {"accelerations", [&] { g.set_acc_all(three); }, many("set_acc_all: 3 values")},
      {"MIT index", [&] { g.mit_control_one(2, {}); }, index("mit_control_one", 2)},
      {"pos-vel index", [&] { g.pos_vel_control_one(-1, {}); }, index("pos_vel_control_one", -1)},
      {"refresh index", [&] { g.refresh_one(2); }, index("refresh_one", 2)},
      {"query index", [&] { g.query_param_one(7, RID_ACC); }, index("query_param_one", 7)},
      {"register index", [&] { g.write_param_one(2, 9, 1u); }, index("write_param_one", 2)},
      {"NaN q, second MIT command", [&] { g.mit_control_all(nan_q); },
       "mit_control_all: motor 1 q must be finite, got nan"},
      {"infinite kp", [&] { g.mit_control_one(0, inf_kp); },
       "mit_control_one: motor 0 kp must be finite, got inf"},
      {"NaN dq, second position-velocity command", [&] { g.pos_vel_control_all(nan_dq); },
       "pos_vel_control_all: motor 1 dq must be finite, got nan"},
      {"-inf position-velocity velocity, encoded", [&] { g.encode_pos_vel_one(0, inf_dq); },
       "pos_vel_control_one: motor 0 dq must be finite, got -inf"},
      {"NaN acceleration after a good one", [&] { g.set_acc_all(good_then_nan); },
       "set_acc_all: motor 1 register 4 value must be finite, got nan"},
      {"infinite float register", [&] { g.write_param_one(1, 27, inff); },
       "write_param_one: motor 1 register 27 value must be finite, got inf"},
      {"payload longer than any frame", [&] { g.send_command_to_device(nullptr, long_payload); },
       fd() ? "create_canfd_frame: payload of 65 bytes exceeds the 64 bytes of a CAN FD frame"
            : "create_can_frame: payload of 65 bytes exceeds the 8 bytes of a classic CAN frame"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal_of(row.call), row.message) << row.name;
  }
  EXPECT_EQ(drain(), Frames{}) << "a refused call sends nothing";
}

// A device of another kind is not commanded, and a device built for the other frame kind still
// gets the socket's kind (drain checks it). Changing the callback mode sends nothing.
TEST_P(GroupTest, OnlyDmDevicesAreCommandedInTheSocketsFrameKind) {
  struct Foreign : canbus::CANDevice {
    Foreign() : CANDevice(0x09, 0x19, 0x7FF, false) {}
    void callback(const can_frame&) override {}
    void callback(const canfd_frame&) override {}
  };
  motors.emplace_back(MotorType::DM_V8_T28, 0x05, 0x15);
  group->get_device_collection().add_device(
      std::make_shared<DMCANDevice>(motors.back(), PARAM_CAN_ID, !fd()));
  group->get_device_collection().add_device(std::make_shared<Foreign>());
  EXPECT_EQ(group->get_dm_devices().size(), 1u);
  group->enable_all();
  EXPECT_EQ(drain(), Frames{"005#FF FF FF FF FF FF FF FC"});
  group->set_callback_mode_all(CallbackMode::PARAM);
  EXPECT_TRUE(simbus::rawcan::stays_silent(listener.get(), 50)) << "changing modes sends nothing";
}

INSTANTIATE_TEST_SUITE_P(ClassicAndFd, GroupTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Fd" : "Classic"; });

}  // namespace
}  // namespace kestrel::damiao_motor
