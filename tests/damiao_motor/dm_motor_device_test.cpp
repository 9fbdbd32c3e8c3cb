// Device callbacks are driven directly with kernel frames: what reaches the motor, and the exact
// warning and status-change lines.
#include "kestrel/damiao_motor/dm_motor_device.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>
#include <tuple>

#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace dm = kestrel::damiao_motor;
using kestrel::testing::capture_stderr;
using kestrel::testing::refusal_of;
using Bytes = std::vector<uint8_t>;

namespace {

can_frame classic(uint32_t id, const Bytes& data) {
  return dm::DMCANDevice::create_can_frame(id, data);
}

canfd_frame fd(uint32_t id, const Bytes& data) {
  return dm::DMCANDevice::create_canfd_frame(id, data);
}

// Hands the device `data` from `id` in a classic or an FD frame.
void deliver(dm::DMCANDevice& device, bool as_fd, uint32_t id, const Bytes& data) {
  as_fd ? device.callback(fd(id, data)) : device.callback(classic(id, data));
}

// Feedback of status `code` at the middle of every range, MOS 31 degC, rotor 29 degC.
Bytes feedback(int code, int id = 1) {
  return {static_cast<uint8_t>((code << 4) | id), 0x80, 0x00, 0x80, 0x08, 0x00, 0x1F, 0x1D};
}

// The status-change table is process-wide, keyed by receive identifier: every test takes its own.
unsigned fresh_recv_id() {
  static unsigned next = 0x300;
  return next++;
}

}  // namespace

// A classic frame carries its payload as given; an FD frame adds bit-rate switching and zero
// padding. A payload longer than the frame would be copied past the frame's data buffer.
TEST(DMCANDeviceFrames, LayoutsAndPayloadLimits) {
  const canfd_frame g = fd(0x7FF, {9, 8, 7, 6, 5, 4, 3, 2});
  EXPECT_EQ(std::make_tuple(g.can_id, g.len, g.flags, g.__res0, g.__res1),
            std::make_tuple(0x7FFu, uint8_t{8}, uint8_t{CANFD_BRS}, uint8_t{0}, uint8_t{0}));
  for (int i = 8; i < 64; ++i) {
    ASSERT_EQ(g.data[i], 0) << i;
  }

  // Both kinds at their capacity; one byte more is refused.
  for (const bool use_fd : {false, true}) {
    Bytes data(use_fd ? 64 : 8);
    std::iota(data.begin(), data.end(), uint8_t{1});
    EXPECT_EQ(use_fd ? dm::DMCANDevice::get_data_from_frame(fd(0x7FF, data))
                     : dm::DMCANDevice::get_data_from_frame(classic(0x7FF, data)),
              data);
  }
  EXPECT_EQ(refusal_of([] { classic(0x7FF, Bytes(9)); }),
            "create_can_frame: payload of 9 bytes exceeds the 8 bytes of a classic CAN frame");
}

// Frames the device cannot use are reported (or, for a short classic frame, dropped) and change
// nothing; in parameter mode only read replies are stored, in IGNORE mode nothing is.
TEST(DMCANDeviceCallbacks, FramesTheDeviceCannotUseChangeNothing) {
  using dm::CallbackMode;
  const Bytes acc_read = {0x01, 0x00, 0x33, 0x04, 0x00, 0x00, 0x20, 0x41};
  const Bytes acc_written = {0x01, 0x00, 0x55, 0x04, 0x00, 0x00, 0x20, 0x41};
  const Bytes short_feedback = {0x11, 1, 2, 3, 4, 5};
  const struct {
    const char* name;
    bool fd_device, fd_frame;
    CallbackMode mode;
    unsigned id_offset;
    Bytes data;
    std::string log;
  } rows[] = {
      {"classic frame, FD device", true, false, CallbackMode::STATE, 0, feedback(1),
       "WARNING: WRONG CALLBACK FUNCTION\n"},
      {"FD frame, classic device", false, true, CallbackMode::STATE, 0, feedback(1),
       "WARNING: CANFD MODE NOT ENABLED\n"},
      {"FD frame of another id", true, true, CallbackMode::STATE, 1, feedback(1),
       "WARNING: CANFD FRAME ID DOES NOT MATCH MOTOR ID\n"},
      {"short classic feedback", false, false, CallbackMode::STATE, 0, short_feedback, ""},
      {"short FD feedback", true, true, CallbackMode::STATE, 0, short_feedback,
       "Warning: Skipping motor state data less than 8 bytes\n"},
      {"feedback read as a register reply", false, false, CallbackMode::PARAM, 0, feedback(1),
       "WARNING: INVALID PARAM DATA\n"},
      {"write acknowledgement", false, false, CallbackMode::PARAM, 0, acc_written, ""},
      {"register reply ignored", false, false, CallbackMode::IGNORE, 0, acc_read, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const unsigned id = fresh_recv_id();
    dm::Motor m(dm::MotorType::DM_V8_T28, 0x01, id);
    dm::DMCANDevice device(m, 0x7FF, row.fd_device);
    device.set_callback_mode(row.mode);
    EXPECT_EQ(capture_stderr([&] { deliver(device, row.fd_frame, id + row.id_offset, row.data); }),
              row.log);
    EXPECT_EQ(m.get_t_mos(), 0);
    EXPECT_EQ(m.get_param(4), -1.0);
  }
}

// Feedback never touches the host-side enabled flag.
TEST(DMCANDeviceCallbacks, FeedbackUpdatesTheMotor) {
  for (bool use_fd : {false, true}) {
    const unsigned id = fresh_recv_id();
    dm::Motor m(dm::MotorType::DM_V30_T10, 0x05, id);
    dm::DMCANDevice device(m, 0x7FF, use_fd);
    capture_stderr([&] { deliver(device, use_fd, id, feedback(1, 5)); });
    EXPECT_EQ(std::make_tuple(m.get_error_code(), m.get_feedback_id(), m.get_t_mos(),
                              m.get_t_rotor(), m.is_enabled()),
              std::make_tuple(1, 5, 31, 29, false));
    EXPECT_NEAR(m.get_position(), 0.00019, 1e-5);
  }
}

// The first feedback prints even when it reports a disabled motor; the table is shared by every
// device with the same receive identifier.
TEST(DMCANDeviceStatusLines, FirstFeedbackThenOnlyChanges) {
  const unsigned id = 0x4AB;  // distinct from every other test's identifiers
  dm::Motor m(dm::MotorType::DM_V8_T28, 0x0B, id), twin = m;
  dm::DMCANDevice device(m, 0x7FF, false), twin_device(twin, 0x7FF, true);
  const std::string line = "[DM ERR] recv_id=0x4ab feedback_id=11 ERR: ";
  const std::pair<int, std::string> steps[] = {{0, line + "0x0 -> 0x0 (Disabled)"},
                                               {1, line + "0x0 -> 0x1 (Enabled)"},
                                               {1, ""},
                                               {8, line + "0x1 -> 0x8 (Over-voltage)"},
                                               {15, line + "0x8 -> 0xf (Unknown/Reserved)"}};
  for (const auto& [code, printed] : steps) {
    EXPECT_EQ(capture_stderr([&] { device.callback(classic(id, feedback(code, 0xB))); }),
              printed.empty() ? "" : printed + " t_mos=31 t_rotor=29\n")
        << code;
  }
  EXPECT_EQ(capture_stderr([&] { twin_device.callback(fd(id, feedback(15, 0xB))); }), "");
}

TEST(DMStatusText, EveryCode) {
  std::vector<std::string> expected(16, "Unknown/Reserved");
  const char* named[] = {
      "Over-voltage",          "Under-voltage",      "Over-current", "MOS over-temperature",
      "Coil over-temperature", "Communication lost", "Overload"};
  expected[0] = "Disabled";
  expected[1] = "Enabled";
  std::copy(std::begin(named), std::end(named), expected.begin() + 8);
  for (int code = 0; code < 16; ++code) {
    EXPECT_EQ(dm::dm_status_text(code), expected[code]) << code;
  }
}
