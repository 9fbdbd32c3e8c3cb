#include "simbus/hub.hpp"

#include <fcntl.h>
#include <linux/can/error.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <optional>
#include <queue>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "simbus/client_packet.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_protocol.hpp"

namespace kestrel::simbus {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

constexpr int kMessagesPerWakeup = 64;  // per client, so that one chatty client cannot starve
constexpr int kListenBacklog = 128;

std::runtime_error system_failure(const std::string& what, int error) {
  return std::runtime_error(what + ": " + std::strerror(error));
}

// CAN arbitration compares identifier bits from the most significant one; at equal base
// identifier a standard data frame beats a standard remote frame (RTR), which beats an extended
// frame (recessive SRR and IDE). The key orders frames the same way.
std::uint64_t arbitration_key(canid_t id) {
  const bool remote = (id & CAN_RTR_FLAG) != 0;
  if ((id & CAN_EFF_FLAG) != 0) {
    const std::uint64_t base = (id & CAN_EFF_MASK) >> 18;
    const std::uint64_t extension = id & 0x3FFFFu;
    return base << 21 | 1u << 20 | 1u << 19 | extension << 1 | (remote ? 1u : 0u);
  }
  return static_cast<std::uint64_t>(id & CAN_SFF_MASK) << 21 | (remote ? 1u << 20 : 0u);
}

// The kernel's match for one raw filter: (id & mask) == (can_id & mask), inverted by
// CAN_INV_FILTER; only the identifier, CAN_EFF_FLAG and CAN_RTR_FLAG bits of the mask count.
bool filter_matches(const can_filter& filter, canid_t id) {
  const canid_t mask = filter.can_mask & (CAN_EFF_FLAG | CAN_RTR_FLAG | CAN_EFF_MASK);
  const bool equal = (id & mask) == (filter.can_id & mask);
  return (filter.can_id & CAN_INV_FILTER) != 0 ? !equal : equal;
}

struct Client {
  int fd = -1;
  std::uint32_t id = 0;
  bool attached = false;  // a data connection that has sent its attach message
  bool dead = false;
  bool fd_frames = false;
  bool recv_own_msgs = false;
  bool loopback = true;
  bool join_filters = false;
  can_err_mask_t err_mask = 0;
  std::vector<can_filter> filters{can_filter{0, 0}};  // the kernel's default: everything

  bool accepts(canid_t id) const {
    if ((id & CAN_ERR_FLAG) != 0) {
      // Error frames only reach the error mask, and raw filters whose mask has CAN_ERR_FLAG
      // set (the kernel files those with the error filters).
      if ((id & err_mask & CAN_ERR_MASK) != 0) {
        return true;
      }
      return std::any_of(filters.begin(), filters.end(), [id](const can_filter& f) {
        return (f.can_mask & CAN_ERR_FLAG) != 0 && (id & f.can_mask & CAN_ERR_MASK) != 0;
      });
    }
    std::size_t matched = 0;
    for (const can_filter& filter : filters) {
      if ((filter.can_mask & CAN_ERR_FLAG) == 0 && filter_matches(filter, id)) {
        ++matched;
      }
    }
    if (join_filters && filters.size() > 1) {
      return matched == filters.size();
    }
    return matched > 0;
  }

  void configure(const protocol::ConfigMessage& config, const can_filter* filters_begin) {
    fd_frames = (config.flags & protocol::kConfigFdFrames) != 0;
    recv_own_msgs = (config.flags & protocol::kConfigRecvOwnMsgs) != 0;
    loopback = (config.flags & protocol::kConfigLoopback) != 0;
    join_filters = (config.flags & protocol::kConfigJoinFilters) != 0;
    err_mask = config.err_mask & CAN_ERR_MASK;
    filters.assign(filters_begin, filters_begin + config.filter_count);
  }
};

struct Frame {
  std::array<unsigned char, CANFD_MTU> bytes{};
  std::size_t size = 0;
  std::uint32_t sender = 0;
  std::uint64_t key = 0;
  std::uint64_t sequence = 0;
  Clock::time_point arrival;
  nanoseconds wire_time{0};

  canid_t id() const {
    canid_t value;
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
  }
};

struct LaterInArbitration {
  bool operator()(const Frame& a, const Frame& b) const {
    return a.key != b.key ? a.key > b.key : a.sequence > b.sequence;
  }
};

struct Interface {
  std::string name;
  int ifindex = 0;
  std::string socket_file;
  std::string state_file;
  int listen_fd = -1;
  dev_t socket_device = 0;
  ino_t socket_inode = 0;
  dev_t state_device = 0;
  ino_t state_inode = 0;
  protocol::StateBlock* state = nullptr;
  std::vector<std::unique_ptr<Client>> clients;  // relay thread only

  // Wire-time emulation (relay thread only): frames in arrival order not yet part of an
  // arbitration, frames competing for the bus, and the frame being transmitted. Each sender is
  // one node with a first-in first-out transmit queue, as Linux keeps a CAN controller's: only
  // its oldest frame contends, the others wait behind it in order.
  std::deque<Frame> arrivals;
  std::priority_queue<Frame, std::vector<Frame>, LaterInArbitration> contenders;
  std::unordered_map<std::uint32_t, std::deque<Frame>> queued_behind;
  std::unordered_set<std::uint32_t> contending;
  std::optional<Frame> on_wire;
  Clock::time_point wire_end;
  Clock::time_point bus_free_at;

  std::atomic<std::uint64_t> frames_received{0};
  std::atomic<std::uint64_t> frames_relayed{0};
  std::atomic<std::uint64_t> deliveries{0};
  std::atomic<std::uint64_t> frames_dropped{0};
  std::atomic<std::uint64_t> frames_discarded{0};
  std::atomic<std::int64_t> busy_ns{0};
  std::atomic<std::int64_t> counting_since_ns{0};
  std::atomic<std::size_t> client_count{0};

  // State applied when the hub starts; set_up() and set_mtu() before start() land here.
  std::atomic<bool> start_up{true};
  std::atomic<int> start_mtu{CANFD_MTU};

  bool up() const { return state != nullptr && state->up.load(std::memory_order_acquire) != 0; }
  int mtu() const {
    return state != nullptr ? static_cast<int>(state->mtu.load(std::memory_order_acquire))
                            : start_mtu.load();
  }
};

enum class MtuChange { done, invalid, while_up };

std::int64_t now_ns() {
  return std::chrono::duration_cast<nanoseconds>(Clock::now().time_since_epoch()).count();
}

std::uint64_t random_instance() {
  std::random_device device;
  std::uint64_t value = (static_cast<std::uint64_t>(device()) << 32) ^ device();
  value ^= static_cast<std::uint64_t>(now_ns()) ^ (static_cast<std::uint64_t>(::getpid()) << 48);
  return value == 0 ? 1 : value;
}

// Creates the directory and its missing parents with mode 0700. The shared default under /tmp
// must belong to us: another user could otherwise plant sockets there.
void ensure_directory(const std::string& path) {
  for (std::size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos == path.size() || path[pos] == '/') {
      const std::string prefix = path.substr(0, pos);
      if (::mkdir(prefix.c_str(), 0700) < 0 && errno != EEXIST) {
        throw system_failure("cannot create bus directory " + prefix, errno);
      }
    }
  }
  struct stat info;
  if (::stat(path.c_str(), &info) < 0) {
    throw system_failure("cannot use bus directory " + path, errno);
  }
  if (!S_ISDIR(info.st_mode)) {
    throw std::runtime_error("bus directory " + path + " is not a directory");
  }
  if (path.rfind("/tmp/", 0) == 0 && info.st_uid != ::getuid()) {
    throw std::runtime_error("bus directory " + path + " belongs to another user");
  }
}

// Removes a file only if it is still the one we created (another hub may have replaced it).
void unlink_if_same(const std::string& path, dev_t device, ino_t inode) {
  struct stat info;
  if (::lstat(path.c_str(), &info) == 0 && info.st_dev == device && info.st_ino == inode) {
    ::unlink(path.c_str());
  }
}

}  // namespace

class Hub::Impl {
 public:
  Impl(std::vector<std::string> names, HubOptions opts)
      : options(std::move(opts)), names(std::move(names)) {
    if (this->names.empty()) {
      throw std::invalid_argument("simbus hub: no interface to serve");
    }
    if (options.directory.empty()) {
      options.directory = bus_directory();
    }
    if (options.bitrate == 0 || options.data_bitrate == 0) {
      throw std::invalid_argument("simbus hub: bit rates must be positive");
    }
    std::unordered_set<int> indexes;
    for (const std::string& name : this->names) {
      if (!is_valid_interface_name(name)) {
        throw std::invalid_argument("simbus hub: invalid interface name \"" + name +
                                    "\" (1 to 15 characters, no '/', ':' or blanks)");
      }
      if (!indexes.insert(interface_index(name)).second) {
        throw std::invalid_argument("simbus hub: interface \"" + name +
                                    "\" is listed twice or its index collides with another");
      }
      auto iface = std::make_unique<Interface>();
      iface->name = name;
      iface->ifindex = interface_index(name);
      iface->socket_file = socket_path(options.directory, name);
      iface->state_file = state_path(options.directory, name);
      if (!fits_socket_path(iface->socket_file)) {
        throw std::invalid_argument("simbus hub: socket path too long: " + iface->socket_file);
      }
      interfaces.push_back(std::move(iface));
    }
  }

  ~Impl() { stop(); }

  void start() {
    if (running.load()) {
      return;
    }
    ensure_directory(options.directory);
    try {
      for (auto& iface : interfaces) {
        open_interface(*iface);
      }
      wake_fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
      if (wake_fd < 0) {
        throw system_failure("simbus hub: eventfd", errno);
      }
    } catch (...) {
      close_files();
      throw;
    }
    reset_statistics();
    stopping.store(false);
    running.store(true);
    thread = std::thread([this] { relay_loop(); });
  }

  void stop() {
    if (!running.load()) {
      return;
    }
    stopping.store(true);
    wake();
    thread.join();
    running.store(false);
    close_files();
  }

  Interface& find(const std::string& name) const {
    for (const auto& iface : interfaces) {
      if (iface->name == name) {
        return *iface;
      }
    }
    throw std::invalid_argument("simbus hub: interface \"" + name + "\" is not served");
  }

  InterfaceStatistics statistics(const Interface& iface) const {
    InterfaceStatistics stats;
    stats.name = iface.name;
    stats.ifindex = iface.ifindex;
    stats.up = running.load() && iface.up();
    stats.mtu = iface.mtu();
    stats.wire_time = options.wire_time;
    stats.bitrate = options.bitrate;
    stats.data_bitrate = options.data_bitrate;
    stats.clients = iface.client_count.load();
    stats.frames_received = iface.frames_received.load();
    stats.frames_relayed = iface.frames_relayed.load();
    stats.deliveries = iface.deliveries.load();
    stats.frames_dropped = iface.frames_dropped.load();
    stats.frames_discarded = iface.frames_discarded.load();
    stats.busy_time = nanoseconds(iface.busy_ns.load());
    stats.elapsed = nanoseconds(now_ns() - iface.counting_since_ns.load());
    return stats;
  }

  void reset_statistics() {
    for (auto& iface : interfaces) {
      iface->frames_received.store(0);
      iface->frames_relayed.store(0);
      iface->deliveries.store(0);
      iface->frames_dropped.store(0);
      iface->frames_discarded.store(0);
      iface->busy_ns.store(0);
      iface->counting_since_ns.store(now_ns());
    }
  }

  // Called from any thread. Going down also wakes the relay thread, so that frames waiting for
  // the bus are discarded at once, as a real interface drops its queue.
  void set_up(Interface& iface, bool up) {
    std::lock_guard<std::mutex> lock(state_mutex);
    iface.start_up.store(up);
    if (iface.state != nullptr) {
      iface.state->up.store(up ? 1 : 0, std::memory_order_release);
      if (!up) {
        wake();
      }
    }
  }

  // Like vcan: only the two CAN sizes, and only while the interface is down (or not served yet).
  MtuChange set_mtu(Interface& iface, int mtu) {
    if (mtu != CAN_MTU && mtu != CANFD_MTU) {
      return MtuChange::invalid;
    }
    std::lock_guard<std::mutex> lock(state_mutex);
    if (iface.up()) {
      return MtuChange::while_up;
    }
    iface.start_mtu.store(mtu);
    if (iface.state != nullptr) {
      iface.state->mtu.store(static_cast<std::uint32_t>(mtu), std::memory_order_release);
    }
    return MtuChange::done;
  }

  void wake() {
    const std::uint64_t one = 1;
    if (wake_fd >= 0) {
      [[maybe_unused]] const ssize_t ignored = ::write(wake_fd, &one, sizeof(one));
    }
  }

  HubOptions options;
  std::vector<std::string> names;
  std::vector<std::unique_ptr<Interface>> interfaces;
  std::atomic<bool> running{false};

 private:
  void open_interface(Interface& iface) {
    if (is_served(options.directory, iface.name)) {
      throw std::runtime_error("simbus hub: interface \"" + iface.name +
                               "\" is already served by a running hub in " + options.directory);
    }
    // Whatever is left is stale: a hub that died without cleaning up.
    ::unlink(iface.socket_file.c_str());
    ::unlink(iface.state_file.c_str());

    // The state page exists before the socket, so a client that connects always finds it.
    const int state_fd =
        ::open(iface.state_file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (state_fd < 0) {
      throw system_failure("simbus hub: cannot create " + iface.state_file, errno);
    }
    struct stat info;
    void* page = MAP_FAILED;
    if (::ftruncate(state_fd, protocol::kStateFileSize) == 0 && ::fstat(state_fd, &info) == 0) {
      page = ::mmap(nullptr, protocol::kStateFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, state_fd,
                    0);
    }
    const int map_error = errno;
    ::close(state_fd);
    if (page == MAP_FAILED) {
      ::unlink(iface.state_file.c_str());
      throw system_failure("simbus hub: cannot map " + iface.state_file, map_error);
    }
    iface.state_device = info.st_dev;
    iface.state_inode = info.st_ino;
    iface.state = new (page) protocol::StateBlock{};
    iface.state->magic = protocol::kMagic;
    iface.state->version = protocol::kVersion;
    iface.state->instance = random_instance();
    iface.state->up.store(iface.start_up.load() ? 1 : 0);
    iface.state->mtu.store(static_cast<std::uint32_t>(iface.start_mtu.load()));
    iface.state->alive.store(1, std::memory_order_release);

    iface.listen_fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (iface.listen_fd < 0) {
      throw system_failure("simbus hub: socket", errno);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, iface.socket_file.c_str(), iface.socket_file.size() + 1);
    if (::bind(iface.listen_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
        ::listen(iface.listen_fd, kListenBacklog) < 0 ||
        ::stat(iface.socket_file.c_str(), &info) < 0) {
      throw system_failure("simbus hub: cannot listen on " + iface.socket_file, errno);
    }
    iface.socket_device = info.st_dev;
    iface.socket_inode = info.st_ino;
  }

  void close_files() {
    for (auto& iface : interfaces) {
      if (iface->listen_fd >= 0) {
        unlink_if_same(iface->socket_file, iface->socket_device, iface->socket_inode);
        ::close(iface->listen_fd);
        iface->listen_fd = -1;
      }
      for (auto& client : iface->clients) {
        ::close(client->fd);
      }
      iface->clients.clear();
      iface->client_count.store(0);
      iface->arrivals.clear();
      iface->contenders = {};
      iface->queued_behind.clear();
      iface->contending.clear();
      iface->on_wire.reset();
      if (iface->state != nullptr) {
        iface->state->up.store(0);
        iface->state->alive.store(0, std::memory_order_release);
        unlink_if_same(iface->state_file, iface->state_device, iface->state_inode);
        ::munmap(iface->state, protocol::kStateFileSize);
        iface->state = nullptr;
      }
    }
    if (wake_fd >= 0) {
      ::close(wake_fd);
      wake_fd = -1;
    }
  }

  // ---- relay thread ----

  void relay_loop() {
    // Wake-ups for wire-time deliveries are a few tens of microseconds apart; the default
    // 50 µs timer slack would smear them.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::vector<pollfd> fds;
    std::vector<std::pair<Interface*, Client*>> owners;
    while (!stopping.load()) {
      fds.clear();
      owners.clear();
      fds.push_back({wake_fd, POLLIN, 0});
      owners.emplace_back(nullptr, nullptr);
      for (auto& iface : interfaces) {
        fds.push_back({iface->listen_fd, POLLIN, 0});
        owners.emplace_back(iface.get(), nullptr);
        for (auto& client : iface->clients) {
          fds.push_back({client->fd, POLLIN, 0});
          owners.emplace_back(iface.get(), client.get());
        }
      }
      timespec timeout{};
      const timespec* timeout_ptr = nullptr;
      if (const auto deadline = next_wire_deadline()) {
        const auto wait = std::max(nanoseconds(0), *deadline - Clock::now());
        timeout.tv_sec = static_cast<time_t>(wait.count() / 1000000000);
        timeout.tv_nsec = static_cast<long>(wait.count() % 1000000000);
        timeout_ptr = &timeout;
      }
      const int ready = ::ppoll(fds.data(), fds.size(), timeout_ptr, nullptr);
      if (ready < 0 && errno != EINTR) {
        break;
      }
      if (ready > 0 && fds[0].revents != 0) {
        std::uint64_t wakes;
        [[maybe_unused]] const ssize_t drained = ::read(wake_fd, &wakes, sizeof(wakes));
      }
      for (std::size_t i = 1; ready > 0 && i < fds.size(); ++i) {
        if (fds[i].revents == 0) {
          continue;
        }
        Interface& iface = *owners[i].first;
        if (owners[i].second == nullptr) {
          accept_clients(iface);
        } else {
          read_client(iface, *owners[i].second);
        }
      }
      const auto now = Clock::now();
      for (auto& iface : interfaces) {
        if (options.wire_time) {
          advance_bus(*iface, now);
        }
        remove_dead_clients(*iface);
      }
    }
  }

  std::optional<Clock::time_point> next_wire_deadline() const {
    std::optional<Clock::time_point> deadline;
    for (const auto& iface : interfaces) {
      if (iface->on_wire && (!deadline || iface->wire_end < *deadline)) {
        deadline = iface->wire_end;
      }
    }
    return deadline;
  }

  void accept_clients(Interface& iface) {
    for (;;) {
      const int fd = ::accept4(iface.listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        return;  // EAGAIN: all taken; anything else (EMFILE): retried on the next wake-up
      }
      auto client = std::make_unique<Client>();
      client->fd = fd;
      client->id = next_client_id++;
      iface.clients.push_back(std::move(client));
    }
  }

  void read_client(Interface& iface, Client& client) {
    for (int n = 0; n < kMessagesPerWakeup && !client.dead; ++n) {
      iovec io{buffer.data(), buffer.size()};
      msghdr message{};
      message.msg_iov = &io;
      message.msg_iovlen = 1;
      const ssize_t size = ::recvmsg(client.fd, &message, MSG_DONTWAIT);
      if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
      }
      if (size <= 0 || (message.msg_flags & MSG_TRUNC) != 0) {
        client.dead = true;  // closed, reset, or not speaking our protocol
        return;
      }
      const auto length = static_cast<std::size_t>(size);
      handle_packet(iface, client, buffer.data(), length,
                    decode_client_packet(buffer.data(), length, client.attached, client.fd_frames,
                                         iface.mtu()));
    }
  }

  void handle_packet(Interface& iface, Client& client, const unsigned char* data, std::size_t size,
                     const ClientPacket& packet) {
    using Kind = ClientPacket::Kind;
    switch (packet.kind) {
      case Kind::reject:
        client.dead = true;
        return;
      case Kind::frame:
      case Kind::invalid_frame:
        receive_frame(iface, client, data, size, packet.kind == Kind::frame);
        return;
      case Kind::attach:
        client.configure(packet.config, packet.filters.data());
        client.attached = true;
        iface.client_count.store(count_attached(iface));
        send_attached(iface, client);
        return;
      case Kind::update:
        for (auto& target : iface.clients) {
          if (target->attached && !target->dead && target->id == packet.config.client_id) {
            target->configure(packet.config, packet.filters.data());
            reply_info(iface, client, protocol::InfoStatus::ok);
            return;
          }
        }
        reply_info(iface, client, protocol::InfoStatus::unknown_client);
        return;
      case Kind::query:
        reply_info(iface, client, protocol::InfoStatus::ok);
        return;
      case Kind::set_state:
        set_up(iface, packet.argument != 0);
        reply_info(iface, client, protocol::InfoStatus::ok);
        return;
      case Kind::set_mtu: {
        const MtuChange change = set_mtu(iface, static_cast<int>(packet.argument));
        reply_info(iface, client,
                   change == MtuChange::done      ? protocol::InfoStatus::ok
                   : change == MtuChange::invalid ? protocol::InfoStatus::bad_request
                                                  : protocol::InfoStatus::busy);
        return;
      }
    }
  }

  // `valid`: the frame is one the interface may carry (decode_client_packet judged it).
  void receive_frame(Interface& iface, Client& sender, const unsigned char* data, std::size_t size,
                     bool valid) {
    iface.frames_received.fetch_add(1, std::memory_order_relaxed);
    if (!valid || !iface.up()) {
      iface.frames_discarded.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    Frame frame;
    std::memcpy(frame.bytes.data(), data, size);
    frame.size = size;
    if (size == CANFD_MTU) {
      // Since CAN XL the kernel marks every CAN FD frame with CANFD_FDF.
      frame.bytes[offsetof(canfd_frame, flags)] |= CANFD_FDF;
    }
    frame.sender = sender.id;
    frame.wire_time =
        frame_wire_time(frame.bytes.data(), size, options.bitrate, options.data_bitrate);
    if (!options.wire_time) {
      put_on_bus(iface, frame);
      deliver(iface, frame);
      return;
    }
    frame.key = arbitration_key(frame.id());
    frame.sequence = next_sequence++;
    frame.arrival = Clock::now();
    iface.arrivals.push_back(frame);
    advance_bus(iface, frame.arrival);
  }

  void put_on_bus(Interface& iface, const Frame& frame) {
    iface.frames_relayed.fetch_add(1, std::memory_order_relaxed);
    iface.busy_ns.fetch_add(frame.wire_time.count(), std::memory_order_relaxed);
  }

  // Plays the bus forward to `now`: finishes the frame on the wire, then lets the waiting
  // frames arbitrate. Only frames that had arrived when the bus became free take part; when
  // none had, the bus stayed idle until the next arrival.
  void advance_bus(Interface& iface, Clock::time_point now) {
    if (!iface.up()) {
      std::size_t lost = iface.arrivals.size() + iface.contenders.size() + (iface.on_wire ? 1 : 0);
      for (const auto& entry : iface.queued_behind) {
        lost += entry.second.size();
      }
      iface.frames_discarded.fetch_add(lost, std::memory_order_relaxed);
      iface.arrivals.clear();
      iface.contenders = {};
      iface.queued_behind.clear();
      iface.contending.clear();
      iface.on_wire.reset();
      return;
    }
    for (;;) {
      if (iface.on_wire) {
        if (iface.wire_end > now) {
          return;
        }
        deliver(iface, *iface.on_wire);
        iface.on_wire.reset();
        iface.bus_free_at = iface.wire_end;
      }
      if (iface.arrivals.empty() && iface.contenders.empty()) {
        return;
      }
      Clock::time_point start = iface.bus_free_at;
      if (iface.contenders.empty() && iface.arrivals.front().arrival > start) {
        start = iface.arrivals.front().arrival;
      }
      while (!iface.arrivals.empty() && iface.arrivals.front().arrival <= start) {
        Frame& frame = iface.arrivals.front();
        if (iface.contending.insert(frame.sender).second) {
          iface.contenders.push(std::move(frame));
        } else {
          iface.queued_behind[frame.sender].push_back(std::move(frame));
        }
        iface.arrivals.pop_front();
      }
      iface.on_wire = iface.contenders.top();
      iface.contenders.pop();
      // The sender's next frame, if it had one waiting, contends from now on.
      const auto behind = iface.queued_behind.find(iface.on_wire->sender);
      if (behind != iface.queued_behind.end() && !behind->second.empty()) {
        iface.contenders.push(std::move(behind->second.front()));
        behind->second.pop_front();
      } else {
        iface.contending.erase(iface.on_wire->sender);
      }
      iface.wire_end = start + iface.on_wire->wire_time;
      put_on_bus(iface, *iface.on_wire);
    }
  }

  void deliver(Interface& iface, const Frame& frame) {
    const canid_t id = frame.id();
    for (auto& client : iface.clients) {
      Client& receiver = *client;
      if (!receiver.attached || receiver.dead) {
        continue;
      }
      if (receiver.id == frame.sender && !(receiver.recv_own_msgs && receiver.loopback)) {
        continue;
      }
      if ((frame.size == CANFD_MTU && !receiver.fd_frames) || !receiver.accepts(id)) {
        continue;
      }
      // Counted before the frame becomes visible, so that a receiver that has read it also
      // sees it counted.
      iface.deliveries.fetch_add(1, std::memory_order_relaxed);
      const ssize_t sent =
          ::send(receiver.fd, frame.bytes.data(), frame.size, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent != static_cast<ssize_t>(frame.size)) {
        iface.deliveries.fetch_sub(1, std::memory_order_relaxed);
        if (sent < 0 && (errno == EAGAIN || errno == ENOBUFS)) {
          iface.frames_dropped.fetch_add(1, std::memory_order_relaxed);
        } else {
          receiver.dead = true;
        }
      }
    }
  }

  void send_attached(Interface& iface, Client& client) {
    const protocol::AttachedMessage answer{
        protocol::kMagic, static_cast<std::uint32_t>(protocol::MessageType::attached), client.id,
        iface.ifindex, iface.up() ? 1u : 0u};
    if (::send(client.fd, &answer, sizeof(answer), MSG_DONTWAIT | MSG_NOSIGNAL) !=
        static_cast<ssize_t>(sizeof(answer))) {
      client.dead = true;
    }
  }

  void reply_info(Interface& iface, Client& client, protocol::InfoStatus status) {
    const InterfaceStatistics stats = statistics(iface);
    protocol::InfoMessage info{};
    info.magic = protocol::kMagic;
    info.type = static_cast<std::uint32_t>(protocol::MessageType::info);
    info.status = static_cast<std::uint32_t>(status);
    info.up = iface.up() ? 1 : 0;
    info.mtu = static_cast<std::uint32_t>(stats.mtu);
    info.wire_time = stats.wire_time ? 1 : 0;
    info.clients = static_cast<std::uint32_t>(stats.clients);
    info.bitrate = stats.bitrate;
    info.data_bitrate = stats.data_bitrate;
    info.frames_received = stats.frames_received;
    info.frames_relayed = stats.frames_relayed;
    info.deliveries = stats.deliveries;
    info.frames_dropped = stats.frames_dropped;
    info.frames_discarded = stats.frames_discarded;
    info.busy_ns = static_cast<std::uint64_t>(stats.busy_time.count());
    info.elapsed_ns = static_cast<std::uint64_t>(stats.elapsed.count());
    if (::send(client.fd, &info, sizeof(info), MSG_DONTWAIT | MSG_NOSIGNAL) !=
        static_cast<ssize_t>(sizeof(info))) {
      client.dead = true;
    }
  }

  static std::size_t count_attached(const Interface& iface) {
    return static_cast<std::size_t>(
        std::count_if(iface.clients.begin(), iface.clients.end(),
                      [](const auto& c) { return c->attached && !c->dead; }));
  }

  void remove_dead_clients(Interface& iface) {
    const auto first_dead = std::partition(iface.clients.begin(), iface.clients.end(),
                                           [](const auto& c) { return !c->dead; });
    if (first_dead == iface.clients.end()) {
      return;
    }
    for (auto it = first_dead; it != iface.clients.end(); ++it) {
      ::close((*it)->fd);
    }
    iface.clients.erase(first_dead, iface.clients.end());
    iface.client_count.store(count_attached(iface));
  }

  int wake_fd = -1;
  std::mutex state_mutex;  // an MTU change must not race the interface coming up
  std::array<unsigned char, protocol::kMaxMessageSize + 8> buffer{};  // relay thread only
  std::atomic<bool> stopping{false};
  std::thread thread;
  std::uint32_t next_client_id = 1;
  std::uint64_t next_sequence = 0;
};

Hub::Hub(std::vector<std::string> interfaces, HubOptions options)
    : impl_(std::make_unique<Impl>(std::move(interfaces), std::move(options))) {}

Hub::~Hub() = default;

void Hub::start() {
  impl_->start();
}
void Hub::stop() {
  impl_->stop();
}
bool Hub::running() const {
  return impl_->running.load();
}

void Hub::set_up(const std::string& name, bool up) {
  impl_->set_up(impl_->find(name), up);
}

void Hub::set_mtu(const std::string& name, int mtu) {
  switch (impl_->set_mtu(impl_->find(name), mtu)) {
    case MtuChange::invalid:
      throw std::invalid_argument(invalid_mtu_message(name, mtu));
    case MtuChange::while_up:
      throw std::runtime_error(mtu_while_up_message(name));
    case MtuChange::done:
      break;
  }
}

int Hub::mtu(const std::string& name) const {
  return impl_->find(name).mtu();
}

bool Hub::is_up(const std::string& name) const {
  return impl_->running.load() && impl_->find(name).up();
}

InterfaceStatistics Hub::statistics(const std::string& name) const {
  return impl_->statistics(impl_->find(name));
}

std::vector<InterfaceStatistics> Hub::statistics() const {
  std::vector<InterfaceStatistics> all;
  for (const auto& iface : impl_->interfaces) {
    all.push_back(impl_->statistics(*iface));
  }
  return all;
}

void Hub::reset_statistics() {
  impl_->reset_statistics();
}
const std::string& Hub::directory() const {
  return impl_->options.directory;
}
const std::vector<std::string>& Hub::interfaces() const {
  return impl_->names;
}
const HubOptions& Hub::options() const {
  return impl_->options;
}

}  // namespace kestrel::simbus
