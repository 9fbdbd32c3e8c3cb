// kestrel::canbus::CANSocket and the device registry against a userspace CAN bus, exactly as on a
// kernel interface.
#include "kestrel/canbus/can_socket.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>

#include "kestrel/canbus/can_device_collection.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/refusal.hpp"
#include "support/simbus_can.hpp"
#include "support/stderr_capture.hpp"

namespace kestrel::canbus {
namespace {

using namespace std::chrono_literals;
using kestrel::testing::capture_stderr;
using kestrel::testing::refusal_of;
using simbus::rawcan::classic_frame;
using simbus::rawcan::Fd;
using simbus::rawcan::fd_frame;
using simbus::rawcan::open_can;
using simbus::rawcan::read_within;
using std::chrono::steady_clock;

constexpr const char* kLongName = "a23456789012345";

int open_descriptors() {
  int count = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(dir)) {
    count += entry->d_name[0] != '.' ? 1 : 0;
  }
  ::closedir(dir);
  return count - 1;  // the directory stream itself
}

// The in-process hub holds the far end of every connection and closes it once it has seen the
// other end go; a leaked descriptor never comes back to the count.
bool descriptors_return_to(int count) {
  for (int i = 0; i < 200 && open_descriptors() != count; ++i) {
    std::this_thread::sleep_for(5ms);
  }
  return open_descriptors() == count;
}

bool is_open(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

// Records which callbacks reached it.
class RecordingDevice : public CANDevice {
 public:
  explicit RecordingDevice(uint32_t recv_id) : CANDevice(recv_id - 0x10, recv_id, 0x7FF, false) {}
  void callback(const can_frame& frame) override { classic_ids.push_back(frame.can_id); }
  void callback(const canfd_frame& frame) override { fd_ids.push_back(frame.can_id); }
  std::vector<uint32_t> classic_ids;
  std::vector<uint32_t> fd_ids;
};

// The registry's keys in iteration order, each checked to be its device's receive id.
std::vector<uint32_t> order_of(const CANDeviceCollection& registry) {
  std::vector<uint32_t> order;
  for (const auto& entry : registry.get_devices()) {
    order.push_back(entry.first);
    EXPECT_EQ(entry.second->get_recv_id(), entry.first);
  }
  return order;
}

class CANSocketOnSimbus : public ::testing::Test {
 protected:
  simbus::ScopedSimbus bus_{{"can0", kLongName}};
};

// An FD socket writes and reads both kinds; a classic frame stays 16 bytes on it. A frame of
// exactly 64 bytes fills its kind and goes out; longer ones, which the kernel would answer with
// EINVAL only after the call, are refused by name before writing.
TEST_F(CANSocketOnSimbus, FdSocketExchangesFramesOfBothKinds) {
  Fd peer = open_can("can0", true);
  CANSocket fd("can0", true);
  can_frame classic = classic_frame(0x5, {});
  classic.can_dlc = 9;
  canfd_frame too_big = fd_frame(0x6, 64);
  too_big.len = 65;
  can_frame raw_classic = classic_frame(0x7, {});
  raw_classic.can_dlc = 15;
  canfd_frame raw_fd = fd_frame(0x8, 8);
  raw_fd.len = 255;
  const struct {
    const char* name;
    std::function<void()> call;
    const char* message;
  } refusals[] = {
      {"classic frame of 9 bytes", [&] { fd.write_can_frame(classic); },
       "write_can_frame: length 9 exceeds the 8 bytes of a classic CAN frame"},
      {"FD frame of 65 bytes", [&] { fd.write_canfd_frame(too_big); },
       "write_canfd_frame: length 65 exceeds the 64 bytes of a CAN FD frame"},
      {"raw classic frame of 15 bytes", [&] { fd.write_raw_frame(&raw_classic, CAN_MTU); },
       "write_raw_frame: length 15 exceeds the 8 bytes of a classic CAN frame"},
      {"raw FD frame of 255 bytes", [&] { fd.write_raw_frame(&raw_fd, CANFD_MTU); },
       "write_raw_frame: length 255 exceeds the 64 bytes of a CAN FD frame"},
  };
  for (const auto& row : refusals) {
    EXPECT_EQ(refusal_of(row.call), row.message) << row.name;
  }
  // Nothing refused went out: the peer's first frame is the next one written.
  const can_frame small = classic_frame(0x10, {1, 2});
  const canfd_frame big = fd_frame(0x20, 64, CANFD_BRS, 0x40);
  ASSERT_TRUE(fd.write_can_frame(small));
  ASSERT_TRUE(fd.write_canfd_frame(big));
  canfd_frame got{};
  ASSERT_EQ(read_within(peer.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(std::memcmp(&got, &small, CAN_MTU), 0);
  ASSERT_EQ(read_within(peer.get(), &got, sizeof(got), 2000), CANFD_MTU);
  EXPECT_EQ(got.len, 64);
  EXPECT_EQ(std::memcmp(got.data, big.data, 64), 0);

  ASSERT_EQ(::write(peer.get(), &big, CANFD_MTU), CANFD_MTU);
  ASSERT_EQ(::write(peer.get(), &small, CAN_MTU), CAN_MTU);
  ASSERT_TRUE(fd.is_data_available(2000000));
  ASSERT_TRUE(fd.read_canfd_frame(got));
  EXPECT_EQ(got.can_id, 0x20u);
  EXPECT_EQ(got.flags, CANFD_BRS | CANFD_FDF);
  ASSERT_TRUE(fd.is_data_available(2000000));
  EXPECT_EQ(fd.read_raw_frame(&got, sizeof(got)), CAN_MTU);  // classic stays 16 bytes
  EXPECT_EQ(got.can_id, 0x10u);
}

// A missing interface fails quietly; a DOWN one prints the hint once. The name is cut to 15
// characters for the kernel but kept as given everywhere else. No descriptor leaks.
TEST_F(CANSocketOnSimbus, ConstructionFailsWithTheHintOnlyForADownInterface) {
  const std::string longer = std::string(kLongName) + "XYZ";
  auto hint = [](const std::string& name) {
    return "CAN interface \"" + name + "\" is DOWN. Did you run: sudo ip link set " + name +
           " up type can bitrate 1000000 ?\n";
  };
  const struct {
    const char* name;
    std::string interface;
    bool canfd;
    const char* down;  // the interface taken DOWN first, if any
    std::string printed;
  } rows[] = {
      {"missing interface", "nosuch0", false, nullptr, ""},
      {"DOWN interface, FD", "can0", true, "can0", hint("can0")},
      {"DOWN interface with a long name", longer, false, kLongName, hint(longer)},
  };
  const int before = open_descriptors();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.down != nullptr) {
      bus_.set_up(row.down, false);
    }
    std::string what;
    EXPECT_EQ(capture_stderr([&] {
                what = refusal_of<CANSocketException>([&] { CANSocket(row.interface, row.canfd); });
              }),
              row.printed);
    EXPECT_EQ(what, "Socket error: Failed to initialize socket for interface: " + row.interface);
    EXPECT_TRUE(descriptors_return_to(before)) << open_descriptors() << " vs " << before;
    if (row.down != nullptr) {
      bus_.set_up(row.down, true);
      EXPECT_NO_THROW(CANSocket(row.interface, row.canfd));
    }
  }
  EXPECT_EQ(CANSocket(longer, false).get_interface_name(), longer);
}

// A classic socket writes a full 8-byte frame, and is_data_available polls or waits as long as
// asked, returning when a frame comes.
TEST_F(CANSocketOnSimbus, ClassicSocketWritesThenWaitsForAndReadsAFrame) {
  CANSocket socket("can0", false);
  Fd peer = open_can("can0");
  const can_frame out = classic_frame(0x123, {1, 2, 3, 4, 5, 6, 7, 8});
  ASSERT_TRUE(socket.write_can_frame(out));
  can_frame got{};
  ASSERT_EQ(read_within(peer.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(std::memcmp(&got, &out, CAN_MTU), 0);

  auto start = steady_clock::now();
  EXPECT_FALSE(socket.is_data_available(0));
  EXPECT_LT(steady_clock::now() - start, 20ms);
  start = steady_clock::now();
  EXPECT_FALSE(socket.is_data_available(150000));
  const auto waited = steady_clock::now() - start;
  EXPECT_GE(waited, 145ms);
  EXPECT_LT(waited, 1s);

  const can_frame back = classic_frame(0x321, {9, 8, 7});
  std::thread later([&] {
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(::write(peer.get(), &back, CAN_MTU), CAN_MTU);
  });
  start = steady_clock::now();
  EXPECT_TRUE(socket.is_data_available(2000000));
  EXPECT_LT(steady_clock::now() - start, 1s);
  later.join();
  EXPECT_TRUE(socket.read_can_frame(got));
  EXPECT_EQ(std::memcmp(&got, &back, CAN_MTU), 0);
  // Nothing left: the 100 µs receive time-out ends the read at once.
  start = steady_clock::now();
  EXPECT_FALSE(socket.read_can_frame(got));
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_LT(steady_clock::now() - start, 50ms);
}

// After cleanup the socket still counts as initialised but every call fails; a second cleanup
// must not close the newcomer that reused the number, and descriptor 0 is never closed at all.
TEST_F(CANSocketOnSimbus, CleanupClosesItsOwnDescriptorOnceAndLaterCallsFail) {
  CANSocket socket("can0", false);
  const int number = socket.get_socket_fd();
  socket.cleanup();
  EXPECT_EQ(socket.get_socket_fd(), -1);
  EXPECT_FALSE(is_open(number));
  EXPECT_TRUE(socket.get_is_initialized());  // writes fail with EBADF: see the write failures
  can_frame frame{};
  EXPECT_FALSE(socket.read_can_frame(frame));
  EXPECT_FALSE(socket.is_data_available(0));
  Fd newcomer(::open("/dev/null", O_RDONLY));
  ASSERT_EQ(newcomer.get(), number);
  socket.cleanup();
  EXPECT_TRUE(is_open(number));

  Fd saved_stdin(::dup(0));
  ::close(0);
  {
    CANSocket on_zero("can0", false);
    EXPECT_EQ(on_zero.get_socket_fd(), 0);
    on_zero.cleanup();
    EXPECT_EQ(on_zero.get_socket_fd(), 0);
    EXPECT_TRUE(on_zero.write_can_frame(classic_frame(0x2, {})));  // still the CAN socket
  }
  EXPECT_TRUE(is_open(0));  // the destructor left it alone too
  ASSERT_EQ(::dup2(saved_stdin.get(), 0), 0);
}

// Each row writes twice on a socket opened on an interface of the given MTU: the result, errno
// as write() left it, the counts by cause, and what CAN FD on that interface is told.
TEST_F(CANSocketOnSimbus, FailedWritesAreCountedByCauseAndFdNeedsAnFdInterface) {
  const can_frame small = classic_frame(0x4, {1});
  const canfd_frame big = fd_frame(0x4, 8);
  const std::string refusal =
      "CAN interface 'can0' is not CAN FD capable (MTU 16): use classic CAN, or enable CAN FD "
      "with: sudo ip link set can0 down && sudo ip link set can0 up type can bitrate 1000000 "
      "dbitrate 5000000 fd on (a vcan: sudo ip link set can0 mtu 72)";
  using Write = std::function<bool(CANSocket&)>;
  const Write classic = [&](CANSocket& s) { return s.write_can_frame(small); };
  const Write fd = [&](CANSocket& s) { return s.write_canfd_frame(big); };
  const Write one_byte = [](CANSocket& s) { return s.write_raw_frame("x", 1) == 1; };
  const Write after_cleanup = [&](CANSocket& s) {
    s.cleanup();
    return s.write_can_frame(small);
  };
  enum Cause { kNone, kRefused, kQueueFull, kDown, kOther };  // where both failures are counted
  const struct {
    const char* name;
    bool canfd;
    int mtu;
    bool up;
    Write write;
    int error;  // 0: both writes go out
    Cause cause;
  } rows[] = {
      {"FD frame, classic socket", false, CANFD_MTU, true, fd, EINVAL, kRefused},
      {"1-byte raw write", false, CANFD_MTU, true, one_byte, EINVAL, kRefused},
      {"classic frame, FD socket, classic interface", true, CAN_MTU, true, classic, 0, kNone},
      {"FD frame, FD interface", true, CANFD_MTU, true, fd, 0, kNone},
      {"interface down", true, CANFD_MTU, false, fd, ENETDOWN, kDown},
      {"after cleanup", false, CANFD_MTU, true, after_cleanup, EBADF, kOther},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    bus_.set_up("can0", false);
    bus_.set_mtu("can0", row.mtu);
    bus_.set_up("can0", true);
    CANSocket socket("can0", row.canfd);  // opens on a classic interface too, as in the kernel
    EXPECT_EQ(socket.interface_mtu(), row.mtu);
    EXPECT_EQ(canfd_refusal("can0", row.canfd),
              row.canfd && row.mtu == CAN_MTU ? refusal : std::string());
    bus_.set_up("can0", row.up);
    for (int attempt = 0; attempt < 2; ++attempt) {
      errno = 0;
      EXPECT_EQ(row.write(socket), row.error == 0);
      if (row.error != 0) {
        EXPECT_EQ(errno, row.error);
      }
    }
    const SendFailureCounts c = socket.send_failures();
    const std::array<uint64_t, 5> by_cause = {0, c.refused, c.queue_full, c.interface_down,
                                              c.other};
    for (int cause = kRefused; cause <= kOther; ++cause) {
      EXPECT_EQ(by_cause[cause], cause == row.cause ? 2u : 0u) << cause;
    }
    EXPECT_EQ(c.last_errno, row.error);
  }
  EXPECT_EQ(canfd_mtu_refusal("can0", CAN_MTU), refusal);
  EXPECT_EQ(describe_send_failures({2, 1, 0, 0, ENOBUFS}),
            "3 (refused 2, queue full 1, interface down 0, other 0; last No buffer space "
            "available (ENOBUFS))");
  EXPECT_EQ(describe_send_failures({}), "0");
}

// The device registry on a socket iterates its devices in ascending receive id; a frame reaches
// the device whose receive id equals its whole can_id (extended, remote and error flags
// included), classic or FD. A device under an identifier already taken replaces the old one
// (released); removal goes by the device's receive identifier; missing keys and null devices are
// ignored; destruction releases the devices.
TEST_F(CANSocketOnSimbus, RegistryKeysDevicesByReceiveIdAndDispatchesOnTheWholeIdentifier) {
  CANSocket socket("can0", false);
  CANDeviceCollection registry(socket);
  std::vector<std::shared_ptr<RecordingDevice>> devices;
  for (uint32_t id : {0x15u, 0x12u, 0x13u}) {
    devices.push_back(std::make_shared<RecordingDevice>(id));
    registry.add_device(devices.back());
  }
  EXPECT_EQ(order_of(registry), (std::vector<uint32_t>{0x12, 0x13, 0x15}));

  can_frame frame{};
  for (uint32_t id :
       {0x12u, 0x12u | CAN_EFF_FLAG, 0x12u | CAN_RTR_FLAG, 0x12u | CAN_ERR_FLAG, 0x7FFu}) {
    frame.can_id = id;
    registry.dispatch_frame_callback(frame);
  }
  canfd_frame fd{};
  fd.can_id = 0x12;
  registry.dispatch_frame_callback(fd);
  EXPECT_EQ(devices[1]->classic_ids, (std::vector<uint32_t>{0x12}));
  EXPECT_EQ(devices[1]->fd_ids, (std::vector<uint32_t>{0x12}));
  EXPECT_TRUE(devices[0]->classic_ids.empty() && devices[2]->classic_ids.empty());

  auto first = std::make_shared<RecordingDevice>(0x11);
  auto second = std::make_shared<RecordingDevice>(0x11);
  registry.add_device(first);
  registry.add_device(second);
  EXPECT_EQ(registry.get_devices().at(0x11), second);
  EXPECT_EQ(first.use_count(), 1) << "the replaced device is released";
  registry.remove_device(first);  // removes what is registered under its receive id
  registry.remove_device(first);  // a missing key is ignored
  registry.add_device(nullptr);
  registry.remove_device(nullptr);
  EXPECT_EQ(order_of(registry), (std::vector<uint32_t>{0x12, 0x13, 0x15}));
  {
    CANDeviceCollection scoped(socket);
    scoped.add_device(first);
    EXPECT_EQ(first.use_count(), 2);
  }
  EXPECT_EQ(first.use_count(), 1) << "destruction releases devices";
}

}  // namespace
}  // namespace kestrel::canbus
