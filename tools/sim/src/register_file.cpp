#include "kestrel_sim/register_file.hpp"

#include <cmath>

namespace kestrel::sim {

RegisterFile::RegisterFile(int type, uint32_t send_id, uint32_t master_id, double inertia) {
  const dm::Limits limits = dm::limits_of_type(type);
  set(reg::kUnderVoltage, 10.0);
  set(reg::kTorqueConstant, limits.t_max / 10.0);
  set(reg::kOverTemperature, 120.0);
  set(reg::kOverCurrent, 0.98);
  set(reg::kAcc, 10.0);
  set(reg::kDec, 10.0);
  set(reg::kMaxSpeed, limits.v_max);
  set(reg::kMasterId, master_id);
  set(reg::kEscId, send_id);
  set(reg::kTimeout, 0);
  set(reg::kControlMode, dm::kModeMit);
  set(reg::kDamping, 0.0);
  set(reg::kInertia, inertia);
  set(reg::kHardwareVersion, 3);
  set(reg::kSoftwareVersion, 5013);
  set(reg::kSerialNumber, 0x4B530000u + send_id);
  set(reg::kPolePairs, 14);
  set(17, 0.52);     // Rs, Ω
  set(18, 0.00018);  // Ls, H
  set(19, 0.0087);   // flux linkage, Wb
  set(20, 10.0);     // gear ratio
  set(reg::kPMax, limits.p_max);
  set(reg::kVMax, limits.v_max);
  set(reg::kTMax, limits.t_max);
  set(reg::kCurrentBandwidth, 1000.0);
  set(reg::kKpAsr, 0.002);
  set(reg::kKiAsr, 0.002);
  set(reg::kKpApr, 30.0);
  set(reg::kKiApr, 0.0);
  set(reg::kOverVoltage, 52.0);
  set(30, 1.0);  // GREF
  set(31, 1.0);  // Deta
  set(reg::kSpeedBandwidth, 400.0);
  set(33, 1.0);               // IQ_c1
  set(34, 1.0);               // VL_c1
  set(reg::kCanBaudCode, 4);  // 1 Mbit/s
  set(reg::kSubVersion, 1);
}

bool RegisterFile::is_integer(uint8_t rid) {
  switch (rid) {
    case 7:
    case 8:
    case 9:
    case 10:
    case 13:
    case 14:
    case 15:
    case 16:
    case 35:
    case 36:
      return true;
    default:
      return false;
  }
}

bool RegisterFile::is_known(uint8_t rid) {
  return rid <= 36 || (rid >= 50 && rid <= 55) || rid == 80 || rid == 81;
}

bool RegisterFile::is_read_only(uint8_t rid) {
  return rid == reg::kHardwareVersion || rid == reg::kSoftwareVersion ||
         rid == reg::kSerialNumber || rid == reg::kSubVersion;
}

double RegisterFile::value(uint8_t rid) const {
  return is_integer(rid) ? static_cast<double>(raw_[rid]) : static_cast<double>(as_float(rid));
}

bool RegisterFile::write_raw(uint8_t rid, uint32_t bits) {
  if (!is_known(rid) || is_read_only(rid)) {
    return false;
  }
  raw_[rid] = bits;
  return true;
}

uint32_t RegisterFile::encode(uint8_t rid, double value) {
  if (is_integer(rid)) {
    if (!(value > 0.0)) {
      return 0;
    }
    return value >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(std::llround(value));
  }
  return dm::float_bits(static_cast<float>(value));
}

void RegisterFile::set(uint8_t rid, double value) {
  if (is_known(rid)) {
    raw_[rid] = encode(rid, value);
  }
}

uint32_t RegisterFile::read_back(uint8_t rid) const {
  auto it = read_back_faults_.find(rid);
  if (it == read_back_faults_.end()) {
    return raw_[rid];
  }
  const ReadBackFault& f = it->second;
  return encode(rid, f.override_value ? *f.override_value : value(rid) + f.offset);
}

void RegisterFile::set_read_back_offset(uint8_t rid, double offset) {
  read_back_faults_[rid] = ReadBackFault{offset, std::nullopt};
}

void RegisterFile::set_read_back_override(uint8_t rid, double value) {
  read_back_faults_[rid] = ReadBackFault{0.0, value};
}

void RegisterFile::clear_read_back_faults() {
  read_back_faults_.clear();
}

}  // namespace kestrel::sim
