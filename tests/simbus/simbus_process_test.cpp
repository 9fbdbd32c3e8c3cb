// Out of process: the `kestrel-simbus` program serves the bus, unmodified programs join it
// through `kestrel-simbus run` (LD_PRELOAD), and this test process talks to both.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <tuple>

#include "simbus/private_bus.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::simbus {
namespace {

using namespace std::chrono_literals;
using namespace rawcan;
using ::testing::ContainsRegex;

const std::string kProgram = KESTREL_SIMBUS_PROGRAM;

class SimbusProcesses : public testing::PrivateBus {
 protected:
  // `kestrel-simbus WORDS...`, the words split at spaces.
  testing::Finished simbus(const std::string& words) {
    std::vector<std::string> args{kProgram};
    std::istringstream in(words);
    for (std::string word; in >> word;) {
      args.push_back(word);
    }
    return run(args);
  }
};

TEST_F(SimbusProcesses, ServeSetAndListWorkTogetherAndANewHubReplacesAKilledOne) {
  auto hub = start({kProgram, "serve", "simcan0", "simcan1", "--dir", dir, "--wire-time",
                    "--classic", "simcan1"});
  ASSERT_TRUE(served("simcan1")) << hub->output();
  Fd own = rawcan::open_can("simcan0");
  EXPECT_EQ(query_interface(dir, "simcan1")->mtu, CAN_MTU);

  const auto listing = simbus("list --dir " + dir);
  EXPECT_EQ(listing.status, 0);
  // a row per interface: name, index, state, MTU, then its counters
  EXPECT_THAT(
      listing.output,
      ContainsRegex("\nsimcan0 +" + std::to_string(interface_index("simcan0")) + " +UP +72 "));
  // {command, exit status, its whole output}
  const std::tuple<std::string, int, std::string> settings[] = {
      {"set nosuch0 down", 1,
       "kestrel-simbus: interface \"nosuch0\" is not served in " + dir +
           " (is 'kestrel-simbus serve' running?)\n"},
      {"set simcan0 mtu 16", 1,
       "kestrel-simbus set: cannot change the MTU of 'simcan0' while it is up (set it down "
       "first)\n"},
      {"set simcan0 down", 0, "simcan0: DOWN\n"},
      {"set simcan0 mtu 16", 0, "simcan0: MTU 16\n"},
  };
  for (const auto& [words, status, output] : settings) {
    const auto result = simbus(words + " --dir " + dir);
    EXPECT_EQ(result.status, status) << words;
    EXPECT_EQ(result.output, output);
  }
  EXPECT_EQ(query_interface(dir, "simcan0")->mtu, CAN_MTU);
  EXPECT_FALSE(query_interface(dir, "simcan0")->up);
  const can_frame one = classic_frame(0x1, {});
  EXPECT_EQ(::write(own.get(), &one, CAN_MTU), -1);  // this process's socket sees it at once
  EXPECT_EQ(errno, ENETDOWN);
  EXPECT_NE(simbus("list --dir " + dir).output.find("DOWN"), std::string::npos);
  EXPECT_EQ(simbus("set simcan0 up --dir " + dir).output, "simcan0: UP\n");
  EXPECT_EQ(::write(own.get(), &one, CAN_MTU), CAN_MTU);

  // Killed without a chance to clean up: its files are stale, and a new hub takes over.
  hub.reset();  // SIGKILL
  EXPECT_FALSE(is_served(dir, "simcan0"));
  EXPECT_NE(simbus("list --dir " + dir).output.find("stale"), std::string::npos);
  hub = start({kProgram, "serve", "simcan0", "--dir", dir});
  EXPECT_TRUE(served("simcan0"));
  // SIGTERM: a clean end, its files gone.
  hub->terminate();
  EXPECT_EQ(hub->wait(), 0);
  struct stat info;
  EXPECT_NE(::lstat(socket_path(dir, "simcan0").c_str(), &info), 0);
}

TEST_F(SimbusProcesses, UnmodifiedCanUtilsJoinThroughRun) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer-built interposer cannot be preloaded into uninstrumented programs";
#endif
  if (::access("/usr/bin/candump", X_OK) != 0 || ::access("/usr/bin/cansend", X_OK) != 0) {
    GTEST_SKIP() << "can-utils is not installed";
  }
  const auto hub = start({kProgram, "serve", "can0", "--dir", dir});
  ASSERT_TRUE(served("can0"));
  Fd own = rawcan::open_can("can0", true);

  EXPECT_EQ(simbus("run --dir " + dir + " -- cansend can0 123#DEADBEEF").status, 0);
  canfd_frame frame{};
  ASSERT_EQ(read_within(own.get(), &frame, sizeof(frame), 5000), CAN_MTU);
  EXPECT_EQ(frame.can_id, 0x123u);
  EXPECT_EQ(frame.len, 4);
  EXPECT_EQ(frame.data[3], 0xEF);
  EXPECT_EQ(simbus("run --dir " + dir + " -- cansend can0 5A1##1112233").status, 0);
  ASSERT_EQ(read_within(own.get(), &frame, sizeof(frame), 5000), CANFD_MTU);
  EXPECT_EQ(frame.len, 3);
  EXPECT_EQ(frame.flags, CANFD_BRS | CANFD_FDF);

  // candump with a filter, receiving what this process sends.
  const auto candump =
      start({kProgram, "run", "--dir", dir, "--", "candump", "-n", "1", "-L", "can0,321:7FF"});
  for (int i = 0; i < 500 && query_interface(dir, "can0")->clients < 2; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  const can_frame ignored = classic_frame(0x320, {9});
  const can_frame wanted = classic_frame(0x321, {1, 2});
  ASSERT_EQ(::write(own.get(), &ignored, CAN_MTU), CAN_MTU);
  ASSERT_EQ(::write(own.get(), &wanted, CAN_MTU), CAN_MTU);
  EXPECT_EQ(candump->wait(), 0);
  EXPECT_NE(candump->output().find(" can0 321#0102\n"), std::string::npos) << candump->output();
}

TEST_F(SimbusProcesses, EverySubcommandHasHelpAndClearErrors) {
  for (const char* command : {"", "serve ", "set ", "list ", "run "}) {
    const auto help = simbus(std::string(command) + "--help");
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.output.rfind("Usage: kestrel-simbus", 0), 0u) << command << help.output;
  }
  // {command, exit status, what its message says}
  const std::tuple<std::string, int, std::string> mistakes[] = {
      {"frobnicate", 2, "unknown command \"frobnicate\""},
      {"serve", 2, ""},
      {"serve a234567890123456 --dir " + dir, 2, "invalid interface name"},
      {"serve can0 --bitrate fast --dir " + dir, 2, "--bitrate needs a bit rate"},
      {"set can0 sideways", 2, ""},
      {"set can0 mtu 64", 2, "expected IF up|down or IF mtu 16|72"},
      {"serve can0 --classic can1 --dir " + dir, 2,
       "--classic can1 is not one of the served interfaces"},
      {"run", 2, ""},
      {"run -- /nonexistent/program", 127, "cannot run /nonexistent/program"},
  };
  for (const auto& [words, status, message] : mistakes) {
    const auto result = simbus(words);
    EXPECT_EQ(result.status, status) << words;
    EXPECT_NE(result.output.find(message), std::string::npos) << words << result.output;
  }
}

}  // namespace
}  // namespace kestrel::simbus
