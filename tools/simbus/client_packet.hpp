// What one packet from a client asks of the hub, decided from its bytes and the little the hub
// knows of the sender. The hub's relay loop acts on the answer; nothing here touches a socket.
#pragma once

#include <linux/can.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "simbus/simbus_protocol.hpp"

namespace kestrel::simbus {

struct ClientPacket {
  enum class Kind {
    reject,         // not our protocol, or not allowed now: the hub drops the client
    frame,          // a frame the interface may carry: relayed while the interface is up
    invalid_frame,  // a frame the kernel would have refused: counted, then discarded
    attach,         // first packet of a data connection: config and filters
    update,         // new options for the attached client config.client_id
    query,
    set_state,  // argument: 1 up, 0 down
    set_mtu,    // argument: the MTU asked for
  };
  Kind kind = Kind::reject;
  protocol::ConfigMessage config{};  // attach and update
  std::vector<can_filter> filters;   // attach and update: config.filter_count records
  std::uint32_t argument = 0;        // set_state and set_mtu
};

// `attached`: the sender has already attached (a data connection); `fd_frames`: its socket takes
// CAN FD frames; `mtu`: the interface's MTU. A frame (16 or 72 bytes) from a client that has
// not attached is a reject; a control message from one that has is a reject too.
ClientPacket decode_client_packet(const unsigned char* data, std::size_t size, bool attached,
                                  bool fd_frames, int mtu);

}  // namespace kestrel::simbus
