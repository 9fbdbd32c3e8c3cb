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
  ifreq request{};
  std::strncpy(request.ifr_name, argv[1], IFNAMSIZ - 1);
  if (fd < 0 || ::ioctl(fd, SIOCGIFINDEX, &request) < 0) {
    return fail("finding the interface");
  }
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = request.ifr_ifindex;
  const timeval timeout{5, 0};
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) < 0) {
    return fail("binding");
  }
  can_frame frame{};  // the hello first, then each answer
  frame.can_id = 0x700;
  frame.can_dlc = 1;
  frame.data[0] = 0xAA;
  for (int answered = 0;; ++answered) {
    if (::write(fd, &frame, CAN_MTU) != CAN_MTU) {
      return fail("write");
    }
    if (answered == count) {
      return 0;
    }
    const ssize_t got = ::read(fd, &frame, sizeof(frame));
    if (got < 0 && errno == EAGAIN) {
      std::fprintf(stderr, "simbus_peer: no frame within 5 s\n");
      return 3;
    }
    if (got != CAN_MTU) {
      return fail("read");
    }
    frame.can_id += 1;
  }
}
