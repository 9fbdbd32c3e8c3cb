// The kestrel-sim program as a user starts it: one command serves the bus and the arm, its
// fault options show on the wire, and SIGTERM ends it cleanly.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "sim_test_support.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::sim::Payload;
using kestrel::sim::test::ask;
using kestrel::sim::test::command_bytes;
using kestrel::sim::test::kEnable;

// A private bus directory, announced to this process and the programs it starts.
std::string bus_directory() {
  const std::string dir = ::mkdtemp(std::string("/tmp/kestrel-sim-test-XXXXXX").data());
  ::setenv(kestrel::simbus::kDirectoryEnv, dir.c_str(), 1);
  return dir;
}

// kestrel-sim (the first of `args`) started on a private bus; killed if a test leaves it running.
struct SimProgram {
  explicit SimProgram(std::vector<std::string> args)
      : dir(bus_directory()), program(std::move(args), dir + ".log") {}
  ~SimProgram() {
    ::unsetenv(kestrel::simbus::kDirectoryEnv);
    std::filesystem::remove_all(dir);
    std::filesystem::remove(dir + ".log");
  }
  std::string dir;
  kestrel::testing::Process program;
};

TEST(KestrelSimProgram, ServesTheArmWithCommandLineFaultsAndStopsOnSigterm) {
  SimProgram sim({KESTREL_SIM_PROGRAM, "--serve", "--interface", "armcan", "--no-wire-time",
                  "--silent", "5", "--fault", "3:8", "--start-posture", "0,0.5",
                  "--external-torque", "7:0.0"});
  for (int i = 0; i < 500 && !kestrel::simbus::is_served(sim.dir, "armcan"); ++i) {
    std::this_thread::sleep_for(10ms);
  }
  const auto can = kestrel::simbus::rawcan::open_can("armcan");
  // The hub serves the interface a moment before the motors' socket has joined it.
  for (int i = 0; i < 50 && ask(can.get(), 0x7FF, Payload{0x01, 0x00, 0xCC}, 200).empty(); ++i) {
  }
  EXPECT_EQ(ask(can.get(), 0x01, kEnable), "0x011 [8] 11 7F FF 7F F7 FF 21 1E");
  // Joint 2 at 0.5 rad; its motor is mounted with sign -1, so the shaft reads -0.5 rad.
  EXPECT_EQ(ask(can.get(), 0x02, kEnable), "0x012 [8] 12 7A E0 7F F7 FF 21 1E");
  EXPECT_EQ(ask(can.get(), 0x03, kEnable), "0x013 [8] 83 7F FF 7F F7 FF 21 1E");  // over-voltage
  // A command-line fault survives clear-error.
  EXPECT_EQ(ask(can.get(), 0x03, command_bytes(0xFB)), "0x013 [8] 83 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(ask(can.get(), 0x05, kEnable, 200), "");  // silent
  EXPECT_EQ(ask(can.get(), 0x7FF, Payload{0x07, 0x00, 0x33, 0x07}),
            "0x017 [8] 07 00 33 07 17 00 00 00");
  sim.program.terminate();
  EXPECT_EQ(sim.program.wait(), 0);
}

TEST(KestrelSimProgram, RejectsBadOptionsWithUsageStatus) {
  for (const char* bad : {"--fault=3", "--drop-rate", "--silent"}) {
    EXPECT_EQ(SimProgram({KESTREL_SIM_PROGRAM, bad, "9"}).program.wait(), 2) << bad;
  }
}

}  // namespace
