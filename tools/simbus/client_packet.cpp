#include "simbus/client_packet.hpp"

#include <cstring>

namespace kestrel::simbus {

namespace {

using Kind = ClientPacket::Kind;

ClientPacket of_kind(Kind kind) {
  ClientPacket packet;
  packet.kind = kind;
  return packet;
}

// The interposer checks all of this before sending; a client speaking the protocol by hand
// gets the same treatment as a kernel that would have refused the write.
ClientPacket decode_frame(const unsigned char* data, std::size_t size, bool attached,
                          bool fd_frames, int mtu) {
  if (!attached) {
    return of_kind(Kind::reject);
  }
  const bool valid = size == CAN_MTU ? data[offsetof(can_frame, can_dlc)] <= CAN_MAX_DLEN
                                     : fd_frames && mtu == CANFD_MTU &&
                                           data[offsetof(canfd_frame, len)] <= CANFD_MAX_DLEN;
  return of_kind(valid ? Kind::frame : Kind::invalid_frame);
}

ClientPacket decode_config(const unsigned char* data, std::size_t size, bool attached, Kind kind) {
  ClientPacket packet;
  if (attached || size < sizeof(packet.config)) {
    return packet;
  }
  std::memcpy(&packet.config, data, sizeof(packet.config));
  if (packet.config.filter_count > protocol::kMaxFilters ||
      size != sizeof(packet.config) + packet.config.filter_count * sizeof(can_filter)) {
    return packet;
  }
  packet.filters.resize(packet.config.filter_count);
  if (!packet.filters.empty()) {
    std::memcpy(packet.filters.data(), data + sizeof(packet.config),
                packet.filters.size() * sizeof(can_filter));
  }
  packet.kind = kind;
  return packet;
}

}  // namespace

ClientPacket decode_client_packet(const unsigned char* data, std::size_t size, bool attached,
                                  bool fd_frames, int mtu) {
  if (!protocol::is_control_size(size)) {
    return decode_frame(data, size, attached, fd_frames, mtu);
  }
  std::uint32_t header[2] = {0, 0};
  if (size >= sizeof(header)) {
    std::memcpy(header, data, sizeof(header));
  }
  if (header[0] != protocol::kMagic) {
    return of_kind(Kind::reject);
  }
  using protocol::MessageType;
  switch (static_cast<MessageType>(header[1])) {
    case MessageType::attach:
      return decode_config(data, size, attached, Kind::attach);
    case MessageType::update:
      return decode_config(data, size, attached, Kind::update);
    case MessageType::query:
    case MessageType::set_state:
    case MessageType::set_mtu: {
      protocol::RequestMessage request{};
      if (attached || size != sizeof(request)) {
        return of_kind(Kind::reject);
      }
      std::memcpy(&request, data, sizeof(request));
      ClientPacket packet;
      packet.kind = static_cast<MessageType>(request.type) == MessageType::set_state
                        ? Kind::set_state
                    : static_cast<MessageType>(request.type) == MessageType::set_mtu ? Kind::set_mtu
                                                                                     : Kind::query;
      packet.argument = request.argument;
      return packet;
    }
    default:
      return of_kind(Kind::reject);
  }
}

}  // namespace kestrel::simbus
