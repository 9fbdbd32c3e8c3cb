// The Kestrel facade and its two motor groups against simulated motors on the userspace bus.
#include "kestrel/arm/kestrel.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>

#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/refusal.hpp"
#include "support/simbus_can.hpp"
#include "support/stderr_capture.hpp"

namespace kestrel::can::socket {
namespace {

namespace dm = damiao_motor;
using namespace std::chrono_literals;
using kestrel::testing::capture_stderr;
using kestrel::testing::refusal_of;
using T = dm::MotorType;
using Ids = std::vector<uint32_t>;
using G = dm::DMDeviceCollection;

const std::vector<T> kArmTypes = {T::DM_V8_T28,  T::DM_V8_T28,  T::DM_V8_T28,
                                  T::DM_V30_T10, T::DM_V30_T10, T::DM_V30_T10};
const std::vector<unsigned> kArmIds = {1, 2, 3, 4, 5, 6};
const std::vector<unsigned> kArmFeedbackIds = {0x11, 0x12, 0x13, 0x14, 0x15, 0x16};
const std::string kOutOfRange =
    "Error: Distance out of range! Must be between 0 and 0.085 meters.\n";

// Identifiers of the frames the simulator received, in order.
Ids received_ids(const sim::SimulatedMotorBus& motors) {
  Ids ids;
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

  // Runs `commands`, waits until the simulator has received `frames` frames since the last
  // clear, then takes in the replies. Waiting on the frames (not on a quiet gap) keeps the tests
  // exact under load.
  void send_and_settle(const std::function<void()>& commands, size_t frames) {
    motors->clear_frame_log();
    capture_stderr([&] {
      commands();
      ASSERT_TRUE(motors->wait_for_received(frames, 5s)) << "simulated motors heard too little";
      arm.recv_all(20000);
    });
  }

  void init_all() {
    arm.init_arm_motors(kArmTypes, kArmIds, kArmFeedbackIds);
    arm.init_gripper_motor(T::DM_V30_T10, 7, 0x17);
  }

  // Runs each step on the arm's motor group, taking in the replies after it until the bus stays
  // quiet for 20 ms (generous, so that a loaded machine does not cut replies off); returns what
  // was printed meanwhile.
  std::string exchange(const std::vector<std::function<void(G&)>>& steps) {
    return capture_stderr([&] {
      for (const auto& step : steps) {
        step(arm.get_arm());
        arm.recv_all(20000);
      }
    });
  }

  // Host-side joint motor i (group order = ascending feedback id = joint order).
  dm::Motor joint(int i) { return arm.get_arm().get_motors().at(i); }

  simbus::ScopedSimbus bus{{"can0"}};
  std::unique_ptr<sim::SimulatedMotorBus> motors;
  Kestrel arm{"can0", GetParam()};
};

TEST_P(FacadeTest, CommandsReachArmAndGripperRegistersReadBackAndFeedbackReportsFaults) {
  arm.enable_all();  // no motor exists yet
  arm.recv_all(2000);
  EXPECT_TRUE(motors->received_frames().empty());

  init_all();
  send_and_settle([&] { arm.enable_all(); }, 7);
  EXPECT_EQ(received_ids(*motors), (Ids{1, 2, 3, 4, 5, 6, 7}));
  auto host = arm.get_arm().get_motors();
  ASSERT_EQ(host.size(), 6u);
  host.push_back(*arm.get_gripper().get_motor());
  const double posture[7] = {0.1, -0.2, 0.3, -0.4, 0.5, -0.6, -0.3};
  for (int i = 0; i < 7; ++i) {
    EXPECT_TRUE(motors->motor_state(i).enabled) << i;
    EXPECT_NEAR(host[i].get_position(), posture[i], 25.0 / 65535.0) << i;  // one code
  }

  // Value vectors are paired per group from index 0; a group registered twice gets everything
  // twice.
  const std::vector<float> acc = {1.5f, 2.5f, 3.5f, 4.5f, 5.5f, 6.5f};
  send_and_settle(
      [&] {
        arm.set_acc_all(acc);
        arm.set_timeout_all(1000);
        arm.switch_all_motors_mode(dm::POS_VEL_MODE);
      },
      7 + 7 + 7);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(motors->motor_state(i).registers.value(4), acc[i]) << i;
    EXPECT_EQ(motors->motor_state(i).mode, 2u);
  }
  // The gripper group takes element 0 of the arm-sized vector.
  EXPECT_EQ(motors->motor_state(6).registers.value(4), acc[0]);
  EXPECT_EQ(motors->motor_state(6).registers.value(9), 1000.0);
  // Replies land in the motor that was asked, through the bus-wide registry; a register not
  // queried stays unread.
  arm.set_callback_mode_all(dm::CallbackMode::PARAM);
  send_and_settle([&] { arm.query_acc_all(); }, 7);
  EXPECT_EQ(arm.get_gripper().get_motor()->get_param(dm::RID_ACC), acc[0]);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(std::make_tuple(joint(i).get_param(dm::RID_ACC), joint(i).get_param(dm::RID_DEC)),
              std::make_tuple(double{acc[i]}, -1.0))
        << i;
  }
  arm.set_callback_mode_all(dm::CallbackMode::STATE);

  arm.register_dm_device_collection(arm.get_gripper());
  send_and_settle([&] { arm.disable_all(); }, 8);
  EXPECT_EQ(received_ids(*motors), (Ids{1, 2, 3, 4, 5, 6, 7, 7}));

  // Feedback through the arm's group: status, then a communication loss. The status
  // table is process-wide: the motors were disabled last, so enabling is a change. Time-out 0
  // keeps the motors from giving up in a pause of a loaded machine.
  exchange({[](G& g) { g.set_timeout_all(0); }, &G::enable_all});
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(std::make_tuple(joint(i).get_error_code(), joint(i).get_feedback_id(),
                              joint(i).get_t_mos() > 15),
              std::make_tuple(1, i + 1, true));
  }
  exchange({&G::disable_all});
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(std::make_tuple(joint(i).get_error_code(), motors->motor_state(i).enabled),
              std::make_tuple(0, false))
        << i;
  }

  // A 2 ms communication timeout: the motors give up once the host stops talking.
  exchange({&G::clrErr_all, [](G& g) { g.set_timeout_all(40); }, &G::enable_all,
            [](G&) { std::this_thread::sleep_for(20ms); }, &G::refresh_all});
  EXPECT_EQ(joint(0).get_error_code(), 13);
}

TEST_P(FacadeTest, AReplacedGripperMotorLeavesTheFacadeWithItsDevice) {
  init_all();
  // The new motor listens on 0x18; the old device (0x17) refers to the motor just destroyed and
  // must stay neither in the gripper group (it would take every command) nor in the dispatcher,
  // nor the gripper group registered twice. Nothing may keep the old device alive.
  const std::weak_ptr<dm::DMCANDevice> old_device = arm.get_gripper().get_dm_devices().at(0);
  arm.init_gripper_motor(T::DM_V30_T10, 7, 0x18);
  EXPECT_TRUE(old_device.expired()) << "the old gripper device is still registered somewhere";
  send_and_settle([&] { arm.enable_all(); }, 7);
  EXPECT_EQ(received_ids(*motors), (Ids{1, 2, 3, 4, 5, 6, 7}));
  send_and_settle([&] { arm.refresh_all(); }, 7);  // motor 7 answers on 0x17: nobody's feedback
  EXPECT_EQ(arm.get_gripper().get_motor()->get_position(), 0.0);
}

// Without a motor the gripper's commands are silent no-ops and its encoders refuse. A NaN would
// reach the motor as the bottom of the position range (-12.5 rad), an infinity as one end:
// refused by name, before the motor exists and after, with nothing printed or sent. Then every
// command, and every frame encoded apart and sent with send_encoded, reaches the wire byte for
// byte in the socket's frame kind; an opening outside 0..85 mm is reported and commands -1 rad.
TEST_P(FacadeTest, GripperAndEncodedCommandsPutExactBytesOnTheWireAndRefuseNonFiniteArguments) {
  auto& g = arm.get_gripper();
  auto& j = arm.get_arm();
  auto send = [&](const dm::EncodedFrame& frame) { EXPECT_TRUE(j.send_encoded(frame)); };
  const dm::MITParam clamped{600.0, 10.0, -20.0, -100.0, 100.0};
  const dm::POS_VELParam pos_vel_6{-1.0f, 2.0f};
  const size_t kGripperCommands = 6;  // the rows before the encoded ones, which need the motors
  const struct {
    const char* name;
    std::function<void()> command;
    const char* wire;
    std::string log = "";
  } commands[] = {
      {"open", [&] { g.open(8.0, 0.1); }, "007#73 58 7F F0 41 05 17 FF"},
      {"close", [&] { g.close(8.0, 0.1); }, "007#7F FF 7F F0 41 05 17 FF"},
      {"half way", [&] { g.set_position(0.5, 8.0, 0.1); }, "007#79 AC 7F F0 41 05 17 FF"},
      {"85 mm", [&] { g.set_distance(0.085, 12.0, 0.2); }, "007#73 58 7F F0 62 0A 37 FF"},
      {"85.1 mm", [&] { g.set_distance(0.0851, 8, 0.1); }, "007#75 C2 7F F0 41 05 17 FF",
       kOutOfRange},
      {"torque", [&] { g.set_tau(0.75); }, "007#7F FF 7F F0 00 00 08 99"},
      {"MIT clamped, joint 6", [&] { send(j.encode_mit_one(5, clamped)); },
       "006#00 00 00 0F FF FF FF FF"},
      {"pos-vel, joint 6", [&] { send(j.encode_pos_vel_one(5, pos_vel_6)); },
       "106#00 00 80 BF 00 00 00 40"},
      {"85.1 mm, encoded", [&] { send(g.encode_distance(0.0851, 8, 0.1)); },
       "007#75 C2 7F F0 41 05 17 FF", kOutOfRange},
      {"torque, encoded", [&] { send(g.encode_tau(-0.75)); }, "007#7F FF 7F F0 00 00 07 65"},
  };
  // Refused: "GripperComponent::<what> must be finite, got <value>".
  const double nan = std::nan(""), inf = INFINITY;
  const struct {
    const char* name;
    std::function<void()> call;
    const char* what;
    const char* value;
  } refusals[] = {
      {"NaN opening", [&] { g.set_distance(nan, 8, 0.1); }, "set_distance: distance", "nan"},
      {"NaN kd, opening", [&] { g.set_distance(0.05, 8, nan); }, "set_distance: kd", "nan"},
      {"NaN position", [&] { g.set_position(nan, 8, 0.1); }, "set_position: position", "nan"},
      {"infinite kp, position", [&] { g.set_position(0.5, inf, 0.1); }, "set_position: kp", "inf"},
      {"NaN kp, open", [&] { g.open(nan, 0.1); }, "open: kp", "nan"},
      {"infinite kd, close", [&] { g.close(8.0, inf); }, "close: kd", "inf"},
      {"NaN torque", [&] { g.set_tau(nan); }, "set_tau: tau", "nan"},
      {"inf opening, encoded", [&] { g.encode_distance(inf, 8, 0.1); }, "set_distance: distance",
       "inf"},
      {"NaN kp, encoded", [&] { g.encode_distance(0.05, nan, 0.1); }, "set_distance: kp", "nan"},
      {"-inf torque, encoded", [&] { g.encode_tau(-inf); }, "set_tau: tau", "-inf"},
      {"-inf to an angle", [&] { g.distance_to_motor_angle(-inf); },
       "distance_to_motor_angle: distance", "-inf"},
  };
  for (bool with_motor : {false, true}) {
    if (with_motor) {
      init_all();
    } else {
      for (size_t i = 0; i < kGripperCommands; ++i) {
        EXPECT_EQ(capture_stderr(commands[i].command), "") << commands[i].name << ": no device";
      }
      EXPECT_EQ(refusal_of<std::logic_error>([&] { g.encode_distance(0.04, 8.0, 0.1); }),
                "GripperComponent::encode_distance: the gripper has no motor");
      EXPECT_EQ(refusal_of<std::logic_error>([&] { g.encode_tau(0.1); }),
                "GripperComponent::encode_tau: the gripper has no motor");
    }
    for (const auto& row : refusals) {
      SCOPED_TRACE(std::string(row.name) + (with_motor ? ", with motor" : ""));
      std::string message;
      EXPECT_EQ(capture_stderr([&] { message = refusal_of(row.call); }), "");
      EXPECT_EQ(message,
                std::string("GripperComponent::") + row.what + " must be finite, got " + row.value);
    }
  }
  EXPECT_FALSE(motors->wait_for_received(1, 200ms)) << "nothing sent";
  for (const auto& c : commands) {
    SCOPED_TRACE(c.name);
    motors->clear_frame_log();
    EXPECT_EQ(capture_stderr(c.command), c.log);
    ASSERT_TRUE(motors->wait_for_received(1, 1s));
    const sim::Frame wire = motors->received_frames().front().frame;
    char id[8];
    std::snprintf(id, sizeof(id), "%03X#", wire.id);
    EXPECT_EQ(std::make_tuple(id + sim::to_hex(wire.payload()), wire.len, wire.fd),
              std::make_tuple(std::string(c.wire), uint8_t{8}, GetParam()));
  }
}

INSTANTIATE_TEST_SUITE_P(ClassicAndFd, FacadeTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Fd" : "Classic"; });

// A short id vector would be read past its end, an unknown type would scale every frame from
// memory past the limit table, and a second call would move the motors the devices refer to.
TEST(ComponentInit, ArmMotorsRefuseInputsTheyCannotUse) {
  simbus::ScopedSimbus bus{{"can0"}};
  canbus::CANSocket socket("can0", false);
  ArmComponent joints(socket);
  const std::string op = "ArmComponent::init_motor_devices: ";
  const std::vector<unsigned> five_ids = {1, 2, 3, 4, 5};
  const std::vector<T> bad_type = {T::DM_V8_T28, T::DM_V8_T28, static_cast<T>(13)};
  const struct {
    const char* name;
    std::vector<T> types;
    std::vector<unsigned> send_ids, recv_ids;
    std::string message;
  } rows[] = {
      {"one send id short", kArmTypes, five_ids, kArmFeedbackIds,
       op + "6 motor types but 5 send ids"},
      {"no receive ids", kArmTypes, kArmIds, {}, op + "6 motor types but 0 receive ids"},
      {"type past the limit table", bad_type, kArmIds, kArmFeedbackIds,
       op + "invalid motor type 13 for motor 2"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(refusal_of(
                  [&] { joints.init_motor_devices(row.types, row.send_ids, row.recv_ids, false); }),
              row.message);
    EXPECT_TRUE(joints.get_dm_devices().empty());
  }
  joints.init_motor_devices(kArmTypes, kArmIds, kArmFeedbackIds, false);
  EXPECT_EQ(refusal_of<std::logic_error>(
                [&] { joints.init_motor_devices(kArmTypes, kArmIds, kArmFeedbackIds, false); }),
            op + "the arm's motors already exist");
  EXPECT_EQ(joints.get_dm_devices().size(), 6u);
}

// References computed independently, to the last bit: each std::fma evaluated as one exactly
// rounded operation in rational arithmetic, every other step rounded to double. At 2, 30 and
// 60 mm a plain multiply-then-add gives another last bit; outside 0..85 mm the answer is -1.
TEST(GripperLinkage, DistanceToMotorAngleToTheLastBitAndBack) {
  const std::pair<double, double> references[] = {{0.0, -0.00019983474059870332},
                                                  {0.002, -0.04268005719896539},
                                                  {0.01, -0.1978588209146992},
                                                  {0.03, -0.5140347005162533},
                                                  {0.0425, -0.6822889509948515},
                                                  {0.06, -0.9037797178064333},
                                                  {0.07, -1.0307842463707704},
                                                  {0.085, -1.235598154197257},
                                                  {0.0851, -1.0},
                                                  {-1e-9, -1.0}};
  for (const auto& [d, q] : references) {
    EXPECT_EQ(GripperComponent::distance_to_motor_angle(d), q) << d;
  }
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
