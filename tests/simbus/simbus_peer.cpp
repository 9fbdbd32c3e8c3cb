// A tiny SocketCAN program for the out-of-process tests. It is not linked with the interposer:
// it reaches the bus only when started through `kestrel-simbus run` (LD_PRELOAD).
//
//   simbus_peer IF COUNT
// Binds a classic socket to IF, announces itself with frame 0x700 [0xAA], then answers COUNT
// frames: each one comes back with identifier + 1 and the same payload. Exits 0 when done,
// 1 on any failure (with the reason on standard error), 3 when no frame came for 5 s.
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int fail(const char* step) {
  std::fprintf(stderr, "simbus_peer: %s: %s\n", step, std::strerror(errno));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: simbus_peer IF COUNT\n");
    return 2;
  }
  const int count = std::atoi(argv[2]);
  const int fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  if (fd < 0) {
    return fail("socket");
  }
  ifreq request{};
  std::strncpy(request.ifr_name, argv[1], IFNAMSIZ - 1);
  if (::ioctl(fd, SIOCGIFINDEX, &request) < 0) {
    return fail("SIOCGIFINDEX");
  }
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = request.ifr_ifindex;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
    return fail("bind");
  }
  timeval timeout{5, 0};
  if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) < 0) {
    return fail("SO_RCVTIMEO");
  }
  can_frame hello{};
  hello.can_id = 0x700;
  hello.can_dlc = 1;
  hello.data[0] = 0xAA;
  if (::write(fd, &hello, sizeof(hello)) != static_cast<ssize_t>(sizeof(hello))) {
    return fail("write hello");
  }
  for (int answered = 0; answered < count; ++answered) {
    can_frame frame{};
    const ssize_t got = ::read(fd, &frame, sizeof(frame));
    if (got < 0 && errno == EAGAIN) {
      std::fprintf(stderr, "simbus_peer: no frame within 5 s\n");
      return 3;
    }
    if (got != static_cast<ssize_t>(sizeof(frame))) {
      return fail("read");
    }
    frame.can_id += 1;
    if (::write(fd, &frame, sizeof(frame)) != static_cast<ssize_t>(sizeof(frame))) {
      return fail("write");
    }
  }
  ::close(fd);
  return 0;
}
