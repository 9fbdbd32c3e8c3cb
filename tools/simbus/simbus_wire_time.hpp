// How long a frame occupies a CAN bus.
//
// Bit counts leave out stuff bits: the nominal count is the one bus-load figures are usually
// quoted with (an 8-byte classic frame with an 11-bit identifier is 111 bits; worst-case
// stuffing would add up to 24 more, 135 in all). The fixed stuff bits of the CAN FD CRC field
// are part of the format and are counted.
//
// Classic frame, n data bytes (none for a remote frame):
//   11-bit identifier: SOF 1, identifier 11, RTR 1, IDE 1, r0 1, DLC 4, data 8n, CRC 15,
//   CRC delimiter 1, ACK slot 1, ACK delimiter 1, EOF 7, intermission 3  = 47 + 8n bits
//   29-bit identifier: adds SRR 1, the 18 identifier extension bits and r1 1  = 67 + 8n bits
//
// CAN FD frame, payload n padded up to the next valid length (12, 16, 20, 24, 32, 48, 64):
//   arbitration phase, nominal rate: SOF 1, identifier 11, RRS 1, IDE 1, FDF 1, res 1, BRS 1
//     = 17 bits (29-bit identifier: plus SRR 1 and 18 identifier bits = 36)
//   data phase, data rate when BRS is set: ESI 1, DLC 4, data 8n, stuff count 4,
//     CRC 17 (n <= 16) or 21, fixed stuff bits 6 or 7 (one before the stuff count, then one
//     every 4 bits)  = 32 + 8n bits (n <= 16) or 37 + 8n bits
//   tail, nominal rate: CRC delimiter 1, ACK slot 1, ACK delimiter 1, EOF 7, intermission 3
//     = 13 bits
// The rate switches at the BRS bit and back at the CRC delimiter; counting both bits whole at
// the nominal rate is the usual approximation. Without BRS every bit runs at the nominal rate.
// An 8-byte FD frame at 1 and 5 Mbit/s: 30 bits at 1 Mbit/s + 96 bits at 5 Mbit/s = 49.2 µs.
#pragma once

#include <linux/can.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kestrel::simbus {

inline constexpr std::uint32_t kDefaultBitrate = 1000000;
inline constexpr std::uint32_t kDefaultDataBitrate = 5000000;

struct FrameBits {
  std::uint32_t nominal = 0;  // bits sent at the nominal (arbitration) bit rate
  std::uint32_t data = 0;     // bits sent at the data bit rate (CAN FD with BRS only)
};

// Payload length a CAN FD frame really carries on the wire: lengths between the valid DLC
// steps are padded up to the next one.
std::size_t padded_canfd_length(std::size_t length);

FrameBits classic_frame_bits(const can_frame& frame);
FrameBits canfd_frame_bits(const canfd_frame& frame);

// Wire time of one kernel frame record: 16 bytes (can_frame) or 72 bytes (canfd_frame).
std::chrono::nanoseconds frame_wire_time(const void* frame, std::size_t size,
                                         std::uint32_t bitrate = kDefaultBitrate,
                                         std::uint32_t data_bitrate = kDefaultDataBitrate);

std::chrono::nanoseconds bits_to_time(FrameBits bits, std::uint32_t bitrate,
                                      std::uint32_t data_bitrate);

}  // namespace kestrel::simbus
