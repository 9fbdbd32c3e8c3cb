// What a raw CAN socket does, checked through nothing but the ordinary socket API, so that the
// same program runs on the kernel's SocketCAN (vcan in a virtual machine) and on the userspace
// bus (through `kestrel-simbus run`), and must pass on both.
//
//   can_semantics --classic IF --fd IF --down IF --long IF [gtest options]
//
//   --classic  an interface that is up with the classic MTU (16)
//   --fd       an interface that is up with the CAN FD MTU (72)
//   --down     an interface that is down
//   --long     an interface that is up, with a 15-character name
// No other program may use these interfaces while it runs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "simbus/socket_calls.hpp"
#include "support/simbus_can.hpp"

namespace {

using namespace std::chrono_literals;
using namespace kestrel::simbus::rawcan;

struct Interfaces {
  std::string classic;
  std::string fd;
  std::string down;
  std::string long_name;
};
Interfaces interfaces;

constexpr int kUpFlags = IFF_UP | IFF_RUNNING | IFF_NOARP;

int index_of(const std::string& name) {
  Fd probe(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  return interface_index_of(probe.get(), name);
}

int bind_to(int fd, int index, sa_family_t family = AF_CAN) {
  sockaddr_can address{family, index, {}};
  return ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0 ? errno : 0;
}

TEST(CanSemantics, RawSocketIsARealDescriptorWithTheRequestedFlags) {
  Fd plain(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ASSERT_GE(plain.get(), 0) << std::strerror(errno);
  Fd flagged(::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW));
  ASSERT_GE(flagged.get(), 0);
  EXPECT_NE(::fcntl(flagged.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(flagged.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(::fcntl(plain.get(), F_GETFL) & O_NONBLOCK, 0);
  // The kernel never records the protocol of a CAN socket.
  for (const auto& [option, expected] :
       {std::pair{SO_DOMAIN, AF_CAN}, {SO_TYPE, SOCK_RAW}, {SO_PROTOCOL, 0}}) {
    int value = -1;
    socklen_t length = sizeof(value);
    ASSERT_EQ(::getsockopt(plain.get(), SOL_SOCKET, option, &value, &length), 0);
    EXPECT_EQ(value, expected) << option;
  }
  sockaddr_un unix_address{};
  unix_address.sun_family = AF_UNIX;
  EXPECT_EQ(errno_of(::connect(plain.get(), reinterpret_cast<sockaddr*>(&unix_address),
                               sizeof(unix_address))),
            EOPNOTSUPP);
}

TEST(CanSemantics, InterfacesHaveIndexNameFlagsAndMtu) {
  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  // {interface, its flags, its MTU}
  const std::tuple<std::string, int, int> rows[] = {{interfaces.classic, kUpFlags, CAN_MTU},
                                                    {interfaces.fd, kUpFlags, CANFD_MTU},
                                                    {interfaces.down, IFF_NOARP, CAN_MTU},
                                                    {interfaces.long_name, kUpFlags, CANFD_MTU}};
  for (const auto& [interface, flags, mtu] : rows) {
    SCOPED_TRACE(interface);
    ifreq request = request_for(interface);
    ASSERT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &request), 0) << std::strerror(errno);
    const int index = request.ifr_ifindex;
    EXPECT_EQ(::if_nametoindex(interface.c_str()), static_cast<unsigned>(index));
    char name[IF_NAMESIZE] = {};
    ASSERT_NE(::if_indextoname(static_cast<unsigned>(index), name), nullptr);
    EXPECT_EQ(name, interface);
    ifreq by_index{};
    by_index.ifr_ifindex = index;
    ASSERT_EQ(::ioctl(fd.get(), SIOCGIFNAME, &by_index), 0);
    EXPECT_EQ(by_index.ifr_name, interface);
    ASSERT_EQ(::ioctl(fd.get(), SIOCGIFFLAGS, &request), 0);  // the name is still there
    EXPECT_EQ(request.ifr_flags, flags);
    ASSERT_EQ(::ioctl(fd.get(), SIOCGIFMTU, &request), 0);
    EXPECT_EQ(request.ifr_mtu, mtu);
  }
}

TEST(CanSemantics, UnknownInterfaceIsEnodevAndTheSocketStaysUsable) {
  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ifreq request = request_for("nosuch0");
  EXPECT_EQ(errno_of(::ioctl(fd.get(), SIOCGIFINDEX, &request)), ENODEV);
  EXPECT_EQ(::if_nametoindex("nosuch0"), 0u);
  char name[IF_NAMESIZE];
  EXPECT_EQ(::if_indextoname(0x7ffffff0, name), nullptr);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_EQ(bind_to(fd.get(), 0x7ffffff0), ENODEV);
  EXPECT_EQ(bind_to(fd.get(), 1), ENODEV);  // the loopback device: not a CAN interface
  EXPECT_EQ(bind_to(fd.get(), index_of(interfaces.fd), AF_INET), EINVAL);
  EXPECT_EQ(bind_to(fd.get(), index_of(interfaces.fd)), 0);
}

TEST(CanSemantics, FifteenCharacterNamesAndLongerNamesCutToThem) {
  const std::string& exact_name = interfaces.long_name;
  ASSERT_EQ(exact_name.size(), 15u);
  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ifreq exact = request_for(exact_name);
  ASSERT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &exact), 0);
  // Sixteen bytes without a terminator: the kernel forces the last one to NUL.
  ifreq longer = request_for(exact_name + "XYZ");
  ASSERT_EQ(::ioctl(fd.get(), SIOCGIFINDEX, &longer), 0);
  EXPECT_EQ(longer.ifr_ifindex, exact.ifr_ifindex);
  ifreq flags = request_for(exact_name + "XYZ");
  ASSERT_EQ(::ioctl(fd.get(), SIOCGIFFLAGS, &flags), 0);
  EXPECT_NE(flags.ifr_flags & IFF_UP, 0);
  // glibc's if_nametoindex refuses a name that does not fit instead of cutting it.
  EXPECT_EQ(::if_nametoindex((exact_name + "XYZ").c_str()), 0u);

  Fd a = open_can(exact_name);
  Fd b = open_can(exact_name);
  const can_frame sent = classic_frame(0x42, {1, 2, 3});
  ASSERT_EQ(::write(a.get(), &sent, CAN_MTU), CAN_MTU);
  can_frame got{};
  ASSERT_EQ(read_within(b.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(std::memcmp(&got, &sent, CAN_MTU), 0);
}

// Refused writes never reach the bus: the one that went (a gathered write counts its total
// length) is all a listener hears.
TEST(CanSemantics, WritesAreCheckedBeforeTheyReachTheBus) {
  Fd unbound(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  Fd down(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  ASSERT_EQ(bind_to(down.get(), index_of(interfaces.down)), 0);  // binding a down one works
  Fd classic = open_can(interfaces.fd);
  Fd fd = open_can(interfaces.fd, true);
  Fd fd_on_classic = open_can(interfaces.classic, true);  // the option alone is accepted
  Fd listener = open_can(interfaces.fd, true);
  Fd classic_listener = open_can(interfaces.classic, true);
  const can_frame frame = classic_frame(0x1, {1});
  can_frame too_long = frame;
  too_long.can_dlc = 9;
  const canfd_frame big = fd_frame(0x2, 64);
  canfd_frame fd_too_long = big;
  fd_too_long.len = 65;
  EXPECT_EQ(errno_of(::write(unbound.get(), &frame, CAN_MTU)), ENXIO);
  EXPECT_EQ(errno_of(::write(down.get(), &frame, CAN_MTU)), ENETDOWN);
  EXPECT_EQ(errno_of(::send(down.get(), &frame, CAN_MTU, 0)), ENETDOWN);
  EXPECT_EQ(errno_of(::write(classic.get(), &big, CANFD_MTU)), EINVAL);
  EXPECT_EQ(errno_of(::write(fd_on_classic.get(), &big, CANFD_MTU)), EINVAL);
  EXPECT_EQ(errno_of(::write(classic.get(), &too_long, CAN_MTU)), EINVAL);
  EXPECT_EQ(errno_of(::write(fd.get(), &fd_too_long, CANFD_MTU)), EINVAL);
  unsigned char junk[CANFD_MTU + 1] = {};
  for (std::size_t size : {0, 8, 15, 17, 71, 73}) {
    EXPECT_EQ(errno_of(::write(classic.get(), junk, size)), EINVAL) << size;
    EXPECT_EQ(errno_of(::write(fd.get(), junk, size)), EINVAL) << size;
  }
  iovec halves[2] = {{const_cast<can_frame*>(&frame), 8},
                     {reinterpret_cast<char*>(const_cast<can_frame*>(&frame)) + 8, 8}};
  EXPECT_EQ(::writev(classic.get(), halves, 2), CAN_MTU);
  EXPECT_EQ(errno_of(::writev(classic.get(), halves, 1)), EINVAL);
  EXPECT_EQ(read_ids(listener.get(), 5, 200), std::vector<canid_t>{0x1});
  // A classic frame from an FD socket on a classic interface goes out as it is.
  const can_frame small = classic_frame(0x4, {4});
  EXPECT_EQ(::write(fd_on_classic.get(), &small, CAN_MTU), CAN_MTU);
  canfd_frame got{};
  ASSERT_EQ(read_within(classic_listener.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(got.can_id, 0x4u);
  EXPECT_TRUE(stays_silent(classic_listener.get(), 50));
}

TEST(CanSemantics, FdFramesOptionIsCheckedAndReadBack) {
  Fd fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  int value = -1;
  socklen_t length = sizeof(value);
  ASSERT_EQ(::getsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &value, &length), 0);
  EXPECT_EQ(value, 0);
  const long wide = 1;
  EXPECT_EQ(errno_of(::setsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &wide, sizeof(wide))),
            EINVAL);
  const int one = 1;
  ASSERT_EQ(::setsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof(one)), 0);
  ASSERT_EQ(::getsockopt(fd.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &value, &length), 0);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(errno_of(::setsockopt(fd.get(), SOL_CAN_RAW, 99, &one, sizeof(one))), ENOPROTOOPT);
  for (int option : {CAN_RAW_LOOPBACK, CAN_RAW_RECV_OWN_MSGS, CAN_RAW_JOIN_FILTERS}) {
    EXPECT_EQ(::setsockopt(fd.get(), SOL_CAN_RAW, option, &one, sizeof(one)), 0) << option;
    EXPECT_EQ(errno_of(::setsockopt(fd.get(), SOL_CAN_RAW, option, &one, 2)), EINVAL) << option;
  }
}

TEST(CanSemantics, ClassicSocketsGetClassicFramesFdSocketsGetBoth) {
  Fd writer = open_can(interfaces.fd, true);
  Fd classic = open_can(interfaces.fd);
  Fd fd = open_can(interfaces.fd, true);
  const can_frame small = classic_frame(0x123, {1, 2, 3, 4, 5, 6, 7, 8});
  const canfd_frame big = fd_frame(0x456, 64, CANFD_BRS, 0x10);
  ASSERT_EQ(::write(writer.get(), &big, CANFD_MTU), CANFD_MTU);
  ASSERT_EQ(::write(writer.get(), &small, CAN_MTU), CAN_MTU);

  canfd_frame got{};
  ASSERT_EQ(read_within(classic.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(std::memcmp(&got, &small, CAN_MTU), 0);
  EXPECT_TRUE(stays_silent(classic.get(), 20));

  ASSERT_EQ(read_within(fd.get(), &got, sizeof(got), 2000), CANFD_MTU);
  canfd_frame expected = big;
  expected.flags |= CANFD_FDF;  // the kernel marks every CAN FD frame
  EXPECT_EQ(std::memcmp(&got, &expected, CANFD_MTU), 0);
  ASSERT_EQ(read_within(fd.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(std::memcmp(&got, &small, CAN_MTU), 0);
}

TEST(CanSemantics, ReadTimesOutWithEagainAfterSoRcvtimeo) {
  Fd fd = open_can(interfaces.fd);
  timeval timeout{0, 100000};
  ASSERT_EQ(::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)), 0);
  can_frame frame{};
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(errno_of(::read(fd.get(), &frame, sizeof(frame))), EAGAIN);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 95ms);
  EXPECT_LT(waited, 2s);  // generous: a slow emulated machine is one of the places this runs
  // The library's 100 µs: returns at once rather than hanging.
  timeout = {0, 100};
  ASSERT_EQ(::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)), 0);
  const auto short_start = std::chrono::steady_clock::now();
  EXPECT_EQ(errno_of(::read(fd.get(), &frame, sizeof(frame))), EAGAIN);
  EXPECT_LT(std::chrono::steady_clock::now() - short_start, 500ms);
  Fd nonblocking(::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK, CAN_RAW));
  ASSERT_EQ(bind_to(nonblocking.get(), index_of(interfaces.fd)), 0);
  EXPECT_EQ(errno_of(::read(nonblocking.get(), &frame, sizeof(frame))), EAGAIN);
}

TEST(CanSemantics, FramesReachTheOtherSocketsOfTheirInterfaceAndTheSenderOnlyIfItAsks) {
  Fd sender = open_can(interfaces.fd);
  Fd other = open_can(interfaces.fd);
  Fd on_classic = open_can(interfaces.classic);
  Fd on_long = open_can(interfaces.long_name);
  const can_frame frame = classic_frame(0x77, {7});
  ASSERT_EQ(::write(sender.get(), &frame, CAN_MTU), CAN_MTU);
  can_frame got{};
  ASSERT_EQ(read_within(other.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_TRUE(stays_silent(sender.get(), 50));
  EXPECT_TRUE(stays_silent(on_classic.get(), 1));
  EXPECT_TRUE(stays_silent(on_long.get(), 1));

  const int one = 1;
  ASSERT_EQ(::setsockopt(sender.get(), SOL_CAN_RAW, CAN_RAW_RECV_OWN_MSGS, &one, sizeof(one)), 0);
  ASSERT_EQ(::write(sender.get(), &frame, CAN_MTU), CAN_MTU);
  ASSERT_EQ(read_within(sender.get(), &got, sizeof(got), 2000), CAN_MTU);
  EXPECT_EQ(got.can_id, 0x77u);
}

bool take_option(std::vector<std::string>& args, const char* option, std::string& value) {
  const auto at = std::find(args.begin(), args.end(), option);
  if (at == args.end() || at + 1 == args.end()) {
    return false;
  }
  value = *(at + 1);
  args.erase(at, at + 2);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!take_option(args, "--classic", interfaces.classic) ||
      !take_option(args, "--fd", interfaces.fd) || !take_option(args, "--down", interfaces.down) ||
      !take_option(args, "--long", interfaces.long_name) || !args.empty()) {
    std::fprintf(stderr, "usage: can_semantics --classic IF --fd IF --down IF --long IF\n");
    return 2;
  }
  return RUN_ALL_TESTS();
}
