// The hub and the bus's own side of raw CAN sockets, checked through the ordinary socket API of
// this (interposed) process against an in-process hub: life cycle and files, remote control,
// state changes, delivery under load, filters, descriptors, counters, and the wire-time
// emulation (pacing and arbitration). What every SocketCAN program relies on, and must find the
// same on the kernel, is in can_semantics.cpp, which runs on both.
#include <gtest/gtest.h>
#include <linux/can/error.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>
#include <tuple>

#include "simbus/hub.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_testing.hpp"
#include "simbus/socket_calls.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::simbus {
namespace {

using namespace rawcan;
using namespace std::chrono;
using std::filesystem::exists;

HubOptions paced(std::uint32_t bitrate = kDefaultBitrate) {
  HubOptions options;
  options.wire_time = true;
  options.bitrate = bitrate;
  return options;
}

const can_frame kEightBytes = classic_frame(0x10, {1, 2, 3, 4, 5, 6, 7, 8});

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

// Like vcan: MTU 16 or 72, changed only while down; an FD socket on a classic interface opens,
// and every 72-byte write on it fails with EINVAL, before the interface state is looked at (as
// raw_sendmsg checks the size against dev->mtu first).
TEST(HubControl, StateAndMtuAreReadAndChangedFromOutsideAndTheMtuGatesFdWrites) {
  ScopedSimbus bus({"can0"});
  EXPECT_FALSE(set_interface_state(bus.directory(), "can0", false).value().up);
  EXPECT_FALSE(bus.hub().is_up("can0"));
  EXPECT_EQ(query_interface(bus.directory(), "can0")->ifindex, interface_index("can0"));
  EXPECT_TRUE(set_interface_state(bus.directory(), "can0", true)->up);
  EXPECT_TRUE(bus.hub().is_up("can0"));
  EXPECT_FALSE(query_interface(bus.directory(), "nosuch0").has_value());

  EXPECT_EQ(bus.hub().mtu("can0"), CANFD_MTU);
  // {a refused call, its exact message}
  const std::tuple<std::function<void()>, std::string> refused[] = {
      {[&] { bus.set_mtu("can0", CAN_MTU); },
       "cannot change the MTU of 'can0' while it is up (set it down first)"},
      {[&] { bus.set_mtu("can0", 64); },
       "invalid MTU 64 for 'can0': 16 (classic CAN) or 72 (CAN FD)"},
      {[&] { set_interface_mtu(bus.directory(), "can0", 0); },
       "invalid MTU 0 for 'can0': 16 (classic CAN) or 72 (CAN FD)"},
      {[&] { bus.set_mtu("can9", CAN_MTU); }, "simbus hub: interface \"can9\" is not served"},
  };
  for (const auto& [call, expected] : refused) {
    std::string message = "no exception";
    try {
      call();
    } catch (const std::exception& e) {  // invalid_argument or runtime_error, as documented
      message = e.what();
    }
    EXPECT_EQ(message, expected);
  }
  EXPECT_EQ(bus.hub().mtu("can0"), CANFD_MTU);
  bus.set_up("can0", false);
  EXPECT_EQ(set_interface_mtu(bus.directory(), "can0", CAN_MTU)->mtu, CAN_MTU);
  bus.set_up("can0", true);

  Fd fd_socket = open_can("can0", true);
  ifreq request = request_for("can0");
  ASSERT_EQ(::ioctl(fd_socket.get(), SIOCGIFMTU, &request), 0);
  EXPECT_EQ(request.ifr_mtu, CAN_MTU);
  canfd_frame big = fd_frame(0x5, 12);
  iovec part{&big, CANFD_MTU};
  const msghdr message{nullptr, 0, &part, 1, nullptr, 0, 0};
  const sockaddr_can address{AF_CAN, interface_index("can0"), {}};
  const auto to = reinterpret_cast<const sockaddr*>(&address);
  const std::function<ssize_t()> writes[] = {
      [&] { return ::write(fd_socket.get(), &big, CANFD_MTU); },
      [&] { return ::send(fd_socket.get(), &big, CANFD_MTU, 0); },
      [&] { return ::sendto(fd_socket.get(), &big, CANFD_MTU, 0, to, sizeof(address)); },
      [&] { return ::sendmsg(fd_socket.get(), &message, 0); },
      [&] { return ::writev(fd_socket.get(), &part, 1); },
  };
  bus.set_up("can0", false);  // EINVAL, not ENETDOWN: the size is checked first
  for (const auto& write : writes) {
    EXPECT_EQ(errno_of(write()), EINVAL);
  }
  EXPECT_EQ(bus.statistics("can0").frames_received, 0u);  // the refused ones never left
}

TEST(HubRelay, CountsBusTimeAndLoadAndResets) {
  ScopedSimbus bus({"can0"});
  Fd writer = open_can("can0", true);
  Fd reader = open_can("can0", true);
  const canfd_frame fd = fd_frame(0x2, 8);
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(::write(writer.get(), &kEightBytes, CAN_MTU), CAN_MTU);
    ASSERT_EQ(::write(writer.get(), &fd, CANFD_MTU), CANFD_MTU);
  }
  EXPECT_EQ(read_ids(reader.get(), 20).size(), 20u);
  const InterfaceStatistics stats = bus.statistics("can0");
  EXPECT_EQ(stats.frames_relayed, 20u);
  EXPECT_EQ(stats.busy_time, 10 * (microseconds(111) + nanoseconds(49200)));
  EXPECT_FALSE(stats.wire_time);
  EXPECT_EQ(stats.bitrate, kDefaultBitrate);
  bus.hub().reset_statistics();
  const InterfaceStatistics after = bus.statistics("can0");
  EXPECT_EQ(after.frames_relayed, 0u);
  EXPECT_EQ(after.busy_time.count(), 0);
  EXPECT_EQ(after.clients, 2u);
}

// 200 CAN FD frames of 8 bytes with bit-rate switch, 49.2 us each.
TEST(HubWireTime, FramesTakeTheirWireTime) {
  ScopedSimbus bus({"can0"}, paced());
  Fd writer = open_can("can0", true);
  Fd reader = open_can("can0", true);
  const canfd_frame fd = fd_frame(0x100, 8);
  const auto start = steady_clock::now();
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(::write(writer.get(), &fd, CANFD_MTU), CANFD_MTU);
  }
  // Frame k ends its transmission (k + 1) wire times after the first write at the earliest.
  canfd_frame got{};
  for (int i = 0; i < 200; ++i) {
    ASSERT_GT(read_within(reader.get(), &got, sizeof(got), 2000), 0) << i;
    EXPECT_GE(steady_clock::now() - start, (i + 1) * nanoseconds(49200)) << "frame " << i;
  }
  EXPECT_LT(steady_clock::now() - start, 2s);
  const InterfaceStatistics stats = bus.statistics("can0");
  EXPECT_TRUE(stats.wire_time);
  EXPECT_EQ(stats.busy_time, 200 * nanoseconds(49200));
  EXPECT_LE(stats.load(), 1.0);  // paced: the bus is never busier than all the time
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
    ASSERT_EQ(::write(writer.get(), &kEightBytes, CAN_MTU), CAN_MTU);
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
  EXPECT_TRUE(stays_silent(reader.get(), 20));
  const can_frame frame = classic_frame(0x99, {});  // 47 bits: 470 ms
  ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  EXPECT_EQ(read_ids(reader.get(), 1), std::vector<canid_t>{0x99});
}

class SimbusSocket : public ::testing::Test {
 protected:
  ScopedSimbus bus_{{"can0", "can1"}};
};

// Lookups find only interfaces a running hub serves, in the directory the environment names at
// the time of each lookup.
TEST_F(SimbusSocket, OnlyServedInterfacesAreFound) {
  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ifreq request = request_for("can0");
  ASSERT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &request), 0);
  ::setenv(kDirectoryEnv, "/nonexistent-simbus-dir", 1);
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &request)), ENODEV);
  ::setenv(kDirectoryEnv, bus_.directory().c_str(), 1);
  EXPECT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &request), 0);

  // What a hub killed with SIGKILL leaves behind: a socket file nobody listens on.
  const std::string path = socket_path(bus_.directory(), "ghost0");
  Fd listener(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  listener.reset();
  ifreq ghost = request_for("ghost0");
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &ghost)), ENODEV);
  EXPECT_EQ(::if_nametoindex("ghost0"), 0u);

  // Once the hub stops, a bound socket's writes fail with ENXIO.
  Fd bound = open_can("can0");
  bus_.hub().stop();
  EXPECT_EQ(errno_of(::write(bound.get(), &kEightBytes, CAN_MTU)), ENXIO);
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &request)), ENODEV);
}

// The kernel would send to another CAN interface named in sendto(); the userspace bus reaches
// only the bound one and says so.
TEST_F(SimbusSocket, SendtoReachesOnlyTheBoundInterface) {
  Fd classic = open_can("can0");
  // {address family, interface, errno}
  const std::tuple<sa_family_t, const char*, int> rows[] = {
      {AF_CAN, "can0", 0}, {AF_CAN, "can1", ENXIO}, {AF_INET, "can0", EINVAL}};
  for (const auto& [family, name, error] : rows) {
    sockaddr_can to{};
    to.can_family = family;
    to.can_ifindex = interface_index(name);
    EXPECT_EQ(errno_of(::sendto(classic.get(), &kEightBytes, CAN_MTU, 0,
                                reinterpret_cast<sockaddr*>(&to), sizeof(to))),
              error)
        << name << " family " << family;
  }
}

// Writes `count` frames numbered 0, 1, ... as fast as they go while a thread reads `reader`
// until it stays silent for a second; the numbers read, in order of arrival.
std::vector<std::uint32_t> flood(int writer, int reader, std::uint32_t count) {
  std::vector<std::uint32_t> received;
  std::thread reading([&] {
    can_frame frame{};
    while (read_within(reader, &frame, sizeof(frame), 1000) == CAN_MTU) {
      received.emplace_back();
      std::memcpy(&received.back(), frame.data, sizeof(std::uint32_t));
    }
  });
  const auto start = steady_clock::now();
  for (std::uint32_t i = 0; i < count; ++i) {
    can_frame frame = classic_frame(0x300, {});
    frame.can_dlc = 4;
    std::memcpy(frame.data, &i, sizeof(i));
    if (::write(writer, &frame, CAN_MTU) != CAN_MTU) {
      ADD_FAILURE() << "write " << i << ": " << std::strerror(errno);
      break;
    }
  }
  EXPECT_LT(steady_clock::now() - start, 10s);  // a full receiver never blocks the writer
  reading.join();
  return received;
}

TEST_F(SimbusSocket, FramesOfOneWriterArriveInOrderOrAreCountedAsDropped) {
  Fd writer = open_can("can0");
  Fd reader = open_can("can0");
  const std::vector<std::uint32_t> received = flood(writer.get(), reader.get(), 5000);
  ASSERT_FALSE(received.empty());
  // strictly increasing: in order, none twice
  EXPECT_EQ(std::adjacent_find(received.begin(), received.end(), std::greater_equal<>()),
            received.end());
  InterfaceStatistics stats = bus_.statistics("can0");
  EXPECT_EQ(stats.frames_relayed, 5000u);
  EXPECT_EQ(received.size() + stats.frames_dropped, 5000u);

  // A receiver that never reads loses frames but blocks nobody.
  Fd asleep = open_can("can0");
  bus_.hub().reset_statistics();
  const std::size_t awake = flood(writer.get(), reader.get(), 3000).size();
  stats = bus_.statistics("can0");
  EXPECT_GT(stats.frames_dropped, 0u);
  EXPECT_EQ(stats.frames_received, 3000u);
  EXPECT_EQ(stats.deliveries + stats.frames_dropped, 2u * 3000);
  EXPECT_GT(awake, 0u);
  EXPECT_LE(awake, stats.deliveries);
}

TEST_F(SimbusSocket, ReceiveFiltersUseTheKernelMatchingRules) {
  Fd writer = open_can("can0");
  auto filtered = [&](std::vector<can_filter> filters, bool join = false) {
    Fd fd = open_can("can0");
    const int on = join ? 1 : 0;
    EXPECT_EQ(::setsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_JOIN_FILTERS, &on, sizeof(on)), 0);
    EXPECT_EQ(::setsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FILTER, filters.data(),
                           static_cast<socklen_t>(filters.size() * sizeof(can_filter))),
              0);
    return fd;
  };
  Fd range = filtered({{0x120, CAN_SFF_MASK & ~0xFu}});
  Fd inverted = filtered({{0x120 | CAN_INV_FILTER, CAN_SFF_MASK}});
  Fd extended_only = filtered({{CAN_EFF_FLAG, CAN_EFF_FLAG}});
  Fd nothing = filtered({});
  Fd joined = filtered({{0x100, 0x700}, {0x003, 0x00F}}, true);
  Fd errors = filtered({});
  const can_err_mask_t error_mask = CAN_ERR_BUSOFF;
  ASSERT_EQ(
      ::setsockopt(errors.get(), SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &error_mask, sizeof(error_mask)),
      0);

  for (canid_t id : {0x120u, 0x12Fu, 0x130u, 0x103u, 0x113u | CAN_EFF_FLAG,
                     CAN_ERR_FLAG | CAN_ERR_BUSOFF, CAN_ERR_FLAG | CAN_ERR_CRTL}) {
    const can_frame frame = classic_frame(id, {});
    ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  }
  EXPECT_EQ(read_ids(range.get(), 10, 100), (std::vector<canid_t>{0x120, 0x12F}));
  EXPECT_EQ(read_ids(inverted.get(), 10, 100),
            (std::vector<canid_t>{0x12F, 0x130, 0x103, 0x113u | CAN_EFF_FLAG}));
  EXPECT_EQ(read_ids(extended_only.get(), 10, 100), (std::vector<canid_t>{0x113u | CAN_EFF_FLAG}));
  EXPECT_EQ(read_ids(nothing.get(), 10, 100), std::vector<canid_t>{});
  // Both filters must match; neither mask looks at CAN_EFF_FLAG.
  EXPECT_EQ(read_ids(joined.get(), 10, 100), (std::vector<canid_t>{0x103, 0x113u | CAN_EFF_FLAG}));
  EXPECT_EQ(read_ids(errors.get(), 10, 100), (std::vector<canid_t>{CAN_ERR_FLAG | CAN_ERR_BUSOFF}));

  // Read back: the list needs room for every filter.
  can_filter back[2];
  socklen_t length = sizeof(can_filter);
  EXPECT_EQ(errno_of(::getsockopt(joined.get(), SOL_CAN_RAW, CAN_RAW_FILTER, back, &length)),
            ERANGE);
  EXPECT_EQ(length, 2 * sizeof(can_filter));
  ASSERT_EQ(::getsockopt(joined.get(), SOL_CAN_RAW, CAN_RAW_FILTER, back, &length), 0);
  EXPECT_EQ(back[1].can_id, 0x003u);
  EXPECT_EQ(errno_of(::setsockopt(range.get(), SOL_CAN_RAW, CAN_RAW_FILTER, back, 12)), EINVAL);
}

// A reader on can1: its address, a blocking read, the sender's address, and options changed
// after bind applying to the very next frame.
TEST_F(SimbusSocket, ReadersSeeFramesAsOnTheKernel) {
  Fd writer = open_can("can1", true);
  Fd reader = open_can("can1");
  sockaddr_can address{};
  socklen_t length = sizeof(address);
  ASSERT_EQ(::getsockname(reader.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  EXPECT_EQ(address.can_family, AF_CAN);
  EXPECT_EQ(address.can_ifindex, interface_index("can1"));

  std::thread later([&] {  // a blocking read wakes up when a frame arrives
    std::this_thread::sleep_for(50ms);
    const can_frame frame = classic_frame(0x9, {9});
    EXPECT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  });
  sockaddr_can source{};
  canfd_frame got{};
  ASSERT_EQ(
      ::recvfrom(reader.get(), &got, sizeof(got), 0, reinterpret_cast<sockaddr*>(&source), &length),
      CAN_MTU);
  later.join();
  EXPECT_EQ(got.can_id, 0x9u);
  EXPECT_EQ(source.can_family, AF_CAN);
  EXPECT_EQ(source.can_ifindex, interface_index("can1"));
  const int one = 1;
  ASSERT_EQ(::setsockopt(reader.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof(one)), 0);
  const canfd_frame big = fd_frame(0x55, 12);
  ASSERT_EQ(::write(writer.get(), &big, CANFD_MTU), CANFD_MTU);
  EXPECT_EQ(read_within(reader.get(), &got, sizeof(got), 2000), CANFD_MTU);

  const can_filter only_0x10{0x10, CAN_SFF_MASK};
  ASSERT_EQ(::setsockopt(reader.get(), SOL_CAN_RAW, CAN_RAW_FILTER, &only_0x10, sizeof(only_0x10)),
            0);
  for (canid_t id : {0x11, 0x10}) {
    const can_frame frame = classic_frame(id, {});
    ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  }
  EXPECT_EQ(read_ids(reader.get(), 2, 100), std::vector<canid_t>{0x10});
}

TEST_F(SimbusSocket, CloseAndDupKeepTheDescriptorTableTrue) {
  Fd can = open_can("can0");
  const int number = can.get();
  Fd copy(::dup(number));
  unsigned char five[5] = {};
  EXPECT_EQ(errno_of(::write(copy.get(), five, 5)), EINVAL);  // the copy is the same CAN socket
  can.reset();
  EXPECT_EQ(errno_of(::write(copy.get(), five, 5)), EINVAL);
  copy.reset();
  // The number comes back for a pipe, which must behave like a pipe.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  Fd read_end(ends[0]);
  Fd write_end(ends[1]);
  EXPECT_EQ(::write(write_end.get(), five, 5), 5);

  Fd other = open_can("can0");
  ASSERT_GE(::dup2(write_end.get(), other.get()), 0);  // the pipe replaces the socket
  EXPECT_EQ(::write(other.get(), five, 5), 5);
}

TEST_F(SimbusSocket, RebindMovesTheSocketAndAFailedRebindKeepsTheOldBinding) {
  Fd on_can0 = open_can("can0");
  Fd on_can1 = open_can("can1");
  Fd moving = open_can("can0");
  timeval timeout{0, 60000};
  ASSERT_EQ(::setsockopt(moving.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)), 0);
  const can_frame frame = classic_frame(0x31, {});

  sockaddr_can address{AF_CAN, interface_index("nosuch0"), {}};
  EXPECT_EQ(errno_of(::bind(moving.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address))),
            ENODEV);
  ASSERT_EQ(::write(on_can0.get(), &frame, CAN_MTU), CAN_MTU);
  can_frame got{};
  EXPECT_EQ(read_within(moving.get(), &got, sizeof(got), 2000), CAN_MTU);

  address.can_ifindex = interface_index("can1");
  ASSERT_EQ(::bind(moving.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::write(on_can0.get(), &frame, CAN_MTU), CAN_MTU);
  EXPECT_TRUE(stays_silent(moving.get(), 30));
  ASSERT_EQ(::write(on_can1.get(), &frame, CAN_MTU), CAN_MTU);
  EXPECT_EQ(read_within(moving.get(), &got, sizeof(got), 2000), CAN_MTU);
  // Same descriptor, same options: the receive time-out survived the move.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(errno_of(::read(moving.get(), &got, sizeof(got))), EAGAIN);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 55ms);
}

}  // namespace
}  // namespace kestrel::simbus
