// Controller construction and start-up against the simulated arm: the frames of the start-up
// sequence in order, the register write and read-back of position-velocity mode, the joint-2
// start check, skip_hardware_init, and shutdown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "controller/controller_fixture.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::testing::capture_stderr;
using kestrel::testing::capture_stdout;
using kestrel::testing::eventually;
using kestrel::testing::refusal_of;
using kestrel::testing::SimulatedArm;
using Payload = std::vector<uint8_t>;
using WireFrame = std::pair<uint32_t, Payload>;

// The shipped position-velocity registers: ACC (4), DEC (5) and KP_APR (27).
const std::pair<uint8_t, std::array<float, 6>> kRegisters[] = {
    {4, {8, 8, 10, 20, 20, 20}}, {5, {-8, -8, -10, -20, -20, -20}}, {27, {40, 40, 40, 30, 30, 30}}};

Payload one_byte(uint8_t cmd) {
  return {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, cmd};
}

// A parameter frame (to 0x7FF) for motor `id`: command 0x55 writes, 0x33 reads, 0xCC saves.
WireFrame param(uint8_t id, uint8_t command, uint8_t rid, uint32_t value = 0) {
  return {0x7FF,
          {id, 0, command, rid, static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
           static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)}};
}

// The start-up frames in order: `make` once for each motor from 1 to `last`, step after step.
std::vector<WireFrame> startup_frames(ControlMode mode) {
  std::vector<WireFrame> f = {{0x007, one_byte(0xFB)},  // gripper: clear error, always MIT
                              param(7, 0x55, 10, 1)};
  const auto each = [&](uint8_t last, const std::function<WireFrame(uint8_t)>& make) {
    for (uint8_t id = 1; id <= last; ++id) {
      f.push_back(make(id));
    }
  };
  each(7, [](uint8_t id) { return param(id, 0x55, 9, 0); });
  each(6, [](uint8_t id) { return WireFrame{id, one_byte(0xFB)}; });
  each(6, [mode](uint8_t id) { return param(id, 0x55, 10, mode == MIT_MODE ? 1 : 2); });
  if (mode == POS_VEL_MODE) {
    for (int pass = 0; pass < 3; ++pass) {  // read, write, read back
      for (const auto& [rid, values] : kRegisters) {
        each(6, [&, rid = rid, values = values](uint8_t id) {
          uint32_t bits;
          std::memcpy(&bits, &values[id - 1], 4);
          return pass == 1 ? param(id, 0x55, rid, bits) : param(id, 0x33, rid);
        });
      }
    }
  }
  each(7, [](uint8_t id) { return param(id, 0x55, 9, 1000); });
  each(7, [](uint8_t id) { return WireFrame{id, one_byte(0xFC)}; });
  each(6, [](uint8_t id) { return param(id, 0xCC, 0); });
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

// Position-velocity mode starts with every read-back a little off, within the tolerance. Cleanup
// disables each motor once, however often it is called.
class StartupSequence : public ::testing::TestWithParam<std::tuple<ControlMode, bool>> {};

TEST_P(StartupSequence, FramesGoOutInOrderTheLoopTakesOverAndCleanupDisablesOnce) {
  const auto [mode, fd] = GetParam();
  SimulatedArm sim(fd);
  for (size_t j = 0; j < 6 && mode == POS_VEL_MODE; ++j) {
    sim.motors().set_read_back_offset(j, 4, 5e-5);
    sim.motors().set_read_back_offset(j, 27, -5e-5);
  }
  const auto expected = startup_frames(mode);
  std::string out;
  capture_stderr([&] {
    out = capture_stdout([&] {
      auto arm = std::make_unique<ArmController>(true, "can0", fd, mode, false);
      ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 2s));
      EXPECT_TRUE(arm->running());
      // The loop's frames follow start-up: the first gripper command is a close, joints held.
      EXPECT_TRUE(eventually(
          [&] { return sim.motors().received_frames().size() > expected.size() + 20; }, 2s));
      arm->cleanup();
      EXPECT_FALSE(arm->running());
      arm->cleanup();
      arm.reset();
    });
  });
  EXPECT_EQ(received(sim.motors(), expected.size()), expected);
  EXPECT_THAT(out, ::testing::HasSubstr("\n=== Enabling Motors ===\n"));
  EXPECT_THAT(out, ::testing::HasSubstr("\n=== Enabling Motors Timeout Protection ===\n"));
  EXPECT_TRUE(motors_end_disabled(sim));
  for (uint32_t id = 1; id <= 7; ++id) {
    EXPECT_EQ(sim.count_received(id, 0xFD), 1u) << "disable frames for motor " << id;
  }
  if (mode == POS_VEL_MODE) {
    EXPECT_THAT(out, ::testing::HasSubstr(
                         "max_acc_limits: [8.000, 8.000, 10.000, 20.000, 20.000, 20.000]\n"));
    EXPECT_THAT(out, ::testing::HasSubstr("Verified ACC: ["));
    EXPECT_THAT(out, ::testing::HasSubstr("Initial KP_APR: ["));
  }
}

// CAN FD changes only the framing, the same for either mode.
INSTANTIATE_TEST_SUITE_P(Modes, StartupSequence,
                         ::testing::Values(std::make_tuple(MIT_MODE, false),
                                           std::make_tuple(MIT_MODE, true),
                                           std::make_tuple(POS_VEL_MODE, false)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param) == MIT_MODE ? "Mit"
                                                                                  : "PosVel") +
                                  (std::get<1>(info.param) ? "Fd" : "Classic");
                         });

// Feedback quantises positions to 25/65535 rad, so the postures sit on either side of -1.57 by
// less than one step: -1.570343 is the closest report below the threshold, -1.569961 above it.
// Joint 2's motor sign is -1 in the shipped configuration, so the motor reports the opposite.
constexpr double kJustBelow = 1.5704;  // motor angle reporting joint 2 = -1.570343
constexpr double kJustAbove = 1.5699;  // motor angle reporting joint 2 = -1.569961

// Each row ends the process with status 1 after its exact line, before the loop starts.
TEST(StartupDeathTest, FailedChecksEndTheProcessWithTheirLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    const char* name;
    std::function<void(SimulatedArm&)> fault;
    std::vector<double> posture;
    ControlMode mode;
    std::string line;
  } rows[] = {
      {"read-back off by two ten-thousandths",
       [](SimulatedArm& sim) { sim.motors().set_read_back_offset(2, 4, 2e-4); },  // joint 3's ACC
       {},
       POS_VEL_MODE,
       "ACC verification failed at joint 3: expected 10, got 10.0002"},
      {"silent motor",
       [](SimulatedArm& sim) { sim.motors().set_silent(4, true); },
       {},
       POS_VEL_MODE,
       "ACC verification failed at joint 5: expected 20, got -1"},
      {"joint 2 just below the threshold",
       [](SimulatedArm&) {},
       {0.0, kJustBelow, 0.0, 0.0, 0.0, 0.0, 0.0},
       MIT_MODE,
       "[ArmController] Startup rejected: joint2=-1.57034 rad is below the safety threshold "
       "-1.57 rad."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SimulatedArm sim(false, row.posture);
    row.fault(sim);
    EXPECT_EXIT(ArmController(true, "can0", false, row.mode, false), ::testing::ExitedWithCode(1),
                ::testing::HasSubstr(row.line));
  }
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

// Neither skip_hardware_init nor a refused mode sends a frame; skip_hardware_init starts no thread
// and takes commands that nothing executes.
TEST(Startup, SkipHardwareInitAndARefusedModeTouchNoMotor) {
  SimulatedArm sim;
  capture_stdout([&] {
    EXPECT_EQ(
        refusal_of([] { ArmController(true, "can0", false, static_cast<ControlMode>(3), false); }),
        "ArmController only supports MIT_MODE or POS_VEL_MODE.");
    ArmController arm(true, "can0", false, MIT_MODE, true);
    EXPECT_FALSE(arm.running());
    EXPECT_TRUE(arm.get_joint().empty());
    arm.set_joint({0, 0, 0, 0, 0, 0}, 1.0);
    std::this_thread::sleep_for(50ms);
    arm.cleanup();
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(sim.motors().received_frames().empty());
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
    EXPECT_EQ(refusal_of<kestrel::canbus::CANSocketException>(
                  [&] { ArmController(true, row.interface, row.fd, MIT_MODE, false); }),
              row.what);
    EXPECT_EQ(bus.statistics("can0").frames_received, 0u) << row.what;
  }
}

}  // namespace
