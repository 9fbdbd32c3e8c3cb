// The Kestrel facade and its two motor groups against simulated motors on the userspace bus.
#include "kestrel/arm/kestrel.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>

#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/allocation_counter.hpp"
#include "support/refusal.hpp"
#include "support/simbus_can.hpp"
#include "support/stderr_capture.hpp"

namespace kestrel::can::socket {
namespace {

using kestrel::testing::refusal_of;

namespace dm = damiao_motor;
using namespace std::chrono_literals;
using kestrel::testing::capture_stderr;
using Clock = std::chrono::steady_clock;
using T = dm::MotorType;
using Bytes = std::vector<uint8_t>;

const std::vector<T> kArmTypes = {T::DM_V8_T28,  T::DM_V8_T28,  T::DM_V8_T28,
                                  T::DM_V30_T10, T::DM_V30_T10, T::DM_V30_T10};
const std::vector<unsigned> kArmIds = {1, 2, 3, 4, 5, 6};
const std::vector<unsigned> kArmFeedbackIds = {0x11, 0x12, 0x13, 0x14, 0x15, 0x16};

// Received frames of the simulator's log as (identifier, first byte / command) in order.
std::vector<uint32_t> received_ids(const sim::SimulatedMotorBus& motors) {
  std::vector<uint32_t> ids;
  for (const auto& entry : motors.received_frames()) {
    ids.push_back(entry.frame.id);
  }
  return ids;
}

class FacadeTest : public ::testing::TestWithParam<bool> {
 protected:
  FacadeTest() {
    sim::BusOptions options;
    options.interface = "can0";
    options.fd = GetParam();
    motors = std::make_unique<sim::SimulatedMotorBus>(sim::arm_motor_configs(), options);
    motors->set_posture({0.1, -0.2, 0.3, -0.4, 0.5, -0.6, -0.3});
    motors->start();
  }

  // Waits until the simulator has received `frames` frames since the last clear, then takes in
  // the replies. Waiting on the frames (not on a quiet gap) keeps the tests exact under load.
  void settle(size_t frames) {
    ASSERT_TRUE(motors->wait_for_received(frames, 5s)) << "simulated motors heard too little";
    arm.recv_all(20000);
  }

  void init_all() {
    arm.init_arm_motors(kArmTypes, kArmIds, kArmFeedbackIds);
    arm.init_gripper_motor(T::DM_V30_T10, 7, 0x17);
  }

  simbus::ScopedSimbus bus{{"can0"}};
  std::unique_ptr<sim::SimulatedMotorBus> motors;
  Kestrel arm{"can0", GetParam()};
};

TEST_P(FacadeTest, ForwardsToArmThenGripperAndNothingBeforeInit) {
  arm.enable_all();  // no motor exists yet
  arm.recv_all(2000);
  EXPECT_TRUE(motors->received_frames().empty());

  init_all();
  capture_stderr([&] {
    arm.enable_all();
    settle(7);
  });
  EXPECT_EQ(received_ids(*motors), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7}));
  for (size_t i = 0; i < 7; ++i) {
    EXPECT_TRUE(motors->motor_state(i).enabled) << i;
  }
}

TEST_P(FacadeTest, RecvAllDispatchesFeedbackAndReplyToTheRightMotor) {
  init_all();
  capture_stderr([&] {
    arm.refresh_all();
    settle(7);
  });
  const auto joints = arm.get_arm().get_motors();
  ASSERT_EQ(joints.size(), 6u);
  const double posture[6] = {0.1, -0.2, 0.3, -0.4, 0.5, -0.6};
  for (int i = 0; i < 6; ++i) {
    EXPECT_NEAR(joints[i].get_position(), posture[i], 25.0 / 65535.0) << i;
  }
  EXPECT_NEAR(arm.get_gripper().get_motor()->get_position(), -0.3, 25.0 / 65535.0);

  // Register replies land in the motor that was asked, through the bus-wide registry.
  motors->set_register(4, 4, 7.25);  // joint 5's ACC
  arm.set_callback_mode_all(dm::CallbackMode::PARAM);
  motors->clear_frame_log();
  arm.query_acc_all();
  settle(7);
  arm.set_callback_mode_all(dm::CallbackMode::STATE);
  EXPECT_EQ(arm.get_arm().get_motors()[4].get_param(4), 7.25);
  EXPECT_GT(arm.get_arm().get_motors()[3].get_param(4), 0.0);
  EXPECT_NE(arm.get_arm().get_motors()[3].get_param(4), 7.25);
  EXPECT_GT(arm.get_gripper().get_motor()->get_param(4), 0.0);
}

TEST_P(FacadeTest, AReplacedGripperMotorLeavesTheFacadeWithItsDevice) {
  init_all();
  // The new motor listens on 0x18; the old device (0x17) must not stay registered with a motor
  // that no longer exists, nor the gripper group twice.
  arm.init_gripper_motor(T::DM_V30_T10, 7, 0x18);
  capture_stderr([&] {
    arm.enable_all();
    settle(7);
  });
  EXPECT_EQ(received_ids(*motors), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7}));
  motors->clear_frame_log();
  capture_stderr([&] {
    arm.refresh_all();  // motor 7 answers on 0x17: nobody's feedback any more
    settle(7);
  });
  EXPECT_EQ(arm.get_gripper().get_motor()->get_position(), 0.0);
}

TEST_P(FacadeTest, RecvAllOnAQuietBusReturnsAfterItsTimeout) {
  init_all();
  for (int timeout_us : {2000, 20000}) {
    const auto t0 = Clock::now();
    arm.recv_all(timeout_us);
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0);
    EXPECT_GE(us.count(), timeout_us);
    EXPECT_LT(us.count(), timeout_us + 15000) << "returns soon after a quiet timeout";
  }
}

TEST_P(FacadeTest, ValueVectorsArePairedPerGroupFromIndexZero) {
  init_all();
  const std::vector<float> acc = {1.5f, 2.5f, 3.5f, 4.5f, 5.5f, 6.5f};
  capture_stderr([&] {
    arm.set_acc_all(acc);
    arm.set_timeout_all(1000);
    arm.switch_all_motors_mode(dm::POS_VEL_MODE);
    settle(7 + 7 + 7);
  });
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(motors->motor_state(i).registers.value(4), acc[i]) << i;
    EXPECT_EQ(motors->motor_state(i).mode, 2u);
  }
  // The gripper group takes element 0 of the arm-sized vector.
  EXPECT_EQ(motors->motor_state(6).registers.value(4), acc[0]);
  EXPECT_EQ(motors->motor_state(6).registers.value(9), 1000.0);
}

TEST_P(FacadeTest, RegisteringAGroupTwiceDoublesEveryForwardedCommand) {
  init_all();
  arm.register_dm_device_collection(arm.get_gripper());
  capture_stderr([&] {
    arm.disable_all();
    settle(8);
  });
  EXPECT_EQ(received_ids(*motors), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7, 7}));
}

TEST_P(FacadeTest, GripperCommandsBeforeAndAfterInit) {
  auto& gripper = arm.get_gripper();
  EXPECT_EQ(capture_stderr([&] {
              gripper.open(8.0, 0.1);
              gripper.close(8.0, 0.1);
              gripper.set_position(0.5, 8.0, 0.1);
              gripper.set_distance(0.2, 8.0, 0.1);  // out of range, but no device: silent
              gripper.set_tau(0.1);
            }),
            "");
  EXPECT_TRUE(motors->received_frames().empty());
  EXPECT_EQ(refusal_of<std::logic_error>([&] { gripper.encode_distance(0.04, 8.0, 0.1); }),
            "GripperComponent::encode_distance: the gripper has no motor");
  EXPECT_EQ(refusal_of<std::logic_error>([&] { gripper.encode_tau(0.1); }),
            "GripperComponent::encode_tau: the gripper has no motor");

  arm.init_gripper_motor(T::DM_V30_T10, 7, 0x17);
  struct Case {
    std::function<void()> command;
    double q;
    double kp;
    double tau;
  };
  const Case cases[] = {
      {[&] { gripper.open(8.0, 0.1); }, -1.235463, 8.0, 0.0},
      {[&] { gripper.close(8.0, 0.1); }, 0.0, 8.0, 0.0},
      {[&] { gripper.set_position(0.5, 8.0, 0.1); }, -0.6177315, 8.0, 0.0},
      {[&] { gripper.set_distance(0.085, 12.0, 0.2); }, -1.235598154197257, 12.0, 0.0},
      {[&] { gripper.set_tau(0.75); }, 0.0, 0.0, 0.75},
  };
  for (const auto& c : cases) {
    motors->clear_frame_log();
    c.command();
    ASSERT_TRUE(motors->wait_for_received(1, 1s));
    const auto state = motors->motor_state(6);
    ASSERT_TRUE(state.last_mit.has_value());
    EXPECT_NEAR(state.last_mit->q, c.q, 25.0 / 65535.0);
    EXPECT_NEAR(state.last_mit->kp, c.kp, 500.0 / 4095.0);
    EXPECT_NEAR(state.last_mit->tau, c.tau, 20.0 / 4095.0);
    EXPECT_NEAR(state.last_mit->dq, 0.0, 60.0 / 4095.0);
  }
  arm.recv_all(2000);
}

TEST_P(FacadeTest, OutOfRangeDistanceStillCommandsMinusOneRadian) {
  arm.init_gripper_motor(T::DM_V30_T10, 7, 0x17);
  for (double d : {0.0851, -0.001}) {
    motors->clear_frame_log();
    EXPECT_EQ(capture_stderr([&] { arm.get_gripper().set_distance(d, 8.0, 0.1); }),
              "Error: Distance out of range! Must be between 0 and 0.085 meters.\n");
    ASSERT_TRUE(motors->wait_for_received(1, 1s));
    EXPECT_NEAR(motors->motor_state(6).last_mit->q, -1.0, 25.0 / 65535.0);
  }
}

// A NaN would reach the motor as the bottom of the position range (-12.5 rad), an infinity as one
// end: refused by name, before the motor exists and after, with nothing printed or sent.
TEST_P(FacadeTest, NonFiniteGripperArgumentsAreRefused) {
  auto& gripper = arm.get_gripper();
  const double nan = std::nan("");
  const double inf = INFINITY;
  const struct {
    const char* name;
    std::function<void()> call;
    const char* message;
  } rows[] = {
      {"NaN opening", [&] { gripper.set_distance(nan, 8.0, 0.1); },
       "GripperComponent::set_distance: distance must be finite, got nan"},
      {"infinite opening", [&] { gripper.set_distance(inf, 8.0, 0.1); },
       "GripperComponent::set_distance: distance must be finite, got inf"},
      {"NaN kd with an opening", [&] { gripper.set_distance(0.05, 8.0, nan); },
       "GripperComponent::set_distance: kd must be finite, got nan"},
      {"NaN position", [&] { gripper.set_position(nan, 8.0, 0.1); },
       "GripperComponent::set_position: position must be finite, got nan"},
      {"-inf position", [&] { gripper.set_position(-inf, 8.0, 0.1); },
       "GripperComponent::set_position: position must be finite, got -inf"},
      {"infinite kp with a position", [&] { gripper.set_position(0.5, inf, 0.1); },
       "GripperComponent::set_position: kp must be finite, got inf"},
      {"NaN kp opening", [&] { gripper.open(nan, 0.1); },
       "GripperComponent::open: kp must be finite, got nan"},
      {"infinite kd closing", [&] { gripper.close(8.0, inf); },
       "GripperComponent::close: kd must be finite, got inf"},
      {"NaN torque", [&] { gripper.set_tau(nan); },
       "GripperComponent::set_tau: tau must be finite, got nan"},
      {"infinite opening, encoded", [&] { gripper.encode_distance(inf, 8.0, 0.1); },
       "GripperComponent::set_distance: distance must be finite, got inf"},
      {"NaN kp with an opening, encoded", [&] { gripper.encode_distance(0.05, nan, 0.1); },
       "GripperComponent::set_distance: kp must be finite, got nan"},
      {"-inf torque, encoded", [&] { gripper.encode_tau(-inf); },
       "GripperComponent::set_tau: tau must be finite, got -inf"},
      {"NaN opening to an angle", [&] { GripperComponent::distance_to_motor_angle(nan); },
       "GripperComponent::distance_to_motor_angle: distance must be finite, got nan"},
      {"-inf opening to an angle", [&] { GripperComponent::distance_to_motor_angle(-inf); },
       "GripperComponent::distance_to_motor_angle: distance must be finite, got -inf"},
  };
  for (bool with_motor : {false, true}) {
    if (with_motor) {
      arm.init_gripper_motor(T::DM_V30_T10, 7, 0x17);
    }
    for (const auto& row : rows) {
      std::string message;
      EXPECT_EQ(capture_stderr([&] { message = refusal_of(row.call); }), "") << row.name;
      EXPECT_EQ(message, row.message) << row.name << (with_motor ? ", with motor" : "");
    }
  }
  EXPECT_FALSE(motors->wait_for_received(1, 200ms)) << "a refused command sends nothing";
}

// The frames encoded apart from sending are the commands' own bytes, and send_encoded puts them
// on the wire as they stand, in the socket's frame kind.
TEST_P(FacadeTest, EncodedFramesAreTheCommandsBytesOnTheWire) {
  init_all();
  auto& joints = arm.get_arm();
  auto& gripper = arm.get_gripper();
  const dm::Motor& first = joints.dm_devices()[0]->get_motor();
  const dm::Motor& last = joints.dm_devices()[5]->get_motor();
  const dm::Motor& grip = *gripper.get_motor();
  using E = dm::CanPacketEncoder;
  const struct {
    const char* name;
    std::function<dm::EncodedFrame()> encode;
    dm::CANPacket expected;
    std::string log;
  } rows[] = {
      {"MIT, joint 1",
       [&] {
         return joints.encode_mit_one(0, {50.0, 1.0, 1.0, 0.5, 2.0});
       },
       E::create_mit_control_command(first, {50.0, 1.0, 1.0, 0.5, 2.0}), ""},
      {"MIT clamped, joint 6",
       [&] {
         return joints.encode_mit_one(5, {600.0, 10.0, -20.0, -100.0, 100.0});
       },
       E::create_mit_control_command(last, {600.0, 10.0, -20.0, -100.0, 100.0}), ""},
      {"position-velocity, joint 1",
       [&] {
         return joints.encode_pos_vel_one(0, {10.0f, -1.5f});
       },
       E::create_pos_vel_control_command(first, {10.0f, -1.5f}), ""},
      {"position-velocity, joint 6",
       [&] {
         return joints.encode_pos_vel_one(5, {-1.0f, 2.0f});
       },
       E::create_pos_vel_control_command(last, {-1.0f, 2.0f}), ""},
      {"gripper fully open", [&] { return gripper.encode_distance(0.085, 12.0, 0.2); },
       E::create_mit_control_command(grip, {12.0, 0.2, -1.235598154197257, 0.0, 0.0}), ""},
      {"gripper out of range", [&] { return gripper.encode_distance(0.0851, 8.0, 0.1); },
       E::create_mit_control_command(grip, {8.0, 0.1, -1.0, 0.0, 0.0}),
       "Error: Distance out of range! Must be between 0 and 0.085 meters.\n"},
      {"gripper torque", [&] { return gripper.encode_tau(-0.75); },
       E::create_mit_control_command(grip, {0.0, 0.0, 0.0, 0.0, -0.75}), ""},
  };
  for (const auto& row : rows) {
    motors->clear_frame_log();
    dm::EncodedFrame frame;
    EXPECT_EQ(capture_stderr([&] { frame = row.encode(); }), row.log) << row.name;
    EXPECT_EQ(frame.can_id, row.expected.can_id) << row.name;
    EXPECT_EQ(Bytes(frame.data.begin(), frame.data.end()), row.expected.data) << row.name;
    EXPECT_TRUE(joints.send_encoded(frame)) << row.name;
    ASSERT_TRUE(motors->wait_for_received(1, 1s)) << row.name;
    const sim::Frame wire = motors->received_frames().front().frame;
    EXPECT_EQ(wire.id, row.expected.can_id) << row.name;
    EXPECT_EQ(wire.fd, GetParam()) << row.name;
    EXPECT_EQ(wire.len, 8) << row.name;
    EXPECT_EQ(Bytes(wire.data.begin(), wire.data.begin() + 8), row.expected.data) << row.name;
  }
  capture_stderr([&] { arm.recv_all(2000); });
}

// What the control thread does every cycle: refresh, drain the bus, read the motors, encode a
// frame per joint and one for the gripper, write them back to back. Once warmed up (first status
// lines, the status table's entries) none of it touches the heap.
TEST_P(FacadeTest, ASteadyControlCycleAllocatesNothing) {
  init_all();
  capture_stderr([&] {
    arm.enable_all();
    settle(7);
  });
  auto& joints = arm.get_arm();
  auto& gripper = arm.get_gripper();
  const float hold[6] = {0.1f, -0.2f, 0.3f, -0.4f, 0.5f, -0.6f};
  const struct {
    const char* name;
    dm::ControlMode mode;
    bool limp_gripper;
  } rows[] = {
      {"MIT joints, gripper opening", dm::MIT_MODE, false},
      {"position-velocity joints, limp gripper", dm::POS_VEL_MODE, true},
  };
  for (const auto& row : rows) {
    std::array<dm::EncodedFrame, 7> frames;
    double position_sum = 0.0;
    auto cycle = [&] {
      arm.refresh_all();
      arm.recv_all(100);
      for (const auto& device : joints.dm_devices()) {
        position_sum += device->get_motor().get_position();
      }
      position_sum += gripper.get_motor()->get_position();
      for (int j = 0; j < 6; ++j) {
        frames[j] = row.mode == dm::MIT_MODE
                        ? joints.encode_mit_one(j, {20.0, 1.0, hold[j], 0.0, 0.0})
                        : joints.encode_pos_vel_one(j, {hold[j], 1.0f});
      }
      frames[6] =
          row.limp_gripper ? gripper.encode_tau(0.0) : gripper.encode_distance(0.04, 8.0, 0.1);
      for (const auto& frame : frames) {
        joints.send_encoded(frame);
      }
    };
    uint64_t allocations = 0;
    capture_stderr([&] {
      arm.switch_all_motors_mode(row.mode);
      for (int i = 0; i < 20; ++i) {
        cycle();
      }
      // Feedback decoded during the counted cycles overwrites these.
      for (const auto& device : joints.dm_devices()) {
        device->get_motor().set_state_tmos(-1);
      }
      gripper.dm_devices()[0]->get_motor().set_state_tmos(-1);
      kestrel::testing::ScopedAllocationCount count;
      for (int i = 0; i < 300; ++i) {
        cycle();
      }
      allocations = count.count();
    });
    EXPECT_EQ(allocations, 0u) << row.name;
    EXPECT_TRUE(std::isfinite(position_sum)) << row.name;
    for (int i = 0; i < 6; ++i) {
      EXPECT_NE(joints.dm_devices()[i]->get_motor().get_t_mos(), -1) << row.name << ", joint " << i;
    }
    EXPECT_NE(gripper.get_motor()->get_t_mos(), -1) << row.name << ", gripper";
  }
}

INSTANTIATE_TEST_SUITE_P(ClassicAndFd, FacadeTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Fd" : "Classic"; });

TEST(FacadeConstruction, MissingInterfaceThrowsTheSocketError) {
  simbus::ScopedSimbus bus{{"can0"}};
  try {
    Kestrel arm("can9", false);
    FAIL() << "constructed on a missing interface";
  } catch (const canbus::CANSocketException& e) {
    EXPECT_STREQ(e.what(), "Socket error: Failed to initialize socket for interface: can9");
  }
}

// A short id vector would be read past its end, an unknown type would scale every frame from
// memory past the limit table, and a second call would move the motors the devices refer to.
TEST(ArmComponentInit, RefusesInputsItCannotUseAndCreatesNothing) {
  simbus::ScopedSimbus bus{{"can0"}};
  canbus::CANSocket socket("can0", false);
  ArmComponent joints(socket);
  const std::string op = "ArmComponent::init_motor_devices: ";
  const struct {
    const char* name;
    std::vector<T> types;
    std::vector<unsigned> send_ids;
    std::vector<unsigned> recv_ids;
    std::string message;
  } rows[] = {
      {"one send id short",
       kArmTypes,
       {1, 2, 3, 4, 5},
       kArmFeedbackIds,
       op + "6 motor types but 5 send ids"},
      {"no receive ids", kArmTypes, kArmIds, {}, op + "6 motor types but 0 receive ids"},
      {"type past the limit table",
       {T::DM_V8_T28, T::DM_V8_T28, static_cast<T>(13)},
       kArmIds,
       kArmFeedbackIds,
       op + "invalid motor type 13 for motor 2"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal_of(
                  [&] { joints.init_motor_devices(row.types, row.send_ids, row.recv_ids, false); }),
              row.message)
        << row.name;
    EXPECT_TRUE(joints.get_dm_devices().empty()) << row.name;
  }
  joints.init_motor_devices(kArmTypes, kArmIds, kArmFeedbackIds, false);
  EXPECT_EQ(refusal_of<std::logic_error>(
                [&] { joints.init_motor_devices(kArmTypes, kArmIds, kArmFeedbackIds, false); }),
            op + "the arm's motors already exist");
  EXPECT_EQ(joints.get_dm_devices().size(), 6u);
}

TEST(GripperInit, ReplacingTheMotorLeavesOnlyTheNewDevice) {
  simbus::ScopedSimbus bus{{"can0"}};
  canbus::CANSocket socket("can0", false);
  GripperComponent gripper(socket);
  gripper.init_motor_device(T::DM_V30_T10, 7, 0x17, false);
  gripper.init_motor_device(T::DM_V30_T10, 8, 0x18, false);
  // The old device refers to the motor just destroyed: as device 0 it would take every command.
  const auto devices = gripper.get_dm_devices();
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(&devices[0]->get_motor(), gripper.get_motor());
}

// Linkage values against references computed independently (exact fused multiply-adds
// emulated with rational arithmetic), to the last bit.
TEST(GripperLinkage, DistanceToMotorAngleToTheLastBit) {
  const std::pair<double, double> references[] = {
      {0.0, -0.00019983474059870332}, {0.01, -0.1978588209146992}, {0.0425, -0.6822889509948515},
      {0.07, -1.0307842463707704},    {0.085, -1.235598154197257},
  };
  for (const auto& [d, q] : references) {
    EXPECT_EQ(GripperComponent::distance_to_motor_angle(d), q) << d;
  }
  EXPECT_EQ(GripperComponent::distance_to_motor_angle(0.0851), -1.0);
  EXPECT_EQ(GripperComponent::distance_to_motor_angle(-1e-9), -1.0);
}

TEST(GripperLinkage, InverseLinkageRecoversTheOpening) {
  for (double d = 0.0; d <= 0.085; d += 0.0005) {
    EXPECT_NEAR(
        GripperComponent::motor_angle_to_distance(GripperComponent::distance_to_motor_angle(d)), d,
        1e-12)
        << d;
  }
  double sqrt_arg = 0.0;
  // Turned far past the linkage's reach the coupler cannot close the loop.
  EXPECT_EQ(GripperComponent::motor_angle_to_distance(-3.0, &sqrt_arg), -1.0);
  EXPECT_LT(sqrt_arg, 0.0);
}

}  // namespace
}  // namespace kestrel::can::socket
