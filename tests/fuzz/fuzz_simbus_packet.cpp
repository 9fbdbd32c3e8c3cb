// The userspace bus hub's decoding of client packets on arbitrary bytes, for every state the
// sender may be in: frames only from attached clients and only when the kernel would take them,
// configurations only with exactly their announced filters, requests only on fresh control
// connections; and the wire time of every frame the hub would relay.
#include <cstring>
#include <memory>

#include "fuzz_support.hpp"
#include "simbus/client_packet.hpp"
#include "simbus/simbus_wire_time.hpp"

namespace ks = kestrel::simbus;
namespace proto = kestrel::simbus::protocol;
using Kind = ks::ClientPacket::Kind;

// Byte 0: the sender's state (attached, FD socket, interface MTU 72 or 16); the rest is the
// packet as it arrived, at most the hub's receive buffer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size - 1 > proto::kMaxMessageSize + 8) {
    return 0;
  }
  const bool attached = (data[0] & 1) != 0;
  const bool fd_frames = (data[0] & 2) != 0;
  const int mtu = (data[0] & 4) != 0 ? CAN_MTU : CANFD_MTU;
  // An exact-size copy, so that any read past the packet is caught.
  const size_t length = size - 1;
  std::unique_ptr<unsigned char[]> packet(new unsigned char[length]);
  std::memcpy(packet.get(), data + 1, length);

  const ks::ClientPacket p =
      ks::decode_client_packet(packet.get(), length, attached, fd_frames, mtu);
  const bool frame_size = length == CAN_MTU || length == CANFD_MTU;
  switch (p.kind) {
    case Kind::frame: {
      FUZZ_CHECK(frame_size && attached);
      if (length == CAN_MTU) {
        FUZZ_CHECK(packet[offsetof(can_frame, can_dlc)] <= CAN_MAX_DLEN);
      } else {
        FUZZ_CHECK(fd_frames && mtu == CANFD_MTU);
        FUZZ_CHECK(packet[offsetof(canfd_frame, len)] <= CANFD_MAX_DLEN);
      }
      // The longest frame (64 bytes FD without bit-rate switch, 29-bit identifier) takes 598
      // bits: 598 µs at 1 Mbit/s. At 10 kbit/s, the slowest rate a CAN node offers, 100 times.
      const auto fast = ks::frame_wire_time(packet.get(), length);
      const auto slow = ks::frame_wire_time(packet.get(), length, 10000, 10000);
      FUZZ_CHECK(fast.count() > 0 && fast.count() <= 598000);
      FUZZ_CHECK(slow.count() > 0 && slow.count() <= 59800000);
      break;
    }
    case Kind::invalid_frame:
      FUZZ_CHECK(frame_size && attached);
      break;
    case Kind::attach:
    case Kind::update:
      FUZZ_CHECK(!attached && !frame_size);
      FUZZ_CHECK(p.config.magic == proto::kMagic);
      FUZZ_CHECK(p.config.type == static_cast<uint32_t>(p.kind == Kind::attach
                                                            ? proto::MessageType::attach
                                                            : proto::MessageType::update));
      FUZZ_CHECK(p.config.filter_count <= proto::kMaxFilters);
      FUZZ_CHECK(p.filters.size() == p.config.filter_count);
      FUZZ_CHECK(length == sizeof(proto::ConfigMessage) + p.filters.size() * sizeof(can_filter));
      FUZZ_CHECK(p.filters.empty() ||
                 std::memcmp(p.filters.data(), packet.get() + sizeof(proto::ConfigMessage),
                             p.filters.size() * sizeof(can_filter)) == 0);
      break;
    case Kind::query:
    case Kind::set_state:
    case Kind::set_mtu:
      FUZZ_CHECK(!attached && length == sizeof(proto::RequestMessage));
      break;
    case Kind::reject:
      break;
  }
  // A frame-sized packet is always a frame, never a control message.
  FUZZ_CHECK(!frame_size || p.kind == Kind::frame || p.kind == Kind::invalid_frame ||
             p.kind == Kind::reject);
  return 0;
}
