// Controller construction and start-up against the simulated arm: the frames of the start-up
// sequence in order, the register write and read-back of position-velocity mode, the joint-2
// start check, skip_hardware_init, and shutdown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "controller/controller_fixture.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::testing::capture_stderr;
using kestrel::testing::capture_stdout;
using kestrel::testing::eventually;
using kestrel::testing::SimulatedArm;
using Payload = std::vector<uint8_t>;
using WireFrame = std::pair<uint32_t, Payload>;

Payload one_byte(uint8_t cmd) {
  return {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, cmd};
}

Payload param(uint8_t id, uint8_t command, uint8_t rid, uint32_t value = 0) {
  return {id,
          0,
          command,
          rid,
          static_cast<uint8_t>(value & 0xFF),
          static_cast<uint8_t>((value >> 8) & 0xFF),
          static_cast<uint8_t>((value >> 16) & 0xFF),
          static_cast<uint8_t>(value >> 24)};
}

uint32_t bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}

void add_all(std::vector<WireFrame>& out, std::initializer_list<uint8_t> ids,
             const std::function<WireFrame(uint8_t)>& make) {
  for (uint8_t id : ids) {
    out.push_back(make(id));
  }
}

const std::initializer_list<uint8_t> kArm = {1, 2, 3, 4, 5, 6};
const std::initializer_list<uint8_t> kAll = {1, 2, 3, 4, 5, 6, 7};

// The frames every start-up begins and ends with, around the mode-specific part.
std::vector<WireFrame> startup_frames(ControlMode mode) {
  std::vector<WireFrame> f;
  f.push_back({0x007, one_byte(0xFB)});         // gripper: clear error
  f.push_back({0x7FF, param(7, 0x55, 10, 1)});  // gripper: always MIT
  add_all(f, kAll, [](uint8_t id) { return WireFrame{0x7FF, param(id, 0x55, 9, 0)}; });
  add_all(f, kArm, [](uint8_t id) { return WireFrame{id, one_byte(0xFB)}; });
  if (mode == MIT_MODE) {
    add_all(f, kArm, [](uint8_t id) { return WireFrame{0x7FF, param(id, 0x55, 10, 1)}; });
  } else {
    const auto c = kestrel::controller::load_pos_vel_mode_config();
    add_all(f, kArm, [](uint8_t id) { return WireFrame{0x7FF, param(id, 0x55, 10, 2)}; });
    auto queries = [&] {
      for (uint8_t rid : {4, 5, 27}) {
        add_all(f, kArm, [rid](uint8_t id) { return WireFrame{0x7FF, param(id, 0x33, rid)}; });
      }
    };
    queries();
    const std::pair<uint8_t, const kestrel::controller::JointArray*> writes[] = {
        {4, &c.max_acc_limits}, {5, &c.max_dec_limits}, {27, &c.kp_apr_limits}};
    for (const auto& [rid, values] : writes) {
      for (uint8_t id : kArm) {
        f.push_back({0x7FF, param(id, 0x55, rid, bits(static_cast<float>((*values)[id - 1])))});
      }
    }
    queries();
  }
  add_all(f, kAll, [](uint8_t id) { return WireFrame{0x7FF, param(id, 0x55, 9, 1000)}; });
  add_all(f, kAll, [](uint8_t id) { return WireFrame{id, one_byte(0xFC)}; });
  add_all(f, kArm, [](uint8_t id) { return WireFrame{0x7FF, param(id, 0xCC, 0)}; });
  return f;
}

std::vector<WireFrame> received(kestrel::sim::SimulatedMotorBus& motors, size_t count) {
  std::vector<WireFrame> out;
  for (const auto& e : motors.received_frames()) {
    if (out.size() == count) {
      break;
    }
    const auto payload = e.frame.payload();
    out.push_back({e.frame.id, Payload(payload.begin(), payload.end())});
  }
  return out;
}

// The text as a POSIX extended regular expression that matches exactly it.
std::string escape_regex(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::strchr(".^$|()[]{}*+?\\", c) != nullptr) {
      out += '\\';
    }
    out += c;
  }
  return out;
}

class StartupSequence : public ::testing::TestWithParam<std::tuple<ControlMode, bool>> {};

TEST_P(StartupSequence, FramesGoOutInOrderAndTheLoopTakesOver) {
  const auto [mode, fd] = GetParam();
  SimulatedArm sim(fd);
  const auto expected = startup_frames(mode);
  std::string out;
  capture_stderr([&] {
    out = capture_stdout([&] {
      ArmController arm(true, "can0", fd, mode, false);
      ASSERT_TRUE(eventually([&] { return arm.get_joint().size() == 6; }, 2s));
      EXPECT_TRUE(arm.running());
      // The loop's frames follow start-up: the first gripper command is a close, joints held.
      EXPECT_TRUE(eventually(
          [&] { return sim.motors().received_frames().size() > expected.size() + 20; }, 2s));
    });
  });
  EXPECT_EQ(received(sim.motors(), expected.size()), expected);
  EXPECT_THAT(out, ::testing::HasSubstr("\n=== Enabling Motors ===\n"));
  EXPECT_THAT(out, ::testing::HasSubstr("\n=== Enabling Motors Timeout Protection ===\n"));
  EXPECT_TRUE(motors_end_disabled(sim));
  if (mode == POS_VEL_MODE) {
    const auto c = kestrel::controller::load_pos_vel_mode_config();
    std::ostringstream acc;
    acc << std::fixed << std::setprecision(3) << "max_acc_limits: [";
    for (size_t j = 0; j < 6; ++j) {
      acc << (j ? ", " : "") << c.max_acc_limits[j];
    }
    acc << "]\n";
    EXPECT_THAT(out, ::testing::HasSubstr(acc.str()));
    EXPECT_THAT(out, ::testing::HasSubstr("Verified ACC: ["));
    EXPECT_THAT(out, ::testing::HasSubstr("Initial KP_APR: ["));
    for (size_t j = 0; j < 6; ++j) {
      EXPECT_EQ(sim.motors().motor_state(j).mode, 2u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, StartupSequence,
                         ::testing::Combine(::testing::Values(MIT_MODE, POS_VEL_MODE),
                                            ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param) == MIT_MODE ? "Mit"
                                                                                  : "PosVel") +
                                  (std::get<1>(info.param) ? "Fd" : "Classic");
                         });

class StartupDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(StartupDeathTest, ReadBackOffByTwoTenThousandthsEndsTheProcess) {
  SimulatedArm sim;
  sim.motors().set_read_back_offset(2, 4, 2e-4);  // joint 3's ACC
  const float acc =
      static_cast<float>(kestrel::controller::load_pos_vel_mode_config().max_acc_limits[2]);
  std::ostringstream line;
  line << "ACC verification failed at joint 3: expected " << acc << ", got "
       << static_cast<double>(static_cast<float>(acc + 2e-4f));
  EXPECT_EXIT(ArmController(true, "can0", false, POS_VEL_MODE, false), ::testing::ExitedWithCode(1),
              escape_regex(line.str()));
}

TEST_F(StartupDeathTest, SilentMotorFailsVerification) {
  SimulatedArm sim;
  sim.motors().set_silent(4, true);
  const float acc =
      static_cast<float>(kestrel::controller::load_pos_vel_mode_config().max_acc_limits[4]);
  std::ostringstream line;
  line << "ACC verification failed at joint 5: expected " << acc << ", got -1";
  EXPECT_EXIT(ArmController(true, "can0", false, POS_VEL_MODE, false), ::testing::ExitedWithCode(1),
              escape_regex(line.str()));
}

TEST(Startup, ReadBackWithinTolerancePasses) {
  SimulatedArm sim;
  for (size_t j = 0; j < 6; ++j) {
    sim.motors().set_read_back_offset(j, 4, 5e-5);
    sim.motors().set_read_back_offset(j, 27, -5e-5);
  }
  capture_stdout([&] {
    capture_stderr([&] {
      ArmController arm(true, "can0", false, POS_VEL_MODE, false);
      EXPECT_TRUE(arm.running());
    });
  });
}

// Feedback quantises positions to 25/65535 rad, so the postures sit on either side of -1.57 by
// less than one step: -1.570343 is the closest report below the threshold, -1.569961 above it.
// Joint 2's motor sign is -1 in the shipped configuration, so the motor reports the opposite.
constexpr double kJustBelow = 1.5704;  // motor angle reporting joint 2 = -1.570343
constexpr double kJustAbove = 1.5699;  // motor angle reporting joint 2 = -1.569961

TEST_F(StartupDeathTest, JointTwoJustBelowThresholdIsRejected) {
  SimulatedArm sim(false, {0.0, kJustBelow, 0.0, 0.0, 0.0, 0.0, 0.0});
  EXPECT_EXIT(ArmController(true, "can0", false, MIT_MODE, false), ::testing::ExitedWithCode(1),
              escape_regex("[ArmController] Startup rejected: joint2=-1.57034 rad is below the "
                           "safety threshold -1.57 rad."));
}

TEST(Startup, JointTwoJustAboveThresholdStartsAndTheSignIsApplied) {
  for (double motor_angle : {kJustAbove, -kJustBelow}) {
    SimulatedArm sim(false, {0.0, motor_angle, 0.0, 0.0, 0.0, 0.0, 0.0});
    capture_stdout([&] {
      capture_stderr([&] {
        ArmController arm(true, "can0", false, MIT_MODE, false);
        ASSERT_TRUE(eventually([&] { return arm.get_joint().size() == 6; }, 2s));
        EXPECT_NEAR(arm.get_joint()[1], -motor_angle, 1e-3);
      });
    });
  }
}

TEST(Startup, SkipHardwareInitTouchesNoMotorAndStartsNoThread) {
  SimulatedArm sim;
  capture_stdout([&] {
    ArmController arm(true, "can0", false, MIT_MODE, true);
    EXPECT_FALSE(arm.running());
    EXPECT_TRUE(arm.get_joint().empty());
    arm.set_joint({0, 0, 0, 0, 0, 0}, 1.0);  // accepted, but nothing executes it
    std::this_thread::sleep_for(50ms);
    arm.cleanup();
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(sim.motors().received_frames().empty());
}

TEST(Shutdown, CleanupDisablesTheMotorsOnce) {
  SimulatedArm sim;
  capture_stdout([&] {
    capture_stderr([&] {
      auto arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, false);
      ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 2s));
      arm->cleanup();
      EXPECT_FALSE(arm->running());
      arm->cleanup();
      arm.reset();
    });
  });
  std::this_thread::sleep_for(50ms);
  for (uint32_t id = 1; id <= 7; ++id) {
    EXPECT_EQ(sim.count_received(id, 0xFD), 1u) << "disable frames for motor " << id;
  }
}

// Refused before a single frame goes out: what() exactly, and the hub received nothing.
TEST(Startup, InterfaceRefusalsThrowTheSocketErrorBeforeSending) {
  const struct {
    const char* interface;
    bool fd;
    int mtu;
    std::string what;
  } rows[] = {
      {"can7", false, CANFD_MTU, "Socket error: Failed to initialize socket for interface: can7"},
      {"can0", true, CAN_MTU,
       "Socket error: CAN interface 'can0' is not CAN FD capable (MTU 16): use classic CAN, or "
       "enable CAN FD with: sudo ip link set can0 down && sudo ip link set can0 up type can "
       "bitrate 1000000 dbitrate 5000000 fd on (a vcan: sudo ip link set can0 mtu 72)"},
  };
  for (const auto& row : rows) {
    kestrel::simbus::ScopedSimbus bus({"can0"});
    bus.set_up("can0", false);
    bus.set_mtu("can0", row.mtu);
    bus.set_up("can0", true);
    std::string what = "no exception";
    try {
      ArmController arm(true, row.interface, row.fd, MIT_MODE, false);
    } catch (const kestrel::canbus::CANSocketException& e) {
      what = e.what();
    }
    EXPECT_EQ(what, row.what);
    EXPECT_EQ(bus.statistics("can0").frames_received, 0u) << row.what;
  }
}

TEST(Startup, UnsupportedControlModeIsRejected) {
  SimulatedArm sim;
  capture_stdout([&] {
    try {
      ArmController arm(true, "can0", false, static_cast<ControlMode>(3), false);
      FAIL() << "mode 3 accepted";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "ArmController only supports MIT_MODE or POS_VEL_MODE.");
    }
  });
  EXPECT_TRUE(sim.motors().received_frames().empty());
}

}  // namespace
