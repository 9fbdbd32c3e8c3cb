// The DM feedback and parameter-reply decoders on arbitrary payloads, for every motor model:
// feedback inside the model's ranges, replies carrying exactly the register's 32 bits.
#include <cmath>
#include <cstring>

#include "fuzz_support.hpp"
#include "kestrel/damiao_motor/dm_motor_codec.hpp"

namespace dm = kestrel::damiao_motor;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (int type = 0; type < dm::MOTOR_TYPE_COUNT; ++type) {
    const dm::Motor motor(static_cast<dm::MotorType>(type), 1, 0x11);
    const dm::LimitParam lim = dm::Motor::get_limit_param(motor.get_motor_type());
    const dm::StateResult s = dm::CanPacketDecoder::parse_motor_state_data(motor, data, size);
    FUZZ_CHECK(s.valid == (size >= 8));
    if (!s.valid) {
      continue;
    }
    FUZZ_CHECK(s.position >= -lim.p_max && s.position <= lim.p_max);
    FUZZ_CHECK(s.velocity >= -lim.v_max && s.velocity <= lim.v_max);
    FUZZ_CHECK(s.torque >= -lim.t_max && s.torque <= lim.t_max);
    FUZZ_CHECK(s.feedback_id == (data[0] & 0x0F) && s.error_code == data[0] >> 4);
    FUZZ_CHECK(s.t_mos == data[6] && s.t_rotor == data[7]);
    // The ends of each field are the ends of the range, exactly.
    const uint16_t q_raw = static_cast<uint16_t>(data[1] << 8 | data[2]);
    FUZZ_CHECK(q_raw != 0 || s.position == -lim.p_max);
    FUZZ_CHECK(q_raw != 0xFFFF || s.position == lim.p_max);
  }

  const dm::ParamResult r = dm::CanPacketDecoder::parse_motor_param_data(data, size);
  const bool answer = size >= 8 && (data[2] == dm::PARAM_READ || data[2] == dm::PARAM_WRITE);
  FUZZ_CHECK(r.valid == answer);
  if (!r.valid) {
    FUZZ_CHECK(std::isnan(r.value));
    return 0;
  }
  FUZZ_CHECK(r.rid == data[3] && r.command == data[2]);
  uint32_t bits = 0;
  std::memcpy(&bits, data + 4, sizeof(bits));  // little-endian, as the motor sends it
  if (dm::CanPacketDecoder::is_in_ranges(r.rid)) {
    FUZZ_CHECK(r.value == static_cast<double>(bits));
  } else {
    float expected = 0.0f;
    std::memcpy(&expected, &bits, sizeof(expected));
    FUZZ_CHECK(std::isnan(expected) ? std::isnan(r.value)
                                    : r.value == static_cast<double>(expected));
  }
  return 0;
}
