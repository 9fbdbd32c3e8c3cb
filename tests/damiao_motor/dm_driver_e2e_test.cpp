// The DM driver end to end: a motor group on a CANSocket drives simulated DM motors over the
// userspace bus, classic and FD, and reads their feedback and registers back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <thread>

#include "kestrel/canbus/can_socket.hpp"
#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/stderr_capture.hpp"

namespace kestrel::damiao_motor {
namespace {

using namespace std::chrono_literals;
using kestrel::testing::capture_stderr;
using G = DMDeviceCollection;

// The arm's six joint motors on the host side, in the simulator's order.
std::vector<sim::MotorConfig> joint_configs() {
  auto configs = sim::arm_motor_configs();
  configs.resize(6);
  return configs;
}

class DriverE2E : public ::testing::TestWithParam<bool> {
 protected:
  DriverE2E() {
    sim::BusOptions options;
    options.interface = "can0";
    options.fd = GetParam();
    motors = std::make_unique<sim::SimulatedMotorBus>(joint_configs(), options);
    motors->set_posture({0.1, -0.2, 0.3, -0.4, 0.5, -0.6});
    motors->start();
    for (unsigned i = 1; i <= 6; ++i) {
      host_motors.emplace_back(i <= 3 ? MotorType::DM_V8_T28 : MotorType::DM_V30_T10, i, 0x10 + i);
    }
    for (auto& m : host_motors) {
      group.get_device_collection().add_device(
          std::make_shared<DMCANDevice>(m, PARAM_CAN_ID, GetParam()));
    }
  }

  // The receive loop: every queued frame, until the bus stays quiet for `quiet_us`. The default
  // is generous so that a loaded machine (sanitizers, parallel tests) does not cut replies off.
  void drain(int quiet_us = 20000) {
    auto& registry = group.get_device_collection();
    if (GetParam()) {
      canfd_frame f;
      while (socket.is_data_available(quiet_us) && socket.read_canfd_frame(f)) {
        registry.dispatch_frame_callback(f);
      }
    } else {
      can_frame f;
      while (socket.is_data_available(quiet_us) && socket.read_can_frame(f)) {
        registry.dispatch_frame_callback(f);
      }
    }
  }

  // Runs each step, draining the replies after it; returns what was printed meanwhile.
  std::string exchange(const std::vector<std::function<void(G&)>>& steps) {
    return capture_stderr([&] {
      for (const auto& step : steps) {
        step(group);
        drain();
      }
    });
  }

  // Host-side motor i after the last drain (group order = ascending feedback id = joint order).
  Motor host(int i) { return group.get_motors().at(i); }

  simbus::ScopedSimbus bus{{"can0"}};
  std::unique_ptr<sim::SimulatedMotorBus> motors;
  canbus::CANSocket socket{"can0", GetParam()};
  DMDeviceCollection group{socket};
  std::deque<Motor> host_motors;
};

TEST_P(DriverE2E, FeedbackReportsPostureStatusFaultsAndCommunicationLoss) {
  std::string log = exchange({&G::enable_all});
  const double expected[6] = {0.1, -0.2, 0.3, -0.4, 0.5, -0.6};
  for (int i = 0; i < 6; ++i) {
    EXPECT_TRUE(motors->motor_state(i).enabled) << i;
    EXPECT_EQ(host(i).get_error_code(), 1) << i;
    EXPECT_EQ(host(i).get_feedback_id(), i + 1);
    EXPECT_NEAR(host(i).get_position(), expected[i], 25.0 / 65535.0) << i;
    EXPECT_GT(host(i).get_t_mos(), 15);
  }
  // One status line per motor: the first feedback of each.
  for (int i = 1; i <= 6; ++i) {
    EXPECT_NE(log.find("recv_id=0x1" + std::to_string(i) + " feedback_id=" + std::to_string(i) +
                       " ERR: 0x"),
              std::string::npos)
        << log;
  }
  exchange({&G::disable_all});
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(host(i).get_error_code(), 0) << i;
    EXPECT_FALSE(motors->motor_state(i).enabled);
  }

  // Joint 5 over-voltage.
  log = exchange({&G::enable_all, [&](G&) { motors->inject_fault(4, 8); }, &G::refresh_all});
  EXPECT_EQ(host(4).get_error_code(), 8);
  // The status table is process-wide, so the code it changes from depends on earlier tests.
  EXPECT_THAT(log, ::testing::ContainsRegex(
                       R"(\[DM ERR\] recv_id=0x15 feedback_id=5 ERR: 0x[0-9a-f] -> 0x8 )"
                       R"(\(Over-voltage\) t_mos=[0-9]+ t_rotor=[0-9]+)"));

  // A 2 ms communication timeout: the motors give up once the host stops talking.
  log = exchange({&G::clrErr_all, [](G& g) { g.set_timeout_all(40); }, &G::enable_all,
                  [](G&) { std::this_thread::sleep_for(20ms); }, &G::refresh_all});
  EXPECT_EQ(host(0).get_error_code(), 13);
  EXPECT_THAT(log, ::testing::ContainsRegex(R"(recv_id=0x11 feedback_id=1 ERR: 0x[0-9a-f] -> 0xd )"
                                            R"(\(Communication lost\))"));
}

TEST_P(DriverE2E, RegistersAreWrittenReadBackAndModeSwitchedExceptOnASilentMotor) {
  group.set_callback_mode_all(CallbackMode::PARAM);
  const std::vector<float> acc = {1.5f, 2.5f, 3.5f, 4.5f, 5.5f, 6.5f};
  exchange({[&](G& g) { g.set_acc_all(acc); }, [](G& g) { g.set_timeout_all(1000); },
            [](G& g) { g.switch_all_motors_mode(POS_VEL_MODE); }, &G::query_acc_all,
            [](G& g) { g.query_param_all(RID_TIMEOUT); },
            [](G& g) { g.query_param_all(RID_CTRL_MODE); }});
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(host(i).get_param(RID_ACC), acc[i]) << i;
    EXPECT_EQ(host(i).get_param(RID_TIMEOUT), 1000.0) << i;
    EXPECT_EQ(host(i).get_param(RID_CTRL_MODE), 2.0) << i;
    EXPECT_EQ(motors->motor_state(i).mode, 2u);
  }
  EXPECT_EQ(host(0).get_param(RID_DEC), -1.0) << "a register not queried stays unread";

  motors->set_silent(2, true);
  exchange({&G::query_dec_all});
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(host(i).get_param(RID_DEC) > 0.0, i != 2) << i << " (2 is silent: unread)";
  }
}

TEST_P(DriverE2E, StreamedMitCommandsMoveTheJointsToTheTarget) {
  capture_stderr([&] {
    group.enable_all();
    drain();
    std::vector<MITParam> hold(6);
    for (int i = 0; i < 6; ++i) {
      hold[i] = {i < 3 ? 30.0 : 10.0, i < 3 ? 1.5 : 0.5, 0.25, 0.0, 0.0};
    }
    const auto end = std::chrono::steady_clock::now() + 1500ms;
    while (std::chrono::steady_clock::now() < end) {
      group.mit_control_all(hold);
      drain(300);
      std::this_thread::sleep_for(2ms);
    }
  });
  for (int i = 0; i < 6; ++i) {
    EXPECT_NEAR(motors->motor_state(i).q, 0.25, 0.02) << i;
    EXPECT_NEAR(host(i).get_position(), motors->motor_state(i).q, 0.01) << i;
    ASSERT_TRUE(motors->motor_state(i).last_mit.has_value());
    EXPECT_NEAR(motors->motor_state(i).last_mit->q, 0.25, 25.0 / 65535.0);
  }
}

INSTANTIATE_TEST_SUITE_P(ClassicAndFd, DriverE2E, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Fd" : "Classic"; });

}  // namespace
}  // namespace kestrel::damiao_motor
