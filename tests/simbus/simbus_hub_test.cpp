// The hub itself: life cycle and files, remote control, slow receivers, counters, and the
// wire-time emulation (pacing and arbitration).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

#include "simbus/hub.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::simbus {
namespace {

using namespace std::chrono_literals;
using rawcan::classic_frame;
using rawcan::Fd;
using rawcan::open_can;
using rawcan::read_within;
using std::chrono::microseconds;
using std::chrono::steady_clock;

bool exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

HubOptions paced(std::uint32_t bitrate = kDefaultBitrate) {
  HubOptions options;
  options.wire_time = true;
  options.bitrate = bitrate;
  return options;
}

TEST(HubLifecycle, FilesExistExactlyWhileTheHubRuns) {
  ScopedSimbus bus({"spare0"});  // only for a private directory
  const std::string dir = bus.directory();
  {
    Hub hub({"can0", "can1"}, HubOptions{dir});
    EXPECT_FALSE(exists(socket_path(dir, "can0")));
    hub.start();
    EXPECT_TRUE(hub.running());
    hub.start();  // already running: nothing happens
    for (const char* name : {"can0", "can1"}) {
      EXPECT_TRUE(exists(socket_path(dir, name)));
      EXPECT_TRUE(exists(state_path(dir, name)));
      EXPECT_TRUE(is_served(dir, name));
    }
    EXPECT_EQ(interface_files(dir), (std::vector<std::string>{"can0", "can1", "spare0"}));
    hub.stop();
    EXPECT_FALSE(hub.running());
    EXPECT_FALSE(exists(socket_path(dir, "can0")));
    EXPECT_FALSE(exists(state_path(dir, "can0")));
    hub.start();  // and again
    EXPECT_TRUE(is_served(dir, "can0"));
  }
  EXPECT_FALSE(exists(socket_path(dir, "can1")));  // the destructor cleaned up
}

TEST(HubLifecycle, RefusesBadNamesAndASecondHubForTheSameInterface) {
  EXPECT_THROW(Hub({}), std::invalid_argument);
  EXPECT_THROW(Hub({""}), std::invalid_argument);
  EXPECT_THROW(Hub({"can/0"}), std::invalid_argument);
  EXPECT_THROW(Hub({"can0", "can0"}), std::invalid_argument);
  HubOptions no_rate;
  no_rate.bitrate = 0;
  EXPECT_THROW(Hub({"can0"}, no_rate), std::invalid_argument);
  EXPECT_THROW(Hub({"can0"}, HubOptions{"/" + std::string(120, 'd')}), std::invalid_argument);

  ScopedSimbus bus({"can0"});
  Hub rival({"can0"}, HubOptions{bus.directory()});
  EXPECT_THROW(rival.start(), std::runtime_error);
  EXPECT_TRUE(is_served(bus.directory(), "can0"));  // the first hub is untouched
  EXPECT_THROW(bus.hub().set_up("can9", false), std::invalid_argument);
}

TEST(HubLifecycle, ScopedSimbusRestoresTheEnvironment) {
  ::setenv(kDirectoryEnv, "/previous", 1);
  std::string dir;
  {
    ScopedSimbus bus({"can0"});
    dir = bus.directory();
    EXPECT_EQ(bus_directory(), dir);
  }
  EXPECT_EQ(bus_directory(), "/previous");
  EXPECT_FALSE(exists(dir));
  ::unsetenv(kDirectoryEnv);
  { ScopedSimbus bus({"can0"}); }
  EXPECT_EQ(std::getenv(kDirectoryEnv), nullptr);
}

TEST(HubControl, StateCanBeReadAndChangedFromOutside) {
  ScopedSimbus bus({"can0"});
  Hub later({"late0"}, HubOptions{bus.directory()});
  later.set_up("late0", false);  // before start: the interface starts down
  later.start();
  EXPECT_FALSE(later.is_up("late0"));

  auto stats = set_interface_state(bus.directory(), "can0", false);
  ASSERT_TRUE(stats.has_value());
  EXPECT_FALSE(stats->up);
  EXPECT_FALSE(bus.hub().is_up("can0"));
  stats = query_interface(bus.directory(), "can0");
  ASSERT_TRUE(stats.has_value());
  EXPECT_FALSE(stats->up);
  EXPECT_EQ(stats->ifindex, interface_index("can0"));
  EXPECT_TRUE(set_interface_state(bus.directory(), "can0", true)->up);
  EXPECT_TRUE(bus.hub().is_up("can0"));
  EXPECT_FALSE(query_interface(bus.directory(), "nosuch0").has_value());
}

// Like vcan: MTU 16 or 72, changed only while down; an FD socket on a classic interface opens,
// sends and receives classic frames, and every 72-byte write fails with EINVAL, before the
// interface state is looked at (as raw_sendmsg checks the size against dev->mtu first).
TEST(HubControl, MtuIsClassicOrFdChangesOnlyWhileDownAndGatesFdWrites) {
  ScopedSimbus bus({"can0"});
  Hub later({"late0"}, HubOptions{bus.directory()});
  later.set_mtu("late0", CAN_MTU);  // before start: taken although the interface starts up
  later.start();
  EXPECT_EQ(later.mtu("late0"), CAN_MTU);
  EXPECT_EQ(query_interface(bus.directory(), "late0")->mtu, CAN_MTU);
  EXPECT_EQ(bus.hub().mtu("can0"), CANFD_MTU);
  const std::string busy = "cannot change the MTU of 'can0' while it is up (set it down first)";
  const struct {
    std::function<void()> call;
    std::string message;
  } refused[] = {
      {[&] { bus.set_mtu("can0", CAN_MTU); }, busy},
      {[&] { set_interface_mtu(bus.directory(), "can0", CAN_MTU); }, busy},
      {[&] { bus.set_mtu("can0", 64); },
       "invalid MTU 64 for 'can0': 16 (classic CAN) or 72 (CAN FD)"},
      {[&] { set_interface_mtu(bus.directory(), "can0", 0); },
       "invalid MTU 0 for 'can0': 16 (classic CAN) or 72 (CAN FD)"},
      {[&] { bus.set_mtu("can9", CAN_MTU); }, "simbus hub: interface \"can9\" is not served"},
  };
  for (const auto& row : refused) {
    std::string message = "no exception";
    try {
      row.call();
    } catch (const std::exception& e) {  // invalid_argument or runtime_error, as documented
      message = e.what();
    }
    EXPECT_EQ(message, row.message);
  }
  EXPECT_EQ(bus.hub().mtu("can0"), CANFD_MTU);
  bus.set_up("can0", false);
  EXPECT_EQ(set_interface_mtu(bus.directory(), "can0", CAN_MTU)->mtu, CAN_MTU);
  bus.set_up("can0", true);

  Fd fd_socket = open_can("can0", true);
  Fd peer = open_can("can0", true);
  ifreq request{};
  std::strcpy(request.ifr_name, "can0");
  ASSERT_EQ(::ioctl(fd_socket.get(), SIOCGIFMTU, &request), 0);
  EXPECT_EQ(request.ifr_mtu, CAN_MTU);
  canfd_frame big = rawcan::fd_frame(0x5, 12);
  iovec part{&big, CANFD_MTU};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = interface_index("can0");
  const auto to = reinterpret_cast<const sockaddr*>(&address);
  const std::function<ssize_t()> writes[] = {
      [&] { return ::write(fd_socket.get(), &big, CANFD_MTU); },
      [&] { return ::send(fd_socket.get(), &big, CANFD_MTU, 0); },
      [&] { return ::sendto(fd_socket.get(), &big, CANFD_MTU, 0, to, sizeof(address)); },
      [&] { return ::sendmsg(fd_socket.get(), &message, 0); },
      [&] { return ::writev(fd_socket.get(), &part, 1); },
  };
  for (int up : {1, 0}) {
    bus.set_up("can0", up != 0);
    for (const auto& write : writes) {
      errno = 0;
      EXPECT_EQ(write(), -1);
      EXPECT_EQ(errno, EINVAL) << "up " << up;
    }
  }
  bus.set_up("can0", true);
  const can_frame small = classic_frame(0x6, {1, 2});
  ASSERT_EQ(::write(fd_socket.get(), &small, CAN_MTU), CAN_MTU);
  canfd_frame got{};
  ASSERT_EQ(read_within(peer.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(std::memcmp(&got, &small, CAN_MTU), 0);
  EXPECT_EQ(bus.statistics("can0").frames_received, 1u);  // the refused ones never left
}

TEST(HubRelay, ASlowReceiverLosesFramesButBlocksNobody) {
  ScopedSimbus bus({"can0"});
  Fd writer = open_can("can0");
  Fd asleep = open_can("can0");  // never reads
  Fd awake = open_can("can0");
  constexpr int kFrames = 3000;
  int received = 0;
  std::thread reading([&] {
    can_frame frame{};
    while (read_within(awake.get(), &frame, sizeof(frame), 1000) == CAN_MTU) {
      ++received;
    }
  });
  const auto start = steady_clock::now();
  for (int i = 0; i < kFrames; ++i) {
    const can_frame frame = classic_frame(0x10, {1, 2, 3, 4, 5, 6, 7, 8});
    if (::write(writer.get(), &frame, CAN_MTU) != CAN_MTU) {
      ADD_FAILURE() << "write " << i << ": " << std::strerror(errno);
      break;
    }
  }
  const auto writing = steady_clock::now() - start;
  reading.join();
  const InterfaceStatistics stats = bus.statistics("can0");
  EXPECT_LT(writing, 10s);
  EXPECT_GT(stats.frames_dropped, 0u);
  EXPECT_EQ(stats.frames_received, static_cast<std::uint64_t>(kFrames));
  EXPECT_EQ(stats.deliveries + stats.frames_dropped, 2u * kFrames);
  EXPECT_GT(received, 0);
  EXPECT_LE(static_cast<std::uint64_t>(received), stats.deliveries);
}

TEST(HubRelay, CountsBusTimeAndLoadAndResets) {
  ScopedSimbus bus({"can0"});
  Fd writer = open_can("can0", true);
  Fd reader = open_can("can0", true);
  const can_frame classic = classic_frame(0x1, {1, 2, 3, 4, 5, 6, 7, 8});
  const canfd_frame fd = rawcan::fd_frame(0x2, 8);
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(::write(writer.get(), &classic, CAN_MTU), CAN_MTU);
    ASSERT_EQ(::write(writer.get(), &fd, CANFD_MTU), CANFD_MTU);
  }
  EXPECT_EQ(rawcan::read_ids(reader.get(), 20).size(), 20u);
  const InterfaceStatistics stats = bus.statistics("can0");
  EXPECT_EQ(stats.frames_relayed, 20u);
  EXPECT_EQ(stats.busy_time, 10 * (microseconds(111) + std::chrono::nanoseconds(49200)));
  // Unpaced, the frames came faster than a real bus carries them: the load may exceed 1.
  EXPECT_DOUBLE_EQ(stats.load(), static_cast<double>(stats.busy_time.count()) /
                                     static_cast<double>(stats.elapsed.count()));
  EXPECT_GT(stats.load(), 0.0);
  EXPECT_FALSE(stats.wire_time);
  EXPECT_EQ(stats.bitrate, kDefaultBitrate);
  bus.hub().reset_statistics();
  const InterfaceStatistics after = bus.statistics("can0");
  EXPECT_EQ(after.frames_relayed, 0u);
  EXPECT_EQ(after.busy_time.count(), 0);
  EXPECT_EQ(after.clients, 2u);
}

TEST(HubWireTime, ClassicFramesTakeTheirWireTime) {
  ScopedSimbus bus({"can0"}, paced());
  Fd writer = open_can("can0");
  Fd reader = open_can("can0");
  constexpr int kFrames = 100;
  const auto start = steady_clock::now();
  for (int i = 0; i < kFrames; ++i) {
    const can_frame frame = classic_frame(0x100, {1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  }
  can_frame frame{};
  std::vector<steady_clock::time_point> arrivals;
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(read_within(reader.get(), &frame, sizeof(frame), 2000), CAN_MTU) << i;
    arrivals.push_back(steady_clock::now());
  }
  // Frame k ends its transmission (k + 1) * 111 µs after the first write at the earliest;
  // wake-up latency can only make it later.
  for (int i = 0; i < kFrames; ++i) {
    EXPECT_GE(arrivals[i] - start, microseconds((i + 1) * 111)) << "frame " << i;
  }
  const auto last = arrivals.back();
  EXPECT_LT(last - start, 2s);
  const InterfaceStatistics stats = bus.statistics("can0");
  EXPECT_TRUE(stats.wire_time);
  EXPECT_EQ(stats.busy_time, microseconds(kFrames * 111));
  EXPECT_LE(stats.load(), 1.0);  // paced: the bus is never busier than all the time
  std::printf("[ measured ] 100 classic frames: %.2f ms from first write to last arrival\n",
              std::chrono::duration<double, std::milli>(last - start).count());
}

TEST(HubWireTime, FdFramesWithBitRateSwitchTakeTheirShorterWireTime) {
  ScopedSimbus bus({"can0"}, paced());
  Fd writer = open_can("can0", true);
  Fd reader = open_can("can0", true);
  constexpr int kFrames = 200;
  const auto start = steady_clock::now();
  for (int i = 0; i < kFrames; ++i) {
    const canfd_frame frame = rawcan::fd_frame(0x100, 8);
    ASSERT_EQ(::write(writer.get(), &frame, CANFD_MTU), CANFD_MTU);
  }
  EXPECT_EQ(rawcan::read_ids(reader.get(), kFrames).size(), static_cast<std::size_t>(kFrames));
  const auto elapsed = steady_clock::now() - start;
  EXPECT_GE(elapsed, kFrames * std::chrono::nanoseconds(49200));
  EXPECT_LT(elapsed, 2s);
  EXPECT_EQ(bus.statistics("can0").busy_time, kFrames * std::chrono::nanoseconds(49200));
  std::printf("[ measured ] 200 FD frames (8 bytes, BRS): %.2f ms\n",
              std::chrono::duration<double, std::milli>(elapsed).count());
}

TEST(HubWireTime, WaitingNodesArbitrateLowestIdentifierFirstEachNodeInItsOwnOrder) {
  // 2 kbit/s: an 8-byte frame holds the bus for 55.5 ms, far longer than it takes to queue the
  // others even on a loaded machine. Every socket is a node of its own; a node's frames leave in
  // the order it wrote them (a Linux CAN controller's queue is first in, first out), and only
  // its oldest waiting frame takes part in arbitration.
  ScopedSimbus bus({"can0"}, paced(2000));
  std::vector<Fd> nodes;
  for (int i = 0; i < 6; ++i) {
    nodes.push_back(open_can("can0"));
  }
  Fd reader = open_can("can0");
  auto send = [&](int node, canid_t id, std::uint8_t tag) {
    const can_frame frame = classic_frame(id, {tag, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_EQ(::write(nodes[node].get(), &frame, CAN_MTU), CAN_MTU);
  };
  send(0, 0x700, 0);
  std::this_thread::sleep_for(10ms);      // 0x700 is on the wire now
  send(1, 0x0C000000 | CAN_EFF_FLAG, 1);  // base identifier 0x300, but extended
  send(1, 0x010, 7);                      // the lowest identifier, but behind its node's first
  send(2, 0x300, 2);
  send(3, 0x100, 3);
  send(4, 0x200, 4);
  send(5, 0x050, 5);
  std::vector<std::pair<canid_t, int>> order;
  can_frame frame{};
  while (order.size() < 7 && read_within(reader.get(), &frame, sizeof(frame), 2000) == CAN_MTU) {
    order.emplace_back(frame.can_id, frame.data[0]);
  }
  const std::vector<std::pair<canid_t, int>> expected = {
      {0x700, 0}, {0x050, 5}, {0x100, 3}, {0x200, 4}, {0x300, 2}, {0x0C000000 | CAN_EFF_FLAG, 1},
      {0x010, 7}};
  EXPECT_EQ(order, expected);
}

TEST(HubWireTime, GoingDownDiscardsFramesWaitingForTheBus) {
  // 100 bit/s: the first frame would hold the bus for 1.11 s.
  ScopedSimbus bus({"can0"}, paced(100));
  Fd writer = open_can("can0");
  Fd reader = open_can("can0");
  for (int i = 0; i < 5; ++i) {
    const can_frame frame = classic_frame(0x10 + i, {1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  }
  std::this_thread::sleep_for(5ms);
  const auto down = steady_clock::now();
  bus.set_up("can0", false);
  // Discarded at once, as a real interface drops its queue, not when the bus would be free.
  while (bus.statistics("can0").frames_discarded < 5 && steady_clock::now() - down < 2s) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(bus.statistics("can0").frames_discarded, 5u);
  EXPECT_LT(steady_clock::now() - down, 500ms);
  bus.set_up("can0", true);
  EXPECT_TRUE(rawcan::stays_silent(reader.get(), 20));
  const can_frame frame = classic_frame(0x99, {});  // 47 bits: 470 ms
  ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  EXPECT_EQ(rawcan::read_ids(reader.get(), 1), std::vector<canid_t>{0x99});
}

}  // namespace
}  // namespace kestrel::simbus
