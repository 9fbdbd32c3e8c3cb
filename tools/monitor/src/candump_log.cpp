#include "candump_log.hpp"

#include <linux/can.h>

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace kestrel::monitor {

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool parse_hex(const std::string& text, uint32_t& value) {
  value = 0;
  for (char c : text) {
    const int digit = hex_digit(c);
    if (digit < 0) {
      return false;
    }
    value = value << 4 | static_cast<uint32_t>(digit);
  }
  return !text.empty();
}

std::optional<LoggedFrame> refuse(std::string& error, const std::string& why,
                                  const std::string& line) {
  error = why + ": '" + line + "'";
  return std::nullopt;
}

}  // namespace

std::optional<LoggedFrame> parse_candump_line(const std::string& line, std::string& error) {
  error.clear();
  const auto first = line.find_first_not_of(" \t\r");
  if (first == std::string::npos || line[first] == '#') {
    return std::nullopt;
  }
  LoggedFrame logged;
  const auto close = line.find(')', first);
  if (line[first] != '(' || close == std::string::npos) {
    return refuse(error, "not a candump log line (no '(timestamp)')", line);
  }
  const std::string stamp = line.substr(first + 1, close - first - 1);
  char* end = nullptr;
  logged.timestamp = std::strtod(stamp.c_str(), &end);
  // strtod also takes "nan", "inf" and hexadecimal; candump writes seconds as plain digits.
  if (stamp.empty() || *end != '\0' || !std::isfinite(logged.timestamp)) {
    return refuse(error, "bad timestamp", line);
  }
  const auto name_start = line.find_first_not_of(' ', close + 1);
  const auto name_end = line.find(' ', name_start);
  if (name_start == std::string::npos || name_end == std::string::npos) {
    return refuse(error, "no interface and frame", line);
  }
  logged.interface = line.substr(name_start, name_end - name_start);
  std::string text = line.substr(name_end + 1);
  while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
    text.pop_back();
  }
  // candump -l adds " T" or " R" (transmitted, received) after the frame on newer versions.
  if (const auto space = text.find(' '); space != std::string::npos) {
    text.resize(space);
  }
  const auto hash = text.find('#');
  if (hash == std::string::npos) {
    return refuse(error, "no '#' in the frame", line);
  }
  const std::string id_text = text.substr(0, hash);
  uint32_t id = 0;
  if ((id_text.size() != 3 && id_text.size() != 8) || !parse_hex(id_text, id)) {
    return refuse(error, "identifier must be 3 or 8 hex digits", line);
  }
  MonitoredFrame& frame = logged.frame;
  if (id_text.size() == 8) {
    frame.error = (id & CAN_ERR_FLAG) != 0;
    frame.extended = !frame.error;
    frame.id = id & (frame.error ? CAN_ERR_MASK : CAN_EFF_MASK);
  } else if (id > CAN_SFF_MASK) {
    // Three digits reach 0xFFF, but a standard identifier has 11 bits.
    return refuse(error, "standard identifier above 7FF", line);
  } else {
    frame.id = id;
  }
  std::string data = text.substr(hash + 1);
  if (!data.empty() && data[0] == '#') {
    if (data.size() < 2 || hex_digit(data[1]) < 0) {
      return refuse(error, "CAN FD frame without its flags digit", line);
    }
    frame.fd = true;
    logged.fd_flags = static_cast<unsigned>(hex_digit(data[1]));
    data = data.substr(2);
  } else if (!data.empty() && (data[0] == 'R' || data[0] == 'r')) {
    frame.rtr = true;
    return logged;
  }
  std::string bytes;
  for (char c : data) {
    if (c != '.') {  // candump may separate bytes with dots
      bytes += c;
    }
  }
  const std::size_t capacity = frame.fd ? CANFD_MAX_DLEN : CAN_MAX_DLEN;
  if (bytes.size() % 2 != 0 || bytes.size() / 2 > capacity) {
    return refuse(error, "payload must be whole bytes, at most " + std::to_string(capacity), line);
  }
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    const int high = hex_digit(bytes[i]);
    const int low = hex_digit(bytes[i + 1]);
    if (high < 0 || low < 0) {
      return refuse(error, "payload is not hexadecimal", line);
    }
    frame.data.push_back(static_cast<uint8_t>(high << 4 | low));
  }
  return logged;
}

}  // namespace kestrel::monitor
