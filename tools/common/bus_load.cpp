#include "bus_load.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "simbus/simbus_wire_time.hpp"

namespace kestrel::tools {

void BusLoad::add(const canfd_frame& frame, std::size_t size) {
  const bool is_fd = size == CANFD_MTU;
  const size_t payload = std::min<size_t>(frame.len, is_fd ? 64 : 8);
  can_frame classic{};
  classic.can_id = frame.can_id;
  classic.len = static_cast<uint8_t>(std::min<size_t>(payload, 8));
  std::memcpy(classic.data, frame.data, classic.len);
  canfd_frame as_fd = frame;
  as_fd.flags = CANFD_BRS;
  classic_seconds +=
      std::chrono::duration<double>(kestrel::simbus::frame_wire_time(&classic, sizeof classic))
          .count();
  fd_seconds +=
      std::chrono::duration<double>(kestrel::simbus::frame_wire_time(&as_fd, sizeof as_fd)).count();
  ++frames;
}

}  // namespace kestrel::tools
