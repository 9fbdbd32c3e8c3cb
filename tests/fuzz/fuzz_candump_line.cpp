// The candump log line parser on arbitrary lines: a refusal with its reason, nothing for blank
// and comment lines, or a frame the kernel could have carried, which the describer can print.
#include <linux/can.h>

#include <cmath>

#include "candump_log.hpp"
#include "fuzz_support.hpp"

namespace km = kestrel::monitor;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const km::DmFrameDescriber describer;
  const std::string line(reinterpret_cast<const char*>(data), size);
  std::string error = "unset";
  const auto logged = km::parse_candump_line(line, error);
  if (!logged) {
    const auto first = line.find_first_not_of(" \t\r");
    const bool blank = first == std::string::npos || line[first] == '#';
    FUZZ_CHECK(error.empty() == blank);
    return 0;
  }
  FUZZ_CHECK(error.empty());
  const km::MonitoredFrame& frame = logged->frame;
  FUZZ_CHECK(std::isfinite(logged->timestamp));
  FUZZ_CHECK(!logged->interface.empty());
  FUZZ_CHECK(frame.data.size() <= (frame.fd ? CANFD_MAX_DLEN : CAN_MAX_DLEN));
  FUZZ_CHECK(!frame.rtr || frame.data.empty());
  FUZZ_CHECK(frame.fd || logged->fd_flags == 0);
  FUZZ_CHECK(logged->fd_flags <= 0xF);
  if (frame.error) {
    FUZZ_CHECK(frame.id <= CAN_ERR_MASK);
  } else {
    FUZZ_CHECK(frame.id <= (frame.extended ? CAN_EFF_MASK : CAN_SFF_MASK));
  }
  FUZZ_CHECK(!describer.describe(frame).empty());
  return 0;
}
