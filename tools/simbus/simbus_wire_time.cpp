#include "simbus/simbus_wire_time.hpp"

#include <algorithm>

namespace kestrel::simbus {

namespace {

constexpr std::uint32_t kClassicStandardOverhead = 47;
constexpr std::uint32_t kClassicExtendedOverhead = 67;
constexpr std::uint32_t kFdStandardArbitration = 17;
constexpr std::uint32_t kFdExtendedArbitration = 36;
constexpr std::uint32_t kFdTail = 13;
constexpr std::uint32_t kFdShortDataOverhead = 32;  // ESI, DLC, stuff count, CRC-17, 6 FSB
constexpr std::uint32_t kFdLongDataOverhead = 37;   // ESI, DLC, stuff count, CRC-21, 7 FSB

}  // namespace

std::size_t padded_canfd_length(std::size_t length) {
  static constexpr std::size_t kSteps[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  for (std::size_t step : kSteps) {
    if (length <= step) {
      return step;
    }
  }
  return CANFD_MAX_DLEN;
}

FrameBits classic_frame_bits(const can_frame& frame) {
  const bool extended = (frame.can_id & CAN_EFF_FLAG) != 0;
  const bool remote = (frame.can_id & CAN_RTR_FLAG) != 0;
  const std::uint32_t bytes = remote ? 0 : std::min<std::uint32_t>(frame.can_dlc, CAN_MAX_DLEN);
  FrameBits bits;
  bits.nominal = (extended ? kClassicExtendedOverhead : kClassicStandardOverhead) + 8 * bytes;
  return bits;
}

FrameBits canfd_frame_bits(const canfd_frame& frame) {
  const bool extended = (frame.can_id & CAN_EFF_FLAG) != 0;
  const auto bytes = static_cast<std::uint32_t>(padded_canfd_length(frame.len));
  const std::uint32_t arbitration = extended ? kFdExtendedArbitration : kFdStandardArbitration;
  const std::uint32_t data_phase =
      (bytes <= 16 ? kFdShortDataOverhead : kFdLongDataOverhead) + 8 * bytes;
  FrameBits bits;
  if ((frame.flags & CANFD_BRS) != 0) {
    bits.nominal = arbitration + kFdTail;
    bits.data = data_phase;
  } else {
    bits.nominal = arbitration + data_phase + kFdTail;
  }
  return bits;
}

std::chrono::nanoseconds bits_to_time(FrameBits bits, std::uint32_t bitrate,
                                      std::uint32_t data_bitrate) {
  // Rounded to the nearest nanosecond; 64 bits leave ample room for bits * 1e9.
  auto ns = [](std::uint64_t count, std::uint32_t rate) -> std::int64_t {
    return rate == 0 ? 0 : static_cast<std::int64_t>((count * 1000000000ull + rate / 2) / rate);
  };
  return std::chrono::nanoseconds(ns(bits.nominal, bitrate) + ns(bits.data, data_bitrate));
}

std::chrono::nanoseconds frame_wire_time(const void* frame, std::size_t size, std::uint32_t bitrate,
                                         std::uint32_t data_bitrate) {
  if (size == CANFD_MTU) {
    return bits_to_time(canfd_frame_bits(*static_cast<const canfd_frame*>(frame)), bitrate,
                        data_bitrate);
  }
  if (size == CAN_MTU) {
    return bits_to_time(classic_frame_bits(*static_cast<const can_frame*>(frame)), bitrate,
                        data_bitrate);
  }
  return std::chrono::nanoseconds(0);
}

}  // namespace kestrel::simbus
