#include "dm_frame_describer.hpp"

#include <array>
#include <cstdio>
#include <sstream>

#include "kestrel/damiao_motor/dm_motor_codec.hpp"
#include "kestrel/damiao_motor/dm_motor_device.hpp"

namespace kestrel::monitor {

namespace dm = kestrel::damiao_motor;

namespace {

// The DM register map, by register id.
constexpr std::array<const char*, 37> kRegisterNames = {
    "UV_Value", "KT_Value", "OT_Value",  "OC_Value", "ACC",     "DEC",      "MAX_SPD", "MST_ID",
    "ESC_ID",   "TIMEOUT",  "CTRL_MODE", "Damp",     "Inertia", "hw_ver",   "sw_ver",  "SN",
    "NPP",      "Rs",       "LS",        "Flux",     "Gr",      "PMAX",     "VMAX",    "TMAX",
    "I_BW",     "KP_ASR",   "KI_ASR",    "KP_APR",   "KI_APR",  "OV_Value", "GREF",    "Deta",
    "V_BW",     "IQ_c1",    "VL_c1",     "can_br",   "sub_ver"};

std::string fixed(double value, int decimals, bool sign = true) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, sign ? "%+.*f" : "%.*f", decimals, value);
  return buffer;
}

std::string id_text(uint32_t id) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%03X", static_cast<unsigned>(id));
  return buffer;
}

// The 32-bit value of bytes 4..7 as the register holds it.
std::string register_value(int rid, const std::vector<uint8_t>& d) {
  if (register_is_integer(rid)) {
    return std::to_string(dm::CanPacketDecoder::uint8s_to_uint32(d[4], d[5], d[6], d[7]));
  }
  std::ostringstream out;
  out << dm::CanPacketDecoder::uint8s_to_float({d[4], d[5], d[6], d[7]});
  return out.str();
}

}  // namespace

std::vector<MonitoredMotor> arm_motor_table() {
  using T = dm::MotorType;
  std::vector<MonitoredMotor> motors;
  for (uint32_t i = 1; i <= 7; ++i) {
    MonitoredMotor m;
    m.name = i == 7 ? "gripper" : "joint " + std::to_string(i);
    m.send_id = i;
    m.recv_id = 0x10 + i;
    m.type = i <= 3 ? T::DM_V8_T28 : T::DM_V30_T10;
    motors.push_back(m);
  }
  return motors;
}

std::string register_name(int rid) {
  if (rid >= 0 && rid < static_cast<int>(kRegisterNames.size())) {
    return kRegisterNames[static_cast<size_t>(rid)];
  }
  return "reg" + std::to_string(rid);
}

bool register_is_integer(int rid) {
  return dm::CanPacketDecoder::is_in_ranges(rid);
}

std::string hex_bytes(const std::vector<uint8_t>& data) {
  std::string out;
  char buffer[4];
  for (size_t i = 0; i < data.size(); ++i) {
    std::snprintf(buffer, sizeof buffer, "%02X", data[i]);
    out += (i ? " " : "");
    out += buffer;
  }
  return out;
}

DmFrameDescriber::DmFrameDescriber(std::vector<MonitoredMotor> motors)
    : motors_(std::move(motors)) {}

const MonitoredMotor* DmFrameDescriber::by_send_id(uint32_t id) const {
  for (const auto& m : motors_) {
    if (m.send_id == id) {
      return &m;
    }
  }
  return nullptr;
}

const MonitoredMotor* DmFrameDescriber::by_recv_id(uint32_t id) const {
  for (const auto& m : motors_) {
    if (m.recv_id == id) {
      return &m;
    }
  }
  return nullptr;
}

Direction DmFrameDescriber::direction(const MonitoredFrame& f) const {
  if (f.error || f.extended) {
    return Direction::unknown;
  }
  if (by_recv_id(f.id) != nullptr) {
    return Direction::from_motor;
  }
  if (f.id == dm::PARAM_CAN_ID || by_send_id(f.id) != nullptr ||
      (f.id > dm::POS_VEL_ID_OFFSET && by_send_id(f.id - dm::POS_VEL_ID_OFFSET) != nullptr)) {
    return Direction::to_motor;
  }
  return Direction::unknown;
}

int DmFrameDescriber::motor_of(const MonitoredFrame& f) const {
  const MonitoredMotor* m = nullptr;
  if (f.error || f.extended) {
    return -1;
  }
  if ((m = by_recv_id(f.id)) == nullptr && (m = by_send_id(f.id)) == nullptr) {
    if (f.id > dm::POS_VEL_ID_OFFSET) {
      m = by_send_id(f.id - dm::POS_VEL_ID_OFFSET);
    }
    if (m == nullptr && f.id == dm::PARAM_CAN_ID && f.data.size() >= 2) {
      m = by_send_id(static_cast<uint32_t>(f.data[0] | (f.data[1] << 8)));
    }
  }
  return m == nullptr ? -1 : static_cast<int>(m - motors_.data());
}

std::string DmFrameDescriber::describe_parameter_frame(const MonitoredFrame& f) const {
  const auto& d = f.data;
  if (d.size() < 4) {
    return "parameter frame, too short (" + std::to_string(d.size()) + " bytes)";
  }
  const uint32_t target = static_cast<uint32_t>(d[0] | (d[1] << 8));
  const MonitoredMotor* m = by_send_id(target);
  const std::string who = m ? m->name + " (id " + std::to_string(target) + ")"
                            : "id " + std::to_string(target) + " (not in the table)";
  const int rid = d[3];
  switch (d[2]) {
    case dm::PARAM_REFRESH:
      return who + " refresh (asks for a feedback frame)";
    case dm::PARAM_READ:
      return who + " read register " + std::to_string(rid) + " " + register_name(rid);
    case dm::PARAM_WRITE:
      if (d.size() < 8) {
        return who + " write register " + std::to_string(rid) + ", value missing";
      }
      return who + " write register " + std::to_string(rid) + " " + register_name(rid) + " = " +
             register_value(rid, d);
    case 0xAA:
      return who + " save parameters to flash";
    default:
      return who + " parameter frame with unknown command 0x" + hex_bytes({d[2]});
  }
}

std::string DmFrameDescriber::describe_reply(const MonitoredMotor& m,
                                             const MonitoredFrame& f) const {
  const auto& d = f.data;
  const std::string who = m.name + " (id " + std::to_string(m.send_id) + ")";
  if (d.size() < 8) {
    return who + " reply too short (" + std::to_string(d.size()) + " bytes): " + hex_bytes(d);
  }
  // A register reply repeats the motor's id in bytes 0-1 and the command in byte 2; a feedback
  // frame starts with status and id in one byte and the position's high byte.
  const bool register_reply = d[0] == (m.send_id & 0xFF) && d[1] == ((m.send_id >> 8) & 0xFF) &&
                              (d[2] == dm::PARAM_READ || d[2] == dm::PARAM_WRITE);
  if (register_reply) {
    const int rid = d[3];
    return who + (d[2] == dm::PARAM_READ ? " register " : " wrote register ") +
           std::to_string(rid) + " " + register_name(rid) + " = " + register_value(rid, d);
  }
  dm::Motor motor(m.type, m.send_id, m.recv_id);
  const dm::StateResult s = dm::CanPacketDecoder::parse_motor_state_data(motor, d);
  std::ostringstream out;
  out << who << " feedback " << dm::dm_status_text(s.error_code) << " (" << s.error_code
      << ") q=" << fixed(s.position, 4) << " rad dq=" << fixed(s.velocity, 3)
      << " rad/s tau=" << fixed(s.torque, 3) << " N·m T_mos=" << s.t_mos
      << "°C T_rotor=" << s.t_rotor << "°C";
  if (s.feedback_id != static_cast<int>(m.send_id & 0x0F)) {
    out << " (id nibble " << s.feedback_id << ")";
  }
  return out.str();
}

std::string DmFrameDescriber::describe(const MonitoredFrame& f) const {
  if (f.error) {
    return "error frame id=" + id_text(f.id) + " data: " + hex_bytes(f.data);
  }
  if (f.rtr) {
    return "remote request id=" + id_text(f.id);
  }
  const auto& d = f.data;
  if (!f.extended) {
    if (f.id == dm::PARAM_CAN_ID) {
      return describe_parameter_frame(f);
    }
    if (const MonitoredMotor* m = by_recv_id(f.id)) {
      return describe_reply(*m, f);
    }
    if (const MonitoredMotor* m = by_send_id(f.id)) {
      const std::string who = m->name + " (id " + std::to_string(m->send_id) + ")";
      if (d.size() == 8 && d[0] == 0xFF && d[1] == 0xFF && d[2] == 0xFF && d[3] == 0xFF &&
          d[4] == 0xFF && d[5] == 0xFF && d[6] == 0xFF) {
        switch (d[7]) {
          case dm::CMD_ENABLE:
            return who + " enable";
          case dm::CMD_DISABLE:
            return who + " disable";
          case dm::CMD_SET_ZERO:
            return who + " set zero position";
          case dm::CMD_CLEAR_ERROR:
            return who + " clear error";
          default:
            return who + " unknown special command 0x" + hex_bytes({d[7]});
        }
      }
      if (d.size() < 8) {
        return who + " MIT command too short (" + std::to_string(d.size()) +
               " bytes): " + hex_bytes(d);
      }
      // MIT: q 16 bits, dq 12, kp 12, kd 12, tau 12, most significant first.
      const auto lim = dm::Motor::get_limit_param(m->type);
      const auto u = [](unsigned v) { return static_cast<uint16_t>(v); };
      const double q =
          dm::CanPacketDecoder::uint_to_double(u((d[0] << 8) | d[1]), -lim.p_max, lim.p_max, 16);
      const double dq = dm::CanPacketDecoder::uint_to_double(u((d[2] << 4) | (d[3] >> 4)),
                                                             -lim.v_max, lim.v_max, 12);
      const double kp =
          dm::CanPacketDecoder::uint_to_double(u(((d[3] & 0x0F) << 8) | d[4]), 0.0, 500.0, 12);
      const double kd =
          dm::CanPacketDecoder::uint_to_double(u((d[5] << 4) | (d[6] >> 4)), 0.0, 5.0, 12);
      const double tau = dm::CanPacketDecoder::uint_to_double(u(((d[6] & 0x0F) << 8) | d[7]),
                                                              -lim.t_max, lim.t_max, 12);
      return who + " MIT q=" + fixed(q, 4) + " rad dq=" + fixed(dq, 3) +
             " rad/s kp=" + fixed(kp, 2, false) + " kd=" + fixed(kd, 3, false) +
             " tau=" + fixed(tau, 3) + " N·m";
    }
    if (f.id > dm::POS_VEL_ID_OFFSET) {
      if (const MonitoredMotor* m = by_send_id(f.id - dm::POS_VEL_ID_OFFSET)) {
        const std::string who = m->name + " (id " + std::to_string(m->send_id) + ")";
        if (d.size() < 8) {
          return who + " position-velocity command too short: " + hex_bytes(d);
        }
        const float p = dm::CanPacketDecoder::uint8s_to_float({d[0], d[1], d[2], d[3]});
        const float v = dm::CanPacketDecoder::uint8s_to_float({d[4], d[5], d[6], d[7]});
        return who + " position-velocity p=" + fixed(p, 4) + " rad v=" + fixed(v, 3) + " rad/s";
      }
    }
  }
  return std::string("unknown ") + (f.extended ? "extended " : "") + "id=" + id_text(f.id) + " [" +
         std::to_string(d.size()) + "] " + hex_bytes(d);
}

}  // namespace kestrel::monitor
