// Bus load of the frames seen on an interface, counted two ways at once: as classic CAN at
// 1 Mbit/s and as CAN FD at 1/5 Mbit/s with bit-rate switch, so that one run tells how busy
// either kind of bus would be.
#pragma once

#include <linux/can.h>

#include <cstddef>

namespace kestrel::tools {

struct BusLoad {
  unsigned long long frames = 0;
  double classic_seconds = 0.0;  // wire time as classic 1 Mbit/s frames
  double fd_seconds = 0.0;       // wire time as CAN FD frames at 1/5 Mbit/s

  // Adds one frame as read from a raw socket (`size`: the bytes read, CAN_MTU or CANFD_MTU).
  void add(const canfd_frame& frame, std::size_t size);
};

}  // namespace kestrel::tools
