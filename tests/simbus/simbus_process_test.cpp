// Out of process: the `kestrel-simbus` program serves the bus, a separate program joins it
// through `kestrel-simbus run` (LD_PRELOAD), and this test process talks to both.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/simbus_can.hpp"

extern char** environ;

namespace kestrel::simbus {
namespace {

using namespace std::chrono_literals;
using rawcan::classic_frame;
using rawcan::Fd;
using rawcan::read_within;

// Starts a program with the current environment; the destructor kills it if still running.
class Child {
 public:
  explicit Child(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
      argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    if (::posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
      pid_ = -1;
    }
  }
  ~Child() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }
  bool started() const { return pid_ > 0; }
  void signal(int number) { ::kill(pid_, number); }
  // Exit status, or -1 when it did not end normally within `timeout`.
  int wait(std::chrono::milliseconds timeout = 10s) {
    const auto give_up = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > give_up) {
        return -1;
      }
      std::this_thread::sleep_for(5ms);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

struct Output {
  int status;
  std::string text;
};

// Runs a shell command line and collects its standard output and error.
Output run(const std::string& command) {
  Output output{-1, {}};
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) {
    return output;
  }
  char buffer[512];
  while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
    output.text += buffer;
  }
  const int status = ::pclose(pipe);
  output.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return output;
}

const std::string kProgram = KESTREL_SIMBUS_PROGRAM;
const std::string kPeer = SIMBUS_PEER_PROGRAM;

class SimbusProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kestrel-simbus-process-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    ::setenv(kDirectoryEnv, dir_.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv(kDirectoryEnv);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  bool wait_until_served(const std::string& name) {
    for (int i = 0; i < 500; ++i) {
      if (is_served(dir_, name)) {
        return true;
      }
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  std::string dir_;
};

TEST_F(SimbusProcesses, ProgramsExchangeFramesThroughTheServeProgram) {
  Child hub({kProgram, "serve", "simcan0", "--dir", dir_});
  ASSERT_TRUE(hub.started());
  ASSERT_TRUE(wait_until_served("simcan0"));
  Fd own = rawcan::open_can("simcan0");
  ASSERT_GE(own.get(), 0);

  Child peer({kProgram, "run", "--dir", dir_, "--", kPeer, "simcan0", "3"});
  can_frame frame{};
  ASSERT_EQ(read_within(own.get(), &frame, sizeof(frame), 10000), CAN_MTU);
  EXPECT_EQ(frame.can_id, 0x700u);  // the peer's hello
  EXPECT_EQ(frame.data[0], 0xAA);
  for (canid_t id : {0x10u, 0x20u, 0x30u}) {
    const can_frame question = classic_frame(id, {1, 2, static_cast<std::uint8_t>(id)});
    ASSERT_EQ(::write(own.get(), &question, CAN_MTU), CAN_MTU);
    ASSERT_EQ(read_within(own.get(), &frame, sizeof(frame), 5000), CAN_MTU);
    EXPECT_EQ(frame.can_id, id + 1);
    EXPECT_EQ(frame.can_dlc, 3);
    EXPECT_EQ(frame.data[2], id);
  }
  EXPECT_EQ(peer.wait(), 0);

  const Output listing = run(kProgram + " list --dir " + dir_);
  EXPECT_EQ(listing.status, 0);
  EXPECT_NE(listing.text.find("simcan0"), std::string::npos) << listing.text;
  EXPECT_NE(listing.text.find("UP"), std::string::npos) << listing.text;

  hub.signal(SIGTERM);
  EXPECT_EQ(hub.wait(), 0);
  struct stat info;
  EXPECT_NE(::lstat(socket_path(dir_, "simcan0").c_str(), &info), 0);
  EXPECT_NE(::lstat(state_path(dir_, "simcan0").c_str(), &info), 0);
}

TEST_F(SimbusProcesses, SetTakesAnInterfaceOfTheRunningHubDownAndUp) {
  Child hub({kProgram, "serve", "simcan0", "simcan1", "--dir", dir_, "--wire-time", "--classic",
             "simcan1"});
  ASSERT_TRUE(wait_until_served("simcan1"));
  Fd own = rawcan::open_can("simcan0");
  EXPECT_EQ(query_interface(dir_, "simcan0")->mtu, CANFD_MTU);
  EXPECT_EQ(query_interface(dir_, "simcan1")->mtu, CAN_MTU);

  Output result = run(kProgram + " set simcan0 mtu 16 --dir " + dir_);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.text,
            "kestrel-simbus set: cannot change the MTU of 'simcan0' while it is up (set it down "
            "first)\n");
  result = run(kProgram + " set simcan0 down --dir " + dir_);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.text, "simcan0: DOWN\n");
  result = run(kProgram + " set simcan0 mtu 16 --dir " + dir_);
  EXPECT_EQ(result.text, "simcan0: MTU 16\n");
  EXPECT_EQ(query_interface(dir_, "simcan0")->mtu, CAN_MTU);
  ifreq request{};
  std::strcpy(request.ifr_name, "simcan0");
  ASSERT_EQ(::ioctl(own.get(), SIOCGIFFLAGS, &request), 0);
  EXPECT_EQ(request.ifr_flags & IFF_UP, 0);
  const can_frame frame = classic_frame(0x1, {});
  EXPECT_EQ(::write(own.get(), &frame, CAN_MTU), -1);
  EXPECT_EQ(errno, ENETDOWN);
  EXPECT_NE(run(kProgram + " list --dir " + dir_).text.find("DOWN"), std::string::npos);

  result = run(kProgram + " set simcan0 up --dir " + dir_);
  EXPECT_EQ(result.text, "simcan0: UP\n");
  EXPECT_EQ(::write(own.get(), &frame, CAN_MTU), CAN_MTU);

  result = run(kProgram + " set nosuch0 down --dir " + dir_);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.text.find("\"nosuch0\" is not served"), std::string::npos) << result.text;

  // Killed without a chance to clean up: its files are stale, and a new hub takes over.
  hub.signal(SIGKILL);
  hub.wait();
  EXPECT_FALSE(is_served(dir_, "simcan0"));
  EXPECT_NE(run(kProgram + " list --dir " + dir_).text.find("stale"), std::string::npos);
  Child successor({kProgram, "serve", "simcan0", "--dir", dir_});
  EXPECT_TRUE(wait_until_served("simcan0"));
}

TEST_F(SimbusProcesses, UnmodifiedCanUtilsJoinThroughRun) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer-built interposer cannot be preloaded into uninstrumented programs";
#endif
  if (::access("/usr/bin/candump", X_OK) != 0 || ::access("/usr/bin/cansend", X_OK) != 0) {
    GTEST_SKIP() << "can-utils is not installed";
  }
  Child hub({kProgram, "serve", "can0", "--dir", dir_});
  ASSERT_TRUE(wait_until_served("can0"));
  Fd own = rawcan::open_can("can0", true);

  EXPECT_EQ(run(kProgram + " run --dir " + dir_ + " -- cansend can0 123#DEADBEEF").status, 0);
  canfd_frame frame{};
  ASSERT_EQ(read_within(own.get(), &frame, sizeof(frame), 5000), CAN_MTU);
  EXPECT_EQ(frame.can_id, 0x123u);
  EXPECT_EQ(frame.len, 4);
  EXPECT_EQ(frame.data[3], 0xEF);
  EXPECT_EQ(run(kProgram + " run --dir " + dir_ + " -- cansend can0 5A1##1112233").status, 0);
  ASSERT_EQ(read_within(own.get(), &frame, sizeof(frame), 5000), CANFD_MTU);
  EXPECT_EQ(frame.len, 3);
  EXPECT_EQ(frame.flags, CANFD_BRS | CANFD_FDF);

  // candump with a filter, receiving what this process sends.
  const std::string dump = dir_ + "/dump.txt";
  Child candump({"/bin/sh", "-c",
                 kProgram + " run --dir " + dir_ + " -- candump -n 1 -L can0,321:7FF > " + dump});
  auto listening = [&] {
    const auto stats = query_interface(dir_, "can0");
    return stats && stats->clients >= 2;
  };
  for (int i = 0; i < 500 && !listening(); ++i) {
    std::this_thread::sleep_for(10ms);
  }
  const can_frame ignored = classic_frame(0x320, {9});
  const can_frame wanted = classic_frame(0x321, {1, 2});
  ASSERT_EQ(::write(own.get(), &ignored, CAN_MTU), CAN_MTU);
  ASSERT_EQ(::write(own.get(), &wanted, CAN_MTU), CAN_MTU);
  EXPECT_EQ(candump.wait(), 0);
  const Output printed = run("cat " + dump);
  EXPECT_NE(printed.text.find(" can0 321#0102\n"), std::string::npos) << printed.text;
}

TEST_F(SimbusProcesses, EverySubcommandHasHelpAndClearErrors) {
  for (const char* command : {"", "serve ", "set ", "list ", "run "}) {
    const Output help = run(kProgram + " " + command + "--help");
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.text.rfind("Usage: kestrel-simbus", 0), 0u) << command << help.text;
  }
  Output result = run(kProgram + " frobnicate");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.text.find("unknown command \"frobnicate\""), std::string::npos);
  result = run(kProgram + " serve");
  EXPECT_EQ(result.status, 2);
  result = run(kProgram + " serve a234567890123456 --dir " + dir_);
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.text.find("invalid interface name"), std::string::npos);
  result = run(kProgram + " serve can0 --bitrate fast --dir " + dir_);
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.text.find("--bitrate needs a bit rate"), std::string::npos);
  result = run(kProgram + " set can0 sideways");
  EXPECT_EQ(result.status, 2);
  result = run(kProgram + " set can0 mtu 64");
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.text.find("expected IF up|down or IF mtu 16|72"), std::string::npos);
  result = run(kProgram + " serve can0 --classic can1 --dir " + dir_);
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.text.find("--classic can1 is not one of the served interfaces"),
            std::string::npos);
  result = run(kProgram + " run");
  EXPECT_EQ(result.status, 2);
  result = run(kProgram + " run -- /nonexistent/program");
  EXPECT_EQ(result.status, 127);
  EXPECT_NE(result.text.find("cannot run /nonexistent/program"), std::string::npos);
}

}  // namespace
}  // namespace kestrel::simbus
