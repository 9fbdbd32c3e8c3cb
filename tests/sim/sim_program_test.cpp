// The kestrel-sim program as a user starts it: one command serves the bus and the arm, its
// fault options show on the wire, and SIGTERM ends it cleanly.
#include <linux/can.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kestrel_sim/dm_protocol.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::sim::Payload;

// Starts kestrel-sim with `args` on a private bus directory; SIGTERM and reaps it at the end.
class SimProgram {
 public:
  explicit SimProgram(std::vector<std::string> args) {
    char dir_template[] = "/tmp/kestrel-sim-test-XXXXXX";
    dir_ = ::mkdtemp(dir_template);
    ::setenv(kestrel::simbus::kDirectoryEnv, dir_.c_str(), 1);
    args.insert(args.begin(), KESTREL_SIM_PROGRAM);
    pid_ = ::fork();
    if (pid_ == 0) {
      std::vector<char*> argv;
      for (std::string& a : args) {
        argv.push_back(a.data());
      }
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~SimProgram() {
    if (pid_ > 0 && exit_status_ < 0) {
      terminate();
    }
    ::unsetenv(kestrel::simbus::kDirectoryEnv);
    std::filesystem::remove_all(dir_);
  }

  bool wait_served(const std::string& name) const {
    for (int i = 0; i < 500; ++i) {
      if (kestrel::simbus::is_served(dir_, name)) {
        return true;
      }
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }
  int terminate() {
    ::kill(pid_, SIGTERM);
    return wait_exit();
  }
  int wait_exit() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exit_status_;
  }

 private:
  std::string dir_;
  pid_t pid_ = -1;
  int exit_status_ = -1;
};

// One request, one reply payload as text ("" when none comes within 200 ms).
std::string ask(int fd, uint32_t id, const Payload& p) {
  can_frame f{};
  f.can_id = id;
  f.can_dlc = 8;
  std::memcpy(f.data, p.data(), 8);
  if (::write(fd, &f, sizeof f) != sizeof f) {
    return "write failed";
  }
  struct pollfd pfd = {fd, POLLIN, 0};
  if (::poll(&pfd, 1, 200) != 1 || ::read(fd, &f, sizeof f) != sizeof f) {
    return "";
  }
  Payload out;
  std::memcpy(out.data(), f.data, 8);
  return kestrel::sim::to_hex(out);
}

int open_can(const char* name) {
  int fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  struct ifreq ifr {};
  std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
  EXPECT_EQ(::ioctl(fd, SIOCGIFINDEX, &ifr), 0);
  struct sockaddr_can addr {};
  addr.can_family = AF_CAN;
  addr.can_ifindex = ifr.ifr_ifindex;
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  return fd;
}

TEST(KestrelSimProgram, ServesTheArmWithCommandLineFaultsAndStopsOnSigterm) {
  SimProgram program({"--serve", "--interface", "armcan", "--no-wire-time", "--silent", "5",
                      "--fault", "3:8", "--start-posture", "0,0.5", "--external-torque", "7:0.0"});
  ASSERT_TRUE(program.wait_served("armcan"));
  int fd = open_can("armcan");
  // The hub serves the interface a moment before the motors' socket has joined it.
  for (int i = 0; i < 50 && ask(fd, 0x7FF, Payload{0x01, 0x00, 0xCC}).empty(); ++i) {
  }
  const Payload enable{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFC};
  EXPECT_EQ(ask(fd, 0x01, enable), "11 7F FF 7F F7 FF 21 1E");
  // Joint 2 at 0.5 rad; its motor is mounted with sign -1, so the shaft reads -0.5 rad.
  EXPECT_EQ(ask(fd, 0x02, enable), "12 7A E0 7F F7 FF 21 1E");
  EXPECT_EQ(ask(fd, 0x03, enable), "83 7F FF 7F F7 FF 21 1E");  // over-voltage
  EXPECT_EQ(ask(fd, 0x03, Payload{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFB}),
            "83 7F FF 7F F7 FF 21 1E");  // a command-line fault survives clear-error
  EXPECT_EQ(ask(fd, 0x05, enable), "");  // silent
  EXPECT_EQ(ask(fd, 0x7FF, Payload{0x07, 0x00, 0x33, 0x07}), "07 00 33 07 17 00 00 00");
  ::close(fd);
  EXPECT_EQ(program.terminate(), 0);
}

TEST(KestrelSimProgram, RejectsBadOptionsWithUsageStatus) {
  for (const char* bad : {"--fault=3", "--drop-rate", "--silent"}) {
    SimProgram program({bad, "9"});
    EXPECT_EQ(program.wait_exit(), 2) << bad;
  }
}

}  // namespace
