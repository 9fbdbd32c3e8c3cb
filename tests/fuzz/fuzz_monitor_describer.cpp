// The bus monitor's frame describer on arbitrary frames: one line of text for every frame, and
// direction and motor that agree with each other.
#include <algorithm>

#include "dm_frame_describer.hpp"
#include "fuzz_support.hpp"

namespace km = kestrel::monitor;

// Byte 0: flags (extended, FD, remote, error); bytes 1-4: identifier, little-endian; the rest is
// the payload, at most 8 bytes (64 for FD).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const km::DmFrameDescriber describer;
  if (size < 5) {
    return 0;
  }
  km::MonitoredFrame frame;
  frame.extended = (data[0] & 1) != 0;
  frame.fd = (data[0] & 2) != 0;
  frame.rtr = (data[0] & 4) != 0;
  frame.error = (data[0] & 8) != 0;
  frame.id = static_cast<uint32_t>(data[1] | data[2] << 8 | data[3] << 16) |
             static_cast<uint32_t>(data[4]) << 24;
  frame.id &= frame.extended ? 0x1FFFFFFFu : 0x7FFu;
  const size_t length = std::min<size_t>(size - 5, frame.fd ? 64 : 8);
  frame.data.assign(data + 5, data + 5 + length);

  const std::string line = describer.describe(frame);
  FUZZ_CHECK(!line.empty() && line.find('\n') == std::string::npos);
  const int motor = describer.motor_of(frame);
  FUZZ_CHECK(motor >= -1 && motor < 7);
  FUZZ_CHECK(describer.direction(frame) != km::Direction::from_motor || motor >= 0);
  FUZZ_CHECK(km::hex_bytes(frame.data).size() == (length == 0 ? 0 : 3 * length - 1));
  return 0;
}
