#include "kestrel/damiao_motor/dm_motor_control.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace dm = kestrel::damiao_motor;

TEST(Motor, RegistersReadMinusOneUntilStored) {
  dm::Motor m(dm::MotorType::DM_V30_T10, 0x07, 0x17);
  for (int rid = 0; rid < 80; ++rid) {
    ASSERT_EQ(m.get_param(rid), -1.0) << rid;
  }
  m.set_temp_param(4, 2.5);
  EXPECT_EQ(m.get_param(4), 2.5);
  EXPECT_EQ(m.get_param(5), -1.0);
  m.set_temp_param(4, 3.25);
  EXPECT_EQ(m.get_param(4), 3.25);
  EXPECT_EQ(m.get_params().size(), 1u);
}

TEST(Motor, StateUpdatesWholeOrFieldByField) {
  dm::Motor m(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  EXPECT_FALSE(m.is_enabled());
  EXPECT_EQ(m.get_position(), 0.0);
  m.update_state(1.5, -2.0, 3.0, 40, 41, 1, 1);
  EXPECT_EQ(m.get_position(), 1.5);
  EXPECT_EQ(m.get_velocity(), -2.0);
  EXPECT_EQ(m.get_torque(), 3.0);
  EXPECT_EQ(m.get_t_mos(), 40);
  EXPECT_EQ(m.get_t_rotor(), 41);
  EXPECT_EQ(m.get_feedback_id(), 1);
  EXPECT_EQ(m.get_error_code(), 1);
  m.set_state_error_code(13);
  m.set_state_tmos(50);
  m.set_state_trotor(51);
  m.set_state_feedback_id(2);
  EXPECT_EQ(m.get_error_code(), 13);
  EXPECT_EQ(m.get_t_mos(), 50);
  EXPECT_EQ(m.get_t_rotor(), 51);
  EXPECT_EQ(m.get_feedback_id(), 2);
  EXPECT_EQ(m.get_position(), 1.5) << "single-field setters leave the rest alone";
  m.set_enabled(true);
  EXPECT_TRUE(m.is_enabled());
}

TEST(Motor, LimitTable) {
  const auto arm_shoulder = dm::Motor::get_limit_param(dm::MotorType::DM_V8_T28);
  EXPECT_EQ(arm_shoulder.p_max, 12.5);
  EXPECT_EQ(arm_shoulder.v_max, 8.0);
  EXPECT_EQ(arm_shoulder.t_max, 28.0);
  const auto last = dm::Motor::get_limit_param(static_cast<dm::MotorType>(12));
  EXPECT_EQ(last.p_max, 12.5);
  EXPECT_EQ(last.v_max, 45.0);
  EXPECT_EQ(last.t_max, 10.0);
  const auto big = dm::Motor::get_limit_param(static_cast<dm::MotorType>(8));
  EXPECT_EQ(big.t_max, 200.0);
  try {
    dm::Motor::get_limit_param(static_cast<dm::MotorType>(13));
    FAIL() << "type 13 accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Invalid motor type: 13");
  }
  EXPECT_THROW(dm::Motor::get_limit_param(static_cast<dm::MotorType>(255)), std::invalid_argument);
}
