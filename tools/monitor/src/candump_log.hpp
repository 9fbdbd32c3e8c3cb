// Reads the log format of `candump -L` (and `-l`), so that a recording of any bus, made by the
// standard tool on a real interface or vcan, can be decoded by the monitor after the fact:
//   (1700000000.123456) can0 123#DEADBEEF       classic frame, 11-bit identifier
//   (1700000000.123456) can0 12345678#00        29-bit identifier (8 hex digits)
//   (1700000000.123456) can0 123##1DEADBEEF     CAN FD frame: one hex digit of flags, then data
//   (1700000000.123456) can0 123#R              remote frame
// An identifier of 8 digits with CAN_ERR_FLAG set is an error frame.
#pragma once

#include <optional>
#include <string>

#include "dm_frame_describer.hpp"

namespace kestrel::monitor {

struct LoggedFrame {
  double timestamp = 0.0;  // seconds, as logged
  std::string interface;
  MonitoredFrame frame;
  unsigned fd_flags = 0;  // CAN FD only: CANFD_BRS, CANFD_ESI
};

// One line of a candump log. nullopt with `error` set when the line is not one; empty lines and
// lines starting with '#' give nullopt with `error` empty.
std::optional<LoggedFrame> parse_candump_line(const std::string& line, std::string& error);

}  // namespace kestrel::monitor
