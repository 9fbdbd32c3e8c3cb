// What travels on a hub's Unix sockets.
//
// A data connection (one per emulated CAN socket) carries kernel frames unchanged, one frame
// per sequenced packet: 16 bytes for struct can_frame, 72 bytes for struct canfd_frame. Every
// other packet size is a control message, so the two never need a tag. The client's first
// packet must be an attach message; the hub answers it with an attached message before it
// relays any frame to the client, which lets bind() return only once delivery has begun.
//
// A control connection carries one request and one answer (query, set-state, update of an
// attached client's options) and is then closed.
//
// Every control message starts with kMagic and its type. The interface state page is mapped
// by both sides and holds lock-free atomics only.
#pragma once

#include <linux/can.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestrel::simbus::protocol {

inline constexpr std::uint32_t kMagic = 0x4B534231;  // "KSB1"
inline constexpr std::uint32_t kVersion = 2;

enum class MessageType : std::uint32_t {
  attach = 1,     // client → hub, first packet of a data connection
  attached = 2,   // hub → client, answer to attach
  update = 3,     // client → hub on a control connection: new options for an attached client
  query = 4,      // client → hub: interface state and counters
  set_state = 5,  // client → hub: interface up or down
  info = 6,       // hub → client: answer to update, query, set-state and set-mtu
  set_mtu = 7,    // client → hub: interface MTU, CAN_MTU or CANFD_MTU (only while down)
};

// Options of one CAN socket, as the hub applies them when it delivers frames.
enum ConfigFlags : std::uint32_t {
  kConfigFdFrames = 1u << 0,
  kConfigRecvOwnMsgs = 1u << 1,
  kConfigJoinFilters = 1u << 2,
  kConfigLoopback = 1u << 3,
};

// Followed by filter_count struct can_filter records. The fixed part is 4 modulo 8 bytes long,
// so that no filter count makes the message 16 or 72 bytes long.
struct ConfigMessage {
  std::uint32_t magic;
  std::uint32_t type;  // attach or update
  std::uint32_t version;
  std::uint32_t client_id;  // update only: the id the hub gave in its attached answer
  std::uint32_t flags;
  std::uint32_t err_mask;
  std::uint32_t filter_count;
};

inline constexpr std::size_t kMaxFilters = 512;  // CAN_RAW_FILTER_MAX
inline constexpr std::size_t kMaxMessageSize =
    sizeof(ConfigMessage) + kMaxFilters * sizeof(can_filter);

struct AttachedMessage {
  std::uint32_t magic;
  std::uint32_t type;
  std::uint32_t client_id;
  std::int32_t ifindex;
  std::uint32_t up;
};

struct RequestMessage {
  std::uint32_t magic;
  std::uint32_t type;      // query, set_state or set_mtu
  std::uint32_t argument;  // set_state: 1 up, 0 down; set_mtu: the MTU
};

// busy: the MTU of an interface that is up cannot change.
enum class InfoStatus : std::uint32_t { ok = 0, unknown_client = 1, bad_request = 2, busy = 3 };

struct InfoMessage {
  std::uint32_t magic;
  std::uint32_t type;
  std::uint32_t status;
  std::uint32_t up;
  std::uint32_t wire_time;
  std::uint32_t clients;
  std::uint32_t bitrate;
  std::uint32_t data_bitrate;
  std::uint32_t mtu;
  std::uint32_t reserved;
  std::uint64_t frames_received;
  std::uint64_t frames_relayed;
  std::uint64_t deliveries;
  std::uint64_t frames_dropped;
  std::uint64_t frames_discarded;
  std::uint64_t busy_ns;
  std::uint64_t elapsed_ns;
};

constexpr bool is_control_size(std::size_t size) {
  return size != CAN_MTU && size != CANFD_MTU;
}
static_assert(sizeof(ConfigMessage) % 8 == 4 && sizeof(can_filter) == 8,
              "attach messages must never be mistaken for frames");
static_assert(is_control_size(sizeof(AttachedMessage)));
static_assert(is_control_size(sizeof(RequestMessage)));
static_assert(is_control_size(sizeof(InfoMessage)));

// The page behind <dir>/<ifname>:state.
struct StateBlock {
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t instance;  // random per hub interface: tells a restarted hub's page apart
  std::atomic<std::uint32_t> up;
  std::atomic<std::uint32_t> alive;  // 0 once the hub has stopped serving the interface
  std::atomic<std::uint32_t> mtu;    // CAN_MTU: classic frames only; CANFD_MTU: CAN FD too
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free,
              "the state page is shared between processes");
inline constexpr std::size_t kStateFileSize = 4096;

}  // namespace kestrel::simbus::protocol
