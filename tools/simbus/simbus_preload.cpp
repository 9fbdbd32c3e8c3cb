// The interposer (libkestrel_simbus_preload.so): emulates raw SocketCAN sockets on top of the
// hub, so that unmodified programs run on simbus interfaces. Loaded with LD_PRELOAD or linked
// ahead of libc; every call that does not concern an emulated CAN socket or a served interface
// goes to the next definition (the C library, or a sanitizer runtime in between) unchanged.
//
// An emulated CAN socket is an AF_UNIX SOCK_SEQPACKET socket, so read, recv, select, poll,
// epoll, close, O_NONBLOCK and SO_RCVTIMEO work on it natively and keep frame boundaries.
// Where the kernel has PF_CAN, socket() returns a real CAN socket; it is swapped for a Unix
// socket (dup3 over the same descriptor number, options replayed) only when SIOCGIFINDEX names,
// or bind() targets, an interface a hub serves. The same program thus runs on real, vcan and
// simbus interfaces.
//
// Served means: the interface's socket file exists in the bus directory (read from the
// environment at every lookup) and a live hub accepts a connection on it.
//
// Known differences from the kernel, none of which CANSocket depends on:
//  - an unbound socket fails reads with ENOTCONN instead of blocking;
//  - bind() to ifindex 0 ("any interface") succeeds but receives nothing;
//  - sendto()/sendmsg() to an interface other than the bound one fail with ENXIO;
//  - CAN_RAW_LOOPBACK = 0 still delivers to other sockets (every simbus socket is its own node);
//  - CAN XL frames are not supported (CAN_RAW_XL_FRAMES: ENOPROTOOPT; Debian 12's 6.1 kernel,
//    which has CAN XL, accepts the option);
//  - descriptors duplicated with fcntl(F_DUPFD) or closed behind libc's back (fclose of an
//    fdopen'ed socket) are not tracked.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_protocol.hpp"

// The fortified recvfrom, called instead of recvfrom when _FORTIFY_SOURCE knows the buffer.
extern "C" ssize_t __recvfrom_chk(int fd, void* buffer, size_t length, size_t buffer_length,
                                  int flags, sockaddr* address, socklen_t* address_length);

// Any process can check whether the interposer is active, and which copy of it comes first.
extern "C" __attribute__((visibility("default"))) const char kestrel_simbus_preload_marker[] =
    "kestrel simbus interposer";

namespace {

using namespace kestrel::simbus;

// ---- the next definitions in the lookup order ----

template <typename Function>
Function next_definition(const char* name) {
  void* symbol = ::dlsym(RTLD_NEXT, name);
  Function function;
  static_assert(sizeof(function) == sizeof(symbol));
  std::memcpy(&function, &symbol, sizeof(symbol));
  return function;
}

// Resolved on first use (a constructor of another library may call us before ours ran) and
// kept in constant-initialised atomics, so no static initialisation order is involved. The
// types are spelled out: the C library's declarations carry attributes that decltype keeps.
#define SIMBUS_NEXT(name, result, parameters)                          \
  using name##_function = result(*) parameters;                        \
  name##_function next_##name() {                                      \
    static std::atomic<name##_function> cached{nullptr};               \
    name##_function function = cached.load(std::memory_order_acquire); \
    if (function == nullptr) {                                         \
      function = next_definition<name##_function>(#name);              \
      cached.store(function, std::memory_order_release);               \
    }                                                                  \
    return function;                                                   \
  }

SIMBUS_NEXT(socket, int, (int, int, int))
SIMBUS_NEXT(bind, int, (int, const sockaddr*, socklen_t))
SIMBUS_NEXT(connect, int, (int, const sockaddr*, socklen_t))
SIMBUS_NEXT(ioctl, int, (int, unsigned long, ...))
SIMBUS_NEXT(setsockopt, int, (int, int, int, const void*, socklen_t))
SIMBUS_NEXT(getsockopt, int, (int, int, int, void*, socklen_t*))
SIMBUS_NEXT(getsockname, int, (int, sockaddr*, socklen_t*))
SIMBUS_NEXT(getpeername, int, (int, sockaddr*, socklen_t*))
SIMBUS_NEXT(close, int, (int))
SIMBUS_NEXT(close_range, int, (unsigned int, unsigned int, int))
SIMBUS_NEXT(closefrom, void, (int))
SIMBUS_NEXT(dup, int, (int))
SIMBUS_NEXT(dup2, int, (int, int))
SIMBUS_NEXT(dup3, int, (int, int, int))
SIMBUS_NEXT(write, ssize_t, (int, const void*, size_t))
SIMBUS_NEXT(writev, ssize_t, (int, const iovec*, int))
SIMBUS_NEXT(send, ssize_t, (int, const void*, size_t, int))
SIMBUS_NEXT(sendto, ssize_t, (int, const void*, size_t, int, const sockaddr*, socklen_t))
SIMBUS_NEXT(sendmsg, ssize_t, (int, const msghdr*, int))
SIMBUS_NEXT(recvfrom, ssize_t, (int, void*, size_t, int, sockaddr*, socklen_t*))
SIMBUS_NEXT(recvmsg, ssize_t, (int, msghdr*, int))
SIMBUS_NEXT(__recvfrom_chk, ssize_t, (int, void*, size_t, size_t, int, sockaddr*, socklen_t*))
SIMBUS_NEXT(if_nametoindex, unsigned int, (const char*))
SIMBUS_NEXT(if_indextoname, char*, (unsigned int, char*))

#undef SIMBUS_NEXT

int fail(int error) {
  errno = error;
  return -1;
}

// The kernel's shortest accepted sockaddr_can: family and interface index.
constexpr socklen_t kMinCanAddressLength = offsetof(sockaddr_can, can_ifindex) + sizeof(int);

// ---- descriptor table ----

struct RecordedOption {
  int name;
  std::vector<unsigned char> value;
};

// One CAN socket, shared by all descriptors that dup() made of it. The fields read on every
// write are atomics; the configuration is guarded by `mutex`.
struct CanSocket {
  std::atomic<int> references{0};
  std::atomic<bool> emulated{false};   // false: a kernel CAN socket that may still be swapped
  std::atomic<bool> connected{false};  // the Unix socket is connected to a hub
  std::atomic<bool> bound{false};
  std::atomic<bool> fd_frames{false};
  std::atomic<int> ifindex{0};
  std::atomic<const protocol::StateBlock*> state{nullptr};

  std::mutex mutex;
  std::string directory;  // where the hub of the bound interface was found
  std::string interface_name;
  std::uint32_t client_id = 0;
  std::vector<can_filter> filters{can_filter{0, 0}};
  can_err_mask_t err_mask = 0;
  int loopback = 1;
  int recv_own_msgs = 0;
  int join_filters = 0;
  int fd_frames_value = 0;
  std::vector<RecordedOption> socket_options;  // SOL_SOCKET options, replayed on a swap
  CanSocket* next_free = nullptr;

  void reset() {
    std::lock_guard<std::mutex> lock(mutex);
    emulated = false;
    connected = false;
    bound = false;
    fd_frames = false;
    ifindex = 0;
    state = nullptr;
    directory.clear();
    interface_name.clear();
    client_id = 0;
    filters.assign(1, can_filter{0, 0});
    err_mask = 0;
    loopback = 1;
    recv_own_msgs = 0;
    join_filters = 0;
    fd_frames_value = 0;
    socket_options.clear();
  }
};

// Records are recycled, never freed: a thread still using a record whose descriptor another
// thread just closed reads stale values instead of freed memory.
std::mutex g_pool_mutex;
CanSocket* g_free_records = nullptr;

CanSocket* new_record(bool emulated) {
  CanSocket* record = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_pool_mutex);
    if (g_free_records != nullptr) {
      record = g_free_records;
      g_free_records = record->next_free;
    }
  }
  if (record == nullptr) {
    record = new CanSocket;
  }
  record->emulated = emulated;
  record->references = 1;
  return record;
}

void release(CanSocket* record) {
  if (record == nullptr || record->references.fetch_sub(1) != 1) {
    return;
  }
  record->reset();
  std::lock_guard<std::mutex> lock(g_pool_mutex);
  record->next_free = g_free_records;
  g_free_records = record;
}

// Descriptors below kDirectSlots index an array (one atomic load per call on any descriptor);
// larger ones go to a map that is only consulted while it is not empty.
constexpr int kDirectSlots = 4096;
std::atomic<CanSocket*> g_direct[kDirectSlots];
std::mutex g_overflow_mutex;
std::atomic<int> g_overflow_size{0};

std::unordered_map<int, CanSocket*>& overflow() {
  static auto* table = new std::unordered_map<int, CanSocket*>;  // outlives exit-time closes
  return *table;
}

CanSocket* lookup(int fd) {
  if (fd < 0) {
    return nullptr;
  }
  if (fd < kDirectSlots) {
    return g_direct[fd].load(std::memory_order_acquire);
  }
  if (g_overflow_size.load(std::memory_order_acquire) == 0) {
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_overflow_mutex);
  const auto it = overflow().find(fd);
  return it == overflow().end() ? nullptr : it->second;
}

// Puts `record` (may be null) at `fd` and releases whatever was there.
void install(int fd, CanSocket* record) {
  if (fd < 0) {
    release(record);
    return;
  }
  CanSocket* previous = nullptr;
  if (fd < kDirectSlots) {
    previous = g_direct[fd].exchange(record, std::memory_order_acq_rel);
  } else {
    std::lock_guard<std::mutex> lock(g_overflow_mutex);
    auto& table = overflow();
    const auto it = table.find(fd);
    if (it != table.end()) {
      previous = it->second;
      table.erase(it);
    }
    if (record != nullptr) {
      table.emplace(fd, record);
    }
    g_overflow_size.store(static_cast<int>(table.size()), std::memory_order_release);
  }
  release(previous);
}

// A descriptor the kernel just handed out cannot still be one of ours: any record left there
// belonged to a descriptor closed behind our back.
void forget_stale(int fd) {
  if (lookup(fd) != nullptr) {
    install(fd, nullptr);
  }
}

void forget_range(unsigned int first, unsigned int last) {
  for (unsigned int fd = first; fd <= last && fd < static_cast<unsigned int>(kDirectSlots); ++fd) {
    if (g_direct[fd].load(std::memory_order_relaxed) != nullptr) {
      install(static_cast<int>(fd), nullptr);
    }
  }
  if (last < static_cast<unsigned int>(kDirectSlots) || g_overflow_size.load() == 0) {
    return;
  }
  std::vector<CanSocket*> dropped;
  {
    std::lock_guard<std::mutex> lock(g_overflow_mutex);
    auto& table = overflow();
    for (auto it = table.begin(); it != table.end();) {
      const auto fd = static_cast<unsigned int>(it->first);
      if (fd >= first && fd <= last) {
        dropped.push_back(it->second);
        it = table.erase(it);
      } else {
        ++it;
      }
    }
    g_overflow_size.store(static_cast<int>(table.size()), std::memory_order_release);
  }
  for (CanSocket* record : dropped) {
    release(record);
  }
}

// Only the first copy of the interposer in the lookup order emulates; a second one (a program
// linked with it and also started with LD_PRELOAD) passes everything on.
bool is_first_copy() {
  static std::atomic<int> verdict{0};  // 0 unknown, 1 first, 2 second
  int value = verdict.load(std::memory_order_relaxed);
  if (value == 0) {
    const void* first = ::dlsym(RTLD_DEFAULT, "kestrel_simbus_preload_marker");
    value = (first == nullptr || first == kestrel_simbus_preload_marker) ? 1 : 2;
    verdict.store(value, std::memory_order_relaxed);
  }
  return value == 1;
}

// ---- interface state pages ----

// Mapped read-only, once per hub interface instance, and never unmapped: a write racing a
// close must not touch unmapped memory, and a restarted hub gets a new instance number.
const protocol::StateBlock* map_state(const std::string& directory, const std::string& name) {
  static std::mutex mutex;
  static auto* pages = new std::unordered_map<std::uint64_t, const protocol::StateBlock*>;
  const std::string path = state_path(directory, name);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return nullptr;
  }
  protocol::StateBlock header;
  const protocol::StateBlock* page = nullptr;
  if (::pread(fd, &header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) &&
      header.magic == protocol::kMagic && header.version == protocol::kVersion) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = pages->find(header.instance);
    if (it != pages->end()) {
      page = it->second;
    } else {
      void* mapped = ::mmap(nullptr, protocol::kStateFileSize, PROT_READ, MAP_SHARED, fd, 0);
      if (mapped != MAP_FAILED) {
        page = static_cast<const protocol::StateBlock*>(mapped);
        pages->emplace(header.instance, page);
      }
    }
  }
  next_close()(fd);
  return page;
}

// ---- served interfaces ----

std::string served_name_for_index(const std::string& directory, int index) {
  if (!is_simbus_index(index)) {
    return {};
  }
  for (const std::string& name : interface_files(directory)) {
    if (interface_index(name) == index && is_served(directory, name)) {
      return name;
    }
  }
  return {};
}

// The name in an ifreq as the kernel reads it: IFNAMSIZ bytes, the last forced to NUL.
std::string request_name(ifreq* request) {
  request->ifr_name[IFNAMSIZ - 1] = '\0';
  return std::string(kernel_interface_name(std::string_view(request->ifr_name, IFNAMSIZ)));
}

// ---- swapping the descriptor ----

// Moves the descriptor number `fd` onto `replacement` (which is closed), keeping the file
// status flags, close-on-exec and the recorded SOL_SOCKET options.
int replace_descriptor(int fd, CanSocket& record, int replacement) {
  const int status = ::fcntl(fd, F_GETFL);
  const int descriptor_flags = ::fcntl(fd, F_GETFD);
  if (status >= 0) {
    ::fcntl(replacement, F_SETFL, status & (O_NONBLOCK | O_ASYNC));
  }
  for (const RecordedOption& option : record.socket_options) {
    next_setsockopt()(replacement, SOL_SOCKET, option.name, option.value.data(),
                      static_cast<socklen_t>(option.value.size()));
  }
  const int flags = (descriptor_flags >= 0 && (descriptor_flags & FD_CLOEXEC) != 0) ? O_CLOEXEC : 0;
  const int result = next_dup3()(replacement, fd, flags);
  const int error = errno;
  next_close()(replacement);
  errno = error;
  return result < 0 ? -1 : 0;
}

int new_unix_socket() {
  return next_socket()(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
}

// A kernel CAN socket becomes an emulated one (unbound, options kept). Caller holds the mutex.
int switch_to_emulation(int fd, CanSocket& record) {
  if (record.emulated) {
    return 0;
  }
  const int replacement = new_unix_socket();
  if (replacement < 0 || replace_descriptor(fd, record, replacement) < 0) {
    return -1;
  }
  record.emulated = true;
  record.connected = false;
  record.bound = false;
  record.ifindex = 0;
  return 0;
}

// ---- talking to the hub ----

std::vector<unsigned char> config_message(const CanSocket& record, protocol::MessageType type) {
  protocol::ConfigMessage config{};
  config.magic = protocol::kMagic;
  config.type = static_cast<std::uint32_t>(type);
  config.version = protocol::kVersion;
  config.client_id = record.client_id;
  config.flags = (record.fd_frames_value != 0 ? protocol::kConfigFdFrames : 0u) |
                 (record.recv_own_msgs != 0 ? protocol::kConfigRecvOwnMsgs : 0u) |
                 (record.join_filters != 0 ? protocol::kConfigJoinFilters : 0u) |
                 (record.loopback != 0 ? protocol::kConfigLoopback : 0u);
  config.err_mask = record.err_mask;
  config.filter_count = static_cast<std::uint32_t>(record.filters.size());
  std::vector<unsigned char> message(sizeof(config) + record.filters.size() * sizeof(can_filter));
  std::memcpy(message.data(), &config, sizeof(config));
  if (!record.filters.empty()) {
    std::memcpy(message.data() + sizeof(config), record.filters.data(),
                record.filters.size() * sizeof(can_filter));
  }
  return message;
}

int connect_unix(int fd, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!fits_socket_path(path)) {
    return fail(ENODEV);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  // A non-blocking socket meets a full backlog as EAGAIN; the hub drains it in microseconds.
  const auto give_up =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kHubReplyTimeoutMs);
  for (;;) {
    if (next_connect()(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      return 0;
    }
    if ((errno != EAGAIN && errno != EINTR) || std::chrono::steady_clock::now() > give_up) {
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// Announces the socket to the hub and waits until the hub relays to it. Caller holds the mutex.
bool attach(int fd, CanSocket& record) {
  const std::vector<unsigned char> message = config_message(record, protocol::MessageType::attach);
  if (next_send()(fd, message.data(), message.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(message.size())) {
    return false;
  }
  // poll and MSG_DONTWAIT: the user's SO_RCVTIMEO and O_NONBLOCK must not shorten the wait.
  pollfd waiter{fd, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&waiter, 1, kHubReplyTimeoutMs);
  } while (ready < 0 && errno == EINTR);
  protocol::AttachedMessage answer{};
  if (ready != 1 ||
      next_recvfrom()(fd, &answer, sizeof(answer), MSG_DONTWAIT, nullptr, nullptr) !=
          static_cast<ssize_t>(sizeof(answer)) ||
      answer.magic != protocol::kMagic ||
      answer.type != static_cast<std::uint32_t>(protocol::MessageType::attached)) {
    return false;
  }
  record.client_id = answer.client_id;
  return true;
}

// Sends new options of an attached socket over a control connection and waits for the hub to
// apply them, so that frames written after setsockopt() returns are delivered accordingly.
void push_options(CanSocket& record) {
  if (!record.connected) {
    return;
  }
  const std::vector<unsigned char> message = config_message(record, protocol::MessageType::update);
  protocol::InfoMessage answer{};
  hub_request(record.directory, record.interface_name, message.data(), message.size(), &answer,
              sizeof(answer));
}

int emulated_bind(int fd, CanSocket& record, const sockaddr* address, socklen_t length) {
  if (address == nullptr) {
    return fail(EFAULT);
  }
  if (length < kMinCanAddressLength) {
    return fail(EINVAL);
  }
  sockaddr_can can_address{};
  std::memcpy(&can_address, address, std::min<std::size_t>(length, sizeof(can_address)));
  if (can_address.can_family != AF_CAN) {
    return fail(EINVAL);
  }
  const int index = can_address.can_ifindex;
  std::lock_guard<std::mutex> lock(record.mutex);
  if (index == 0) {
    record.bound = true;
    record.ifindex = 0;
    return 0;
  }
  const std::string directory = bus_directory();
  const std::string name = served_name_for_index(directory, index);
  if (name.empty()) {
    return fail(ENODEV);
  }
  // A socket that never talked to a hub connects in place; one that did (a re-bind) gets a
  // fresh Unix socket under the same descriptor number once the new hub has taken it.
  const bool in_place = !record.connected;
  const int target = in_place ? fd : new_unix_socket();
  if (target < 0) {
    return -1;
  }
  const bool connected = connect_unix(target, socket_path(directory, name)) == 0;
  if (!connected || !attach(target, record)) {
    if (!in_place) {
      next_close()(target);  // like the kernel: a failed re-bind keeps the old binding
    } else if (connected) {
      // Connected to a hub that then failed us: start over with an unconnected socket.
      const int fresh = new_unix_socket();
      if (fresh >= 0) {
        replace_descriptor(fd, record, fresh);
      }
    }
    return fail(ENODEV);
  }
  if (!in_place && replace_descriptor(fd, record, target) < 0) {
    return -1;
  }
  record.directory = directory;
  record.interface_name = name;
  record.state = map_state(directory, name);
  record.connected = true;
  record.ifindex = index;
  record.bound = true;
  return 0;
}

// ---- options ----

bool read_int_option(const void* value, socklen_t length, int& out) {
  if (length != sizeof(int)) {
    errno = EINVAL;
    return false;
  }
  if (value == nullptr) {
    errno = EFAULT;
    return false;
  }
  std::memcpy(&out, value, sizeof(int));
  return true;
}

// Checks a SOL_CAN_RAW option as the kernel's raw_setsockopt does and stores it.
// Caller holds the mutex. Returns 0 or -1 with errno.
int store_can_option(CanSocket& record, int name, const void* value, socklen_t length) {
  switch (name) {
    case CAN_RAW_FILTER: {
      if (length % sizeof(can_filter) != 0 || length > protocol::kMaxFilters * sizeof(can_filter)) {
        return fail(EINVAL);
      }
      if (length > 0 && value == nullptr) {
        return fail(EFAULT);
      }
      record.filters.resize(length / sizeof(can_filter));
      if (length > 0) {
        std::memcpy(record.filters.data(), value, length);
      }
      return 0;
    }
    case CAN_RAW_ERR_FILTER: {
      if (length != sizeof(can_err_mask_t)) {
        return fail(EINVAL);
      }
      if (value == nullptr) {
        return fail(EFAULT);
      }
      std::memcpy(&record.err_mask, value, sizeof(can_err_mask_t));
      record.err_mask &= CAN_ERR_MASK;
      return 0;
    }
    case CAN_RAW_LOOPBACK:
      return read_int_option(value, length, record.loopback) ? 0 : -1;
    case CAN_RAW_RECV_OWN_MSGS:
      return read_int_option(value, length, record.recv_own_msgs) ? 0 : -1;
    case CAN_RAW_JOIN_FILTERS:
      return read_int_option(value, length, record.join_filters) ? 0 : -1;
    case CAN_RAW_FD_FRAMES:
      if (!read_int_option(value, length, record.fd_frames_value)) {
        return -1;
      }
      record.fd_frames = record.fd_frames_value != 0;
      return 0;
    default:
      return fail(ENOPROTOOPT);
  }
}

// raw_getsockopt: integer options are cut to the caller's length, the filter list needs room
// for all filters (ERANGE otherwise, with the needed length reported).
int load_can_option(CanSocket& record, int name, void* value, socklen_t* length) {
  if (length == nullptr) {
    return fail(EFAULT);
  }
  if (static_cast<int>(*length) < 0) {
    return fail(EINVAL);
  }
  const void* source = nullptr;
  socklen_t size = 0;
  switch (name) {
    case CAN_RAW_FILTER:
      size = static_cast<socklen_t>(record.filters.size() * sizeof(can_filter));
      if (*length < size) {
        *length = size;
        return fail(ERANGE);
      }
      source = record.filters.data();
      break;
    case CAN_RAW_ERR_FILTER:
      source = &record.err_mask;
      size = std::min<socklen_t>(*length, sizeof(can_err_mask_t));
      break;
    case CAN_RAW_LOOPBACK:
      source = &record.loopback;
      size = std::min<socklen_t>(*length, sizeof(int));
      break;
    case CAN_RAW_RECV_OWN_MSGS:
      source = &record.recv_own_msgs;
      size = std::min<socklen_t>(*length, sizeof(int));
      break;
    case CAN_RAW_FD_FRAMES:
      source = &record.fd_frames_value;
      size = std::min<socklen_t>(*length, sizeof(int));
      break;
    case CAN_RAW_JOIN_FILTERS:
      source = &record.join_filters;
      size = std::min<socklen_t>(*length, sizeof(int));
      break;
    default:
      return fail(ENOPROTOOPT);
  }
  if (size > 0 && value == nullptr) {
    return fail(EFAULT);
  }
  if (size > 0) {
    std::memcpy(value, source, size);
  }
  *length = size;
  return 0;
}

void record_socket_option(CanSocket& record, int name, const void* value, socklen_t length) {
  if (value == nullptr) {
    return;
  }
  std::lock_guard<std::mutex> lock(record.mutex);
  const auto* bytes = static_cast<const unsigned char*>(value);
  for (RecordedOption& option : record.socket_options) {
    if (option.name == name) {
      option.value.assign(bytes, bytes + length);
      return;
    }
  }
  record.socket_options.push_back({name, std::vector<unsigned char>(bytes, bytes + length)});
}

// ---- sending ----

// The checks of the kernel's raw_sendmsg and can_send, in their order: destination address,
// frame size for the socket's mode, bound interface, frame size for the interface's MTU, payload
// length, interface up.
ssize_t emulated_send(int fd, CanSocket& record, const void* frame, std::size_t size, int flags,
                      const sockaddr* destination, socklen_t destination_length) {
  int index = record.ifindex.load(std::memory_order_relaxed);
  if (destination != nullptr) {
    sockaddr_can address{};
    if (destination_length < kMinCanAddressLength) {
      return fail(EINVAL);
    }
    std::memcpy(&address, destination, std::min<std::size_t>(destination_length, sizeof(address)));
    if (address.can_family != AF_CAN) {
      return fail(EINVAL);
    }
    if (address.can_ifindex != index) {
      return fail(ENXIO);
    }
  }
  const bool fd_frames = record.fd_frames.load(std::memory_order_relaxed);
  if (fd_frames ? (size != CAN_MTU && size != CANFD_MTU) : size != CAN_MTU) {
    return fail(EINVAL);
  }
  if (!record.bound.load(std::memory_order_acquire) || index == 0) {
    return fail(ENXIO);
  }
  // An FD socket takes 72-byte frames only where the interface carries CAN FD (MTU 72).
  const protocol::StateBlock* state = record.state.load(std::memory_order_acquire);
  if (size == CANFD_MTU && state != nullptr &&
      state->mtu.load(std::memory_order_acquire) != CANFD_MTU) {
    return fail(EINVAL);
  }
  if (frame == nullptr) {
    return fail(EFAULT);
  }
  const auto* bytes = static_cast<const unsigned char*>(frame);
  if (size == CAN_MTU ? bytes[offsetof(can_frame, can_dlc)] > CAN_MAX_DLEN
                      : bytes[offsetof(canfd_frame, len)] > CANFD_MAX_DLEN) {
    return fail(EINVAL);
  }
  if (state != nullptr) {
    if (state->alive.load(std::memory_order_acquire) == 0) {
      return fail(ENXIO);  // the hub went away: like an interface that was unregistered
    }
    if (state->up.load(std::memory_order_acquire) == 0) {
      return fail(ENETDOWN);
    }
  }
  const ssize_t sent = next_send()(fd, frame, size, flags | MSG_NOSIGNAL);
  if (sent < 0 && (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN)) {
    errno = ENXIO;
  }
  return sent;
}

// Gathers an iovec into one frame buffer; the kernel sees the total length either way.
ssize_t emulated_send_vector(int fd, CanSocket& record, const iovec* parts, std::size_t count,
                             int flags, const sockaddr* destination, socklen_t destination_length) {
  unsigned char frame[CANFD_MTU];
  std::size_t total = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (parts[i].iov_len > 0 && total + parts[i].iov_len <= sizeof(frame)) {
      if (parts[i].iov_base == nullptr) {
        return fail(EFAULT);
      }
      std::memcpy(frame + total, parts[i].iov_base, parts[i].iov_len);
    }
    total += parts[i].iov_len;
  }
  if (total > sizeof(frame)) {
    total = sizeof(frame) + 1;  // no valid frame size; fails the size check below
  }
  return emulated_send(fd, record, frame, total, flags, destination, destination_length);
}

CanSocket* emulated(int fd) {
  CanSocket* record = lookup(fd);
  return (record != nullptr && record->emulated.load(std::memory_order_acquire)) ? record : nullptr;
}

// The source address of a received frame: the interface it arrived on.
void fill_source(const CanSocket& record, sockaddr* address, socklen_t* length) {
  if (address == nullptr || length == nullptr) {
    return;
  }
  sockaddr_can source{};
  source.can_family = AF_CAN;
  source.can_ifindex = record.ifindex.load(std::memory_order_relaxed);
  std::memcpy(address, &source, std::min(*length, kMinCanAddressLength));
  *length = kMinCanAddressLength;
}

int interface_ioctl(int fd, unsigned long request, void* argument, bool& handled) {
  handled = false;
  if (argument == nullptr) {
    return 0;
  }
  auto* interface_request = static_cast<ifreq*>(argument);
  const std::string directory = bus_directory();
  if (request == SIOCGIFNAME) {
    const std::string name = served_name_for_index(directory, interface_request->ifr_ifindex);
    if (!name.empty()) {
      handled = true;
      std::memset(interface_request->ifr_name, 0, IFNAMSIZ);
      std::memcpy(interface_request->ifr_name, name.data(), name.size());
    }
    return 0;
  }
  const std::string name = request_name(interface_request);
  if (!is_valid_interface_name(name) || !is_served(directory, name)) {
    return 0;
  }
  switch (request) {
    case SIOCGIFINDEX:
      if (CanSocket* record = lookup(fd); record != nullptr && !record->emulated) {
        std::lock_guard<std::mutex> lock(record->mutex);
        if (switch_to_emulation(fd, *record) < 0) {
          handled = true;
          return -1;
        }
      }
      interface_request->ifr_ifindex = interface_index(name);
      handled = true;
      return 0;
    case SIOCGIFFLAGS: {
      const auto stats = query_interface(directory, name);
      if (!stats) {
        return 0;  // the hub went away meanwhile: the kernel gives its own answer
      }
      interface_request->ifr_flags =
          static_cast<short>(IFF_NOARP | (stats->up ? IFF_UP | IFF_RUNNING : 0));
      handled = true;
      return 0;
    }
    case SIOCGIFMTU: {
      const auto stats = query_interface(directory, name);
      if (!stats) {
        return 0;
      }
      interface_request->ifr_mtu = stats->mtu;
      handled = true;
      return 0;
    }
    default:
      return 0;
  }
}

}  // namespace

// ---- interposed entry points ----

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  const int kind = type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC);
  const bool raw_can = domain == PF_CAN && kind == SOCK_RAW && protocol == CAN_RAW;
  if (!raw_can || !is_first_copy()) {
    const int fd = next_socket()(domain, type, protocol);
    if (fd >= 0) {
      forget_stale(fd);
    }
    return fd;
  }
  int fd = next_socket()(domain, type, protocol);
  if (fd >= 0) {
    install(fd, new_record(false));  // the kernel has CAN: swapped later if a hub serves
    return fd;
  }
  if (errno != EAFNOSUPPORT && errno != EPROTONOSUPPORT) {
    return -1;
  }
  fd = next_socket()(AF_UNIX, SOCK_SEQPACKET | (type & (SOCK_NONBLOCK | SOCK_CLOEXEC)), 0);
  if (fd < 0) {
    return -1;
  }
  install(fd, new_record(true));
  return fd;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == SIOCGIFINDEX || request == SIOCGIFFLAGS || request == SIOCGIFMTU ||
      request == SIOCGIFNAME) {
    bool handled = false;
    const int result = interface_ioctl(fd, request, argument, handled);
    if (handled) {
      return result;
    }
  }
  return next_ioctl()(fd, request, argument);
}

unsigned int if_nametoindex(const char* name) noexcept {
  // glibc refuses names that do not fit IFNAMSIZ with ENODEV; so do we.
  if (name != nullptr && std::strlen(name) <= kMaxInterfaceNameLength &&
      is_valid_interface_name(name) && is_served(bus_directory(), name)) {
    return static_cast<unsigned int>(interface_index(name));
  }
  return next_if_nametoindex()(name);
}

char* if_indextoname(unsigned int index, char* name) noexcept {
  if (is_simbus_index(static_cast<int>(index)) && name != nullptr) {
    const std::string served = served_name_for_index(bus_directory(), static_cast<int>(index));
    if (!served.empty()) {
      std::memcpy(name, served.c_str(), served.size() + 1);
      return name;
    }
  }
  return next_if_indextoname()(index, name);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  CanSocket* record = lookup(fd);
  if (record == nullptr) {
    return next_bind()(fd, address, length);
  }
  if (!record->emulated) {
    sockaddr_can can_address{};
    if (address == nullptr || length < kMinCanAddressLength) {
      return next_bind()(fd, address, length);
    }
    std::memcpy(&can_address, address, std::min<std::size_t>(length, sizeof(can_address)));
    if (can_address.can_family != AF_CAN ||
        served_name_for_index(bus_directory(), can_address.can_ifindex).empty()) {
      return next_bind()(fd, address, length);
    }
    std::lock_guard<std::mutex> lock(record->mutex);
    if (switch_to_emulation(fd, *record) < 0) {
      return -1;
    }
  }
  return emulated_bind(fd, *record, address, length);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  if (emulated(fd) != nullptr) {
    return fail(EOPNOTSUPP);  // raw CAN sockets have no connect
  }
  return next_connect()(fd, address, length);
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t length) noexcept {
  CanSocket* record = lookup(fd);
  if (record == nullptr) {
    return next_setsockopt()(fd, level, name, value, length);
  }
  if (level == SOL_CAN_RAW && record->emulated) {
    std::lock_guard<std::mutex> lock(record->mutex);
    if (store_can_option(*record, name, value, length) < 0) {
      return -1;
    }
    push_options(*record);
    return 0;
  }
  const int result = next_setsockopt()(fd, level, name, value, length);
  if (result == 0) {
    if (level == SOL_SOCKET) {
      record_socket_option(*record, name, value, length);
    } else if (level == SOL_CAN_RAW) {
      // Accepted by the kernel: keep it for a later swap to the hub.
      const int error = errno;
      std::lock_guard<std::mutex> lock(record->mutex);
      store_can_option(*record, name, value, length);
      errno = error;
    }
  }
  return result;
}

int getsockopt(int fd, int level, int name, void* value, socklen_t* length) noexcept {
  CanSocket* record = emulated(fd);
  if (record == nullptr) {
    return next_getsockopt()(fd, level, name, value, length);
  }
  if (level == SOL_CAN_RAW) {
    std::lock_guard<std::mutex> lock(record->mutex);
    return load_can_option(*record, name, value, length);
  }
  if (level == SOL_SOCKET && (name == SO_DOMAIN || name == SO_TYPE || name == SO_PROTOCOL) &&
      value != nullptr && length != nullptr && *length >= sizeof(int)) {
    // The kernel never records the protocol of a CAN socket: SO_PROTOCOL reads 0.
    const int answer = name == SO_DOMAIN ? AF_CAN : name == SO_TYPE ? SOCK_RAW : 0;
    std::memcpy(value, &answer, sizeof(int));
    *length = sizeof(int);
    return 0;
  }
  return next_getsockopt()(fd, level, name, value, length);
}

int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
  CanSocket* record = emulated(fd);
  if (record == nullptr) {
    return next_getsockname()(fd, address, length);
  }
  if (address == nullptr || length == nullptr) {
    return fail(EFAULT);
  }
  fill_source(*record, address, length);
  return 0;
}

int getpeername(int fd, sockaddr* address, socklen_t* length) noexcept {
  if (emulated(fd) != nullptr) {
    return fail(EOPNOTSUPP);
  }
  return next_getpeername()(fd, address, length);
}

ssize_t write(int fd, const void* buffer, size_t size) {
  if (CanSocket* record = emulated(fd)) {
    return emulated_send(fd, *record, buffer, size, 0, nullptr, 0);
  }
  return next_write()(fd, buffer, size);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  if (CanSocket* record = emulated(fd)) {
    if (count < 0 || (count > 0 && parts == nullptr)) {
      return fail(count < 0 ? EINVAL : EFAULT);
    }
    return emulated_send_vector(fd, *record, parts, static_cast<std::size_t>(count), 0, nullptr, 0);
  }
  return next_writev()(fd, parts, count);
}

ssize_t send(int fd, const void* buffer, size_t size, int flags) {
  if (CanSocket* record = emulated(fd)) {
    return emulated_send(fd, *record, buffer, size, flags, nullptr, 0);
  }
  return next_send()(fd, buffer, size, flags);
}

ssize_t sendto(int fd, const void* buffer, size_t size, int flags, const sockaddr* destination,
               socklen_t destination_length) {
  if (CanSocket* record = emulated(fd)) {
    return emulated_send(fd, *record, buffer, size, flags, destination, destination_length);
  }
  return next_sendto()(fd, buffer, size, flags, destination, destination_length);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  if (CanSocket* record = emulated(fd)) {
    if (message == nullptr || (message->msg_iovlen > 0 && message->msg_iov == nullptr)) {
      return fail(EFAULT);
    }
    return emulated_send_vector(fd, *record, message->msg_iov, message->msg_iovlen, flags,
                                static_cast<const sockaddr*>(message->msg_name),
                                message->msg_namelen);
  }
  return next_sendmsg()(fd, message, flags);
}

ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* source,
                 socklen_t* source_length) {
  CanSocket* record = emulated(fd);
  if (record == nullptr || source == nullptr) {
    return next_recvfrom()(fd, buffer, size, flags, source, source_length);
  }
  const ssize_t received = next_recvfrom()(fd, buffer, size, flags, nullptr, nullptr);
  if (received >= 0) {
    fill_source(*record, source, source_length);
  }
  return received;
}

ssize_t __recvfrom_chk(int fd, void* buffer, size_t size, size_t buffer_size, int flags,
                       sockaddr* source, socklen_t* source_length) {
  if (emulated(fd) == nullptr || source == nullptr || size > buffer_size) {
    return next___recvfrom_chk()(fd, buffer, size, buffer_size, flags, source, source_length);
  }
  return recvfrom(fd, buffer, size, flags, source, source_length);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
  CanSocket* record = emulated(fd);
  if (record == nullptr || message == nullptr || message->msg_name == nullptr) {
    return next_recvmsg()(fd, message, flags);
  }
  msghdr without_name = *message;
  without_name.msg_name = nullptr;
  without_name.msg_namelen = 0;
  const ssize_t received = next_recvmsg()(fd, &without_name, flags);
  if (received >= 0) {
    message->msg_controllen = without_name.msg_controllen;
    message->msg_flags = without_name.msg_flags;
    fill_source(*record, static_cast<sockaddr*>(message->msg_name), &message->msg_namelen);
  }
  return received;
}

int close(int fd) {
  // Forget first: once the descriptor is closed, another thread may get its number back.
  if (lookup(fd) != nullptr) {
    install(fd, nullptr);
  }
  return next_close()(fd);
}

int close_range(unsigned int first, unsigned int last, int flags) noexcept {
  if (next_close_range() == nullptr) {
    return fail(ENOSYS);
  }
  if ((flags & CLOSE_RANGE_CLOEXEC) == 0) {
    forget_range(first, last);
  }
  return next_close_range()(first, last, flags);
}

void closefrom(int lowest) noexcept {
  if (next_closefrom() == nullptr) {
    return;
  }
  forget_range(static_cast<unsigned int>(std::max(lowest, 0)), ~0u);
  next_closefrom()(lowest);
}

int dup(int fd) noexcept {
  const int copy = next_dup()(fd);
  if (copy >= 0) {
    CanSocket* record = lookup(fd);
    if (record != nullptr) {
      record->references.fetch_add(1);
    }
    install(copy, record);
  }
  return copy;
}

int dup3(int fd, int target, int flags) noexcept {
  const int result = next_dup3()(fd, target, flags);
  if (result >= 0) {
    CanSocket* record = lookup(fd);
    if (record != nullptr) {
      record->references.fetch_add(1);
    }
    install(target, record);
  }
  return result;
}

int dup2(int fd, int target) noexcept {
  if (fd == target) {
    return next_dup2()(fd, target);
  }
  const int result = next_dup2()(fd, target);
  if (result >= 0) {
    CanSocket* record = lookup(fd);
    if (record != nullptr) {
      record->references.fetch_add(1);
    }
    install(target, record);
  }
  return result;
}

}  // extern "C"
