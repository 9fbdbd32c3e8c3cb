// The userspace bus's own side of raw CAN sockets, checked through the ordinary socket API of an
// interposed process against an in-process hub: state changes, hub life, delivery under load,
// filters, descriptors. What every SocketCAN program relies on, and must find the same on the
// kernel, is in can_semantics.cpp, which runs on both.
#include <gtest/gtest.h>
#include <linux/can/error.h>
#include <stdlib.h>
#include <sys/un.h>

#include <chrono>
#include <thread>

#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::simbus {
namespace {

using namespace std::chrono_literals;
using rawcan::classic_frame;
using rawcan::Fd;
using rawcan::fd_frame;
using rawcan::open_can;
using rawcan::read_within;
using rawcan::stays_silent;

class SimbusSocket : public ::testing::Test {
 protected:
  ScopedSimbus bus_{{"can0", "can1"}};
};

ifreq request_for(const std::string& name) {
  ifreq request{};
  std::memcpy(request.ifr_name, name.data(), std::min<std::size_t>(name.size(), IFNAMSIZ));
  return request;
}

int errno_of(ssize_t result) {
  return result < 0 ? errno : 0;
}

TEST_F(SimbusSocket, StaleSocketFileFromADeadHubIsNotServed) {
  // What a hub killed with SIGKILL leaves behind: a socket file nobody listens on.
  const std::string path = socket_path(bus_.directory(), "ghost0");
  Fd listener(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  listener.reset();

  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ifreq request = request_for("ghost0");
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &request)), ENODEV);
  EXPECT_EQ(::if_nametoindex("ghost0"), 0u);
  // A hub started later replaces the stale file.
  Hub hub({"ghost0"}, HubOptions{bus_.directory()});
  hub.start();
  EXPECT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &request), 0);
}

TEST_F(SimbusSocket, DirectoryIsReadFromTheEnvironmentAtEveryLookup) {
  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ifreq request = request_for("can0");
  ASSERT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &request), 0);
  ::setenv(kDirectoryEnv, "/nonexistent-simbus-dir", 1);
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &request)), ENODEV);
  ::setenv(kDirectoryEnv, bus_.directory().c_str(), 1);
  EXPECT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &request), 0);
}

TEST_F(SimbusSocket, InterfaceDownClearsFlagsRefusesWritesAndRelaysNothing) {
  Fd sender = open_can("can0");
  Fd receiver = open_can("can0");
  ifreq flags = request_for("can0");
  ASSERT_EQ(::ioctl(sender.get(), SIOCGIFFLAGS, &flags), 0);
  EXPECT_EQ(flags.ifr_flags, IFF_UP | IFF_RUNNING | IFF_NOARP);

  bus_.set_up("can0", false);
  ASSERT_EQ(::ioctl(sender.get(), SIOCGIFFLAGS, &flags), 0);
  EXPECT_EQ(flags.ifr_flags, IFF_NOARP);
  const can_frame frame = classic_frame(0x10, {0xDE, 0xAD});
  EXPECT_EQ(errno_of(::write(sender.get(), &frame, CAN_MTU)), ENETDOWN);
  EXPECT_EQ(errno_of(::send(sender.get(), &frame, CAN_MTU, 0)), ENETDOWN);
  EXPECT_TRUE(stays_silent(receiver.get(), 50));
  // Other interfaces are not affected.
  ifreq other = request_for("can1");
  ASSERT_EQ(::ioctl(sender.get(), SIOCGIFFLAGS, &other), 0);
  EXPECT_NE(other.ifr_flags & IFF_UP, 0);

  bus_.set_up("can0", true);
  ASSERT_EQ(::ioctl(sender.get(), SIOCGIFFLAGS, &flags), 0);
  EXPECT_EQ(flags.ifr_flags, IFF_UP | IFF_RUNNING | IFF_NOARP);
  ASSERT_EQ(::write(sender.get(), &frame, CAN_MTU), CAN_MTU);
  can_frame got{};
  ASSERT_EQ(read_within(receiver.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(got.can_id, 0x10u);
  EXPECT_TRUE(stays_silent(receiver.get(), 20));  // the refused frame never shows up
}

// The kernel would send to another CAN interface named in sendto(); the userspace bus reaches
// only the bound one and says so.
TEST_F(SimbusSocket, SendtoReachesOnlyTheBoundInterface) {
  Fd classic = open_can("can0");
  const can_frame frame = classic_frame(0x1, {1});
  sockaddr_can to{};
  to.can_family = AF_CAN;
  to.can_ifindex = interface_index("can0");
  EXPECT_EQ(
      ::sendto(classic.get(), &frame, CAN_MTU, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)),
      CAN_MTU);
  to.can_ifindex = interface_index("can1");
  EXPECT_EQ(errno_of(::sendto(classic.get(), &frame, CAN_MTU, 0, reinterpret_cast<sockaddr*>(&to),
                              sizeof(to))),
            ENXIO);
  to.can_family = AF_INET;
  EXPECT_EQ(errno_of(::sendto(classic.get(), &frame, CAN_MTU, 0, reinterpret_cast<sockaddr*>(&to),
                              sizeof(to))),
            EINVAL);
}

TEST_F(SimbusSocket, EveryOtherClientOfTheInterfaceReceivesEveryFrame) {
  std::vector<Fd> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(open_can("can0"));
  }
  Fd elsewhere = open_can("can1");
  for (int i = 0; i < 4; ++i) {
    const can_frame frame = classic_frame(0x100 + i, {static_cast<std::uint8_t>(i)});
    ASSERT_EQ(::write(clients[i].get(), &frame, CAN_MTU), CAN_MTU);
  }
  for (int i = 0; i < 4; ++i) {
    std::vector<canid_t> expected;
    for (int j = 0; j < 4; ++j) {
      if (j != i) {
        expected.push_back(0x100 + j);
      }
    }
    std::vector<canid_t> ids = rawcan::read_ids(clients[i].get(), 3);
    std::sort(ids.begin(), ids.end());  // frames of different writers may interleave
    EXPECT_EQ(ids, expected) << "client " << i;
    EXPECT_TRUE(stays_silent(clients[i].get(), 10));
  }
  EXPECT_TRUE(stays_silent(elsewhere.get(), 10));
  const InterfaceStatistics stats = bus_.statistics("can0");
  EXPECT_EQ(stats.clients, 4u);
  EXPECT_EQ(stats.frames_relayed, 4u);
  EXPECT_EQ(stats.deliveries, 12u);
}

TEST_F(SimbusSocket, FramesOfOneWriterArriveInOrderOrAreCountedAsDropped) {
  Fd writer = open_can("can0");
  Fd reader = open_can("can0");
  constexpr std::uint32_t kFrames = 5000;
  std::vector<std::uint32_t> received;
  std::thread reading([&] {
    can_frame frame{};
    while (read_within(reader.get(), &frame, sizeof(frame), 1000) == CAN_MTU) {
      std::uint32_t sequence;
      std::memcpy(&sequence, frame.data, sizeof(sequence));
      received.push_back(sequence);
    }
  });
  for (std::uint32_t i = 0; i < kFrames; ++i) {
    can_frame frame = classic_frame(0x300, {});
    frame.can_dlc = 4;
    std::memcpy(frame.data, &i, sizeof(i));
    if (::write(writer.get(), &frame, CAN_MTU) != CAN_MTU) {
      ADD_FAILURE() << "write " << i << ": " << std::strerror(errno);
      break;
    }
  }
  reading.join();
  ASSERT_FALSE(received.empty());
  EXPECT_TRUE(std::is_sorted(received.begin(), received.end()));
  EXPECT_EQ(std::adjacent_find(received.begin(), received.end()), received.end());
  const InterfaceStatistics stats = bus_.statistics("can0");
  EXPECT_EQ(stats.frames_relayed, kFrames);
  EXPECT_EQ(received.size() + stats.frames_dropped, kFrames);
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
  EXPECT_EQ(rawcan::read_ids(range.get(), 10, 100), (std::vector<canid_t>{0x120, 0x12F}));
  EXPECT_EQ(rawcan::read_ids(inverted.get(), 10, 100),
            (std::vector<canid_t>{0x12F, 0x130, 0x103, 0x113u | CAN_EFF_FLAG}));
  EXPECT_EQ(rawcan::read_ids(extended_only.get(), 10, 100),
            (std::vector<canid_t>{0x113u | CAN_EFF_FLAG}));
  EXPECT_EQ(rawcan::read_ids(nothing.get(), 10, 100), std::vector<canid_t>{});
  // Both filters must match; neither mask looks at CAN_EFF_FLAG.
  EXPECT_EQ(rawcan::read_ids(joined.get(), 10, 100),
            (std::vector<canid_t>{0x103, 0x113u | CAN_EFF_FLAG}));
  EXPECT_EQ(rawcan::read_ids(errors.get(), 10, 100),
            (std::vector<canid_t>{CAN_ERR_FLAG | CAN_ERR_BUSOFF}));

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

TEST_F(SimbusSocket, OptionsChangedAfterBindApplyToTheVeryNextFrame) {
  Fd writer = open_can("can0", true);
  Fd reader = open_can("can0");
  const int one = 1;
  ASSERT_EQ(::setsockopt(reader.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof(one)), 0);
  const canfd_frame big = fd_frame(0x55, 12);
  ASSERT_EQ(::write(writer.get(), &big, CANFD_MTU), CANFD_MTU);
  canfd_frame got{};
  EXPECT_EQ(read_within(reader.get(), &got, sizeof(got), 2000), CANFD_MTU);

  const can_filter only_0x10{0x10, CAN_SFF_MASK};
  ASSERT_EQ(::setsockopt(reader.get(), SOL_CAN_RAW, CAN_RAW_FILTER, &only_0x10, sizeof(only_0x10)),
            0);
  const can_frame other = classic_frame(0x11, {});
  const can_frame wanted = classic_frame(0x10, {});
  ASSERT_EQ(::write(writer.get(), &other, CAN_MTU), CAN_MTU);
  ASSERT_EQ(::write(writer.get(), &wanted, CAN_MTU), CAN_MTU);
  EXPECT_EQ(rawcan::read_ids(reader.get(), 2, 100), std::vector<canid_t>{0x10});
}

TEST_F(SimbusSocket, SourceAddressAndPollWorkAsOnTheKernel) {
  Fd writer = open_can("can1");
  Fd reader = open_can("can1");
  sockaddr_can own{};
  socklen_t own_length = sizeof(own);
  ASSERT_EQ(::getsockname(reader.get(), reinterpret_cast<sockaddr*>(&own), &own_length), 0);
  EXPECT_EQ(own.can_family, AF_CAN);
  EXPECT_EQ(own.can_ifindex, interface_index("can1"));

  pollfd waiter{reader.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&waiter, 1, 0), 0);
  const can_frame frame = classic_frame(0x5, {5});
  ASSERT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  EXPECT_EQ(::poll(&waiter, 1, 2000), 1);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(reader.get(), &readable);
  timeval no_wait{0, 0};
  EXPECT_EQ(::select(reader.get() + 1, &readable, nullptr, nullptr, &no_wait), 1);

  sockaddr_can source{};
  socklen_t length = sizeof(source);
  can_frame got{};
  ASSERT_EQ(
      ::recvfrom(reader.get(), &got, sizeof(got), 0, reinterpret_cast<sockaddr*>(&source), &length),
      CAN_MTU);
  EXPECT_EQ(source.can_family, AF_CAN);
  EXPECT_EQ(source.can_ifindex, interface_index("can1"));
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

  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = interface_index("nosuch0");
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

TEST_F(SimbusSocket, StoppedHubMakesWritesFailWithEnxio) {
  Fd fd = open_can("can0");
  bus_.hub().stop();
  const can_frame frame = classic_frame(0x1, {});
  EXPECT_EQ(errno_of(::write(fd.get(), &frame, CAN_MTU)), ENXIO);
  ifreq request = request_for("can0");
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &request)), ENODEV);
}

TEST_F(SimbusSocket, BlockingReadWakesUpWhenAFrameArrives) {
  Fd reader = open_can("can0");
  Fd writer = open_can("can0");
  std::thread later([&] {
    std::this_thread::sleep_for(50ms);
    const can_frame frame = classic_frame(0x9, {9});
    EXPECT_EQ(::write(writer.get(), &frame, CAN_MTU), CAN_MTU);
  });
  can_frame got{};
  EXPECT_EQ(::read(reader.get(), &got, sizeof(got)), CAN_MTU);
  EXPECT_EQ(got.can_id, 0x9u);
  later.join();
}

}  // namespace
}  // namespace kestrel::simbus
