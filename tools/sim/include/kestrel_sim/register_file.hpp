// A DM motor's parameter registers as the 0x33/0x55 parameter frames reach them. Each register
// holds 32 raw bits; registers 7, 8, 9, 10, 13, 14, 15, 16, 35 and 36 are unsigned integers,
// every other register a float32.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>

#include "kestrel_sim/dm_protocol.hpp"

namespace kestrel::sim {

namespace reg {
inline constexpr uint8_t kUnderVoltage = 0;     // UV_Value, V
inline constexpr uint8_t kTorqueConstant = 1;   // KT_Value, N·m/A
inline constexpr uint8_t kOverTemperature = 2;  // OT_Value, °C (coil)
inline constexpr uint8_t kOverCurrent = 3;      // OC_Value, fraction of peak current
inline constexpr uint8_t kAcc = 4;              // position-velocity acceleration, rad/s²
inline constexpr uint8_t kDec = 5;              // position-velocity deceleration, rad/s²
inline constexpr uint8_t kMaxSpeed = 6;         // MAX_SPD, rad/s
inline constexpr uint8_t kMasterId = 7;         // MST_ID, feedback identifier
inline constexpr uint8_t kEscId = 8;            // ESC_ID, command identifier
inline constexpr uint8_t kTimeout = 9;          // communication timeout, 50 µs units, 0 = off
inline constexpr uint8_t kControlMode = 10;     // 1 MIT, 2 position-velocity, 3 velocity
inline constexpr uint8_t kDamping = 11;
inline constexpr uint8_t kInertia = 12;  // load inertia the speed loop is tuned for, kg·m²
inline constexpr uint8_t kHardwareVersion = 13;
inline constexpr uint8_t kSoftwareVersion = 14;
inline constexpr uint8_t kSerialNumber = 15;
inline constexpr uint8_t kPolePairs = 16;
inline constexpr uint8_t kPMax = 21;  // position range of MIT and feedback scaling, rad
inline constexpr uint8_t kVMax = 22;  // velocity range, rad/s
inline constexpr uint8_t kTMax = 23;  // torque range and limit, N·m
inline constexpr uint8_t kCurrentBandwidth = 24;
inline constexpr uint8_t kKpAsr = 25;  // speed loop gain
inline constexpr uint8_t kKiAsr = 26;
inline constexpr uint8_t kKpApr = 27;  // position loop gain, 1/s
inline constexpr uint8_t kKiApr = 28;
inline constexpr uint8_t kOverVoltage = 29;
inline constexpr uint8_t kSpeedBandwidth = 32;  // rad/s
inline constexpr uint8_t kCanBaudCode = 35;
inline constexpr uint8_t kSubVersion = 36;
}  // namespace reg

class RegisterFile {
 public:
  RegisterFile() = default;  // every register 0
  // Defaults of a freshly flashed motor of `type` with the given identifiers.
  RegisterFile(int type, uint32_t send_id, uint32_t master_id, double inertia);

  static bool is_integer(uint8_t rid);
  // Registers the firmware implements; others read back as 0 and ignore writes.
  static bool is_known(uint8_t rid);
  // Version and serial registers cannot be written.
  static bool is_read_only(uint8_t rid);

  uint32_t raw(uint8_t rid) const { return raw_[rid]; }
  // Integer registers as integers, float registers as floats, both widened to double.
  double value(uint8_t rid) const;
  float as_float(uint8_t rid) const { return dm::bits_float(raw_[rid]); }
  uint32_t as_uint(uint8_t rid) const { return raw_[rid]; }

  // Stores raw bits as a 0x55 write does; false (nothing stored) for unknown or read-only ids.
  bool write_raw(uint8_t rid, uint32_t bits);
  // Stores a value in the register's own representation, bypassing the read-only rule.
  void set(uint8_t rid, double value);
  static uint32_t encode(uint8_t rid, double value);

  // What a 0x33 read of `rid` returns: the stored bits, unless a read-back fault is set.
  uint32_t read_back(uint8_t rid) const;
  // Read-back faults: the register reads back `offset` off its stored value, or a fixed value.
  void set_read_back_offset(uint8_t rid, double offset);
  void set_read_back_override(uint8_t rid, double value);
  void clear_read_back_faults();

 private:
  struct ReadBackFault {
    double offset = 0.0;
    std::optional<double> override_value;
  };
  std::array<uint32_t, 256> raw_{};
  std::map<uint8_t, ReadBackFault> read_back_faults_;
};

}  // namespace kestrel::sim
