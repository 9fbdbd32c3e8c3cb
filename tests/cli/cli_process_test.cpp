// The kestrel tool as a user runs it: each subcommand as its own process, beside the simulated
// arm started with `kestrel sim` on a private userspace bus, judged by exit status and output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <tuple>

#include "simbus/private_bus.hpp"

namespace {

using namespace std::chrono_literals;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

const std::string kTool = KESTREL_CLI_PROGRAM;

class KestrelTool : public kestrel::testing::PrivateBus {
 protected:
  // Runs a command that must succeed; its output.
  std::string ok(std::vector<std::string> words) {
    words.insert(words.begin(), kTool);
    const auto r = run(words);
    EXPECT_EQ(r.status, 0) << words[1] << ": " << r.output;
    return r.output;
  }
  // The six numbers after the last "joints rad:" of a command's output.
  static std::vector<double> joints_in(const std::string& output) {
    const auto at = output.rfind("joints rad:");
    std::istringstream in(at == std::string::npos ? "" : output.substr(at + 11));
    std::vector<double> q(6, 1e9);
    for (double& v : q) {
      in >> v;
    }
    return q;
  }
};

TEST_F(KestrelTool, HelpUsageErrorsAndProgramChecksNeedNoArm) {
  const std::string top = ok({"--help"});
  for (const char* sub :
       {"sim", "monitor", "status", "move", "run", "gravity", "record", "latency"}) {
    EXPECT_THAT(top, HasSubstr(std::string("\n  ") + sub + " ")) << sub;
    EXPECT_THAT(ok({sub, "--help"}), HasSubstr("Usage: kestrel")) << sub;
  }
  EXPECT_THAT(ok({"run", KESTREL_EXAMPLE_PROGRAM_FILE, "--check"}),
              HasSubstr("10 steps, all well-formed"));
  const std::string bad = dir + "/bad.yaml";
  std::ofstream(bad) << "steps:\n  - movej: {to: [0, 0.4, -0.9, 0, -0.6, 0], time_sec: 1}\n"
                        "  - movel: {to: [0.3, 0, 0.2]}\n";
  // {command, its exit status, the line that names the mistake}
  const std::tuple<std::vector<std::string>, int, std::string> mistakes[] = {
      {{}, 2, ""},
      {{"fly"}, 2, "kestrel: unknown command \"fly\""},
      {{"status", "--bogus"}, 2, "kestrel status: unknown option --bogus (kestrel status --help)"},
      {{"move", "--joints", "0.1,0.2"}, 2, "--joints needs 6 numbers separated by commas, got 2"},
      {{"move", "--joints", "0,0,nan,0,0,0"}, 2, "--joints needs a finite number, not \"nan\""},
      {{"move", "--joints", "0,0,0,0,0,0", "--time", "1", "--speed", "0.5"},
       2,
       "give --time or --speed, not both"},
      {{"move", "--joints", "0,0,0,0,0,0", "--speed", "2"},
       2,
       "--speed must be between 0.001 and 1, not 2"},
      {{"gravity", "--mode", "posvel"}, 2, "gravity compensation needs --mode mit"},
      {{"latency", "--seconds", "0"},
       2,
       "kestrel latency: --seconds must be between 0.1 and 86400, not 0"},
      {{"run", bad, "--check"},
       1,
       "kestrel run: " + bad + ":3: step 2: to must be a list of 6 numbers"},
      {{"status", "--interface", "nocan0"},
       1,
       "kestrel status: cannot open CAN interface 'nocan0': No such device (does it exist? for a "
       "USB adapter: sudo ip link set nocan0 up type can bitrate 1000000)"},
  };
  for (const auto& [args, status, message] : mistakes) {
    std::vector<std::string> words = args;
    words.insert(words.begin(), kTool);
    const auto r = run(words);
    EXPECT_EQ(r.status, status) << r.output;
    EXPECT_THAT(r.output, HasSubstr(message));
  }
}

TEST_F(KestrelTool, LatencyCountsTheLoopOfASimulatedArmItRunsItself) {
  const std::string out = ok({"latency", "--seconds", "1"});
  EXPECT_THAT(out, HasSubstr("kestrel latency: the simulated arm in this process on "));
  EXPECT_THAT(out, ContainsRegex("\nrange us +compute +bus I/O +jitter\n"));
  EXPECT_THAT(out, ContainsRegex("\nsummary us +compute +bus I/O +jitter\n"));
  for (const char* label :
       {"< 5 ", "< 10 ", "< 20 ", "< 50 ", "< 100 ", "< 200 ", "< 500 ", "< 1000 ", "< 2500 ",
        ">= 2500 ", "min ", "median ", "p99 ", "max ", "missed deadlines ", "missed per minute "}) {
    EXPECT_THAT(out, HasSubstr(std::string("\n") + label)) << label;
  }
  EXPECT_THAT(out, ContainsRegex("\ncycles +[1-9][0-9]*\n"));  // it counted some
}

TEST_F(KestrelTool, StatusMonitorAndRecordReadTheArmWithoutMovingIt) {
  start_sim("clican0");
  // Status reads every motor without enabling one; the monitor beside it decodes those frames.
  const auto monitor = start({kTool, "monitor", "clican0", "--duration", "3"});
  std::this_thread::sleep_for(300ms);
  const std::string status = ok({"status", "--interface", "clican0"});
  for (const char* text : {"joint 1", "joint 6", "gripper", "0 Disabled", "tool pose: x ",
                           "7 of 7 motors answered\nCAN send failures: 0\n"}) {
    EXPECT_THAT(status, HasSubstr(text));
  }
  EXPECT_THAT(status, ::testing::Not(HasSubstr("Enabled")));
  EXPECT_EQ(monitor->wait(), 0) << monitor->output();
  EXPECT_THAT(monitor->output(), HasSubstr("gripper (id 7) feedback Disabled (0)"));
  EXPECT_THAT(ok({"status", "--interface", "clican0", "--no-gripper"}),
              HasSubstr("6 of 6 motors answered"));

  // Record writes one row per control cycle: one second at 400 Hz, less the cycles that fall
  // between two polls on a busy machine.
  const std::string csv = dir + "/record.csv";
  ok({"record", "--interface", "clican0", "--seconds", "1", "--output", csv});
  std::ifstream in(csv);
  std::string header;
  std::getline(in, header);
  EXPECT_THAT(header, ::testing::StartsWith("time_s,kind,cmd_q1,"));
  EXPECT_THAT(header, ::testing::EndsWith(",tau6,cmd_gripper_m,gripper_m"));
  int rows = 0;
  double last_time = -1.0;
  for (std::string line; std::getline(in, line); ++rows) {
    EXPECT_GT(std::stod(line), last_time);
    last_time = std::stod(line);
  }
  EXPECT_GT(rows, 300);
  EXPECT_LE(rows, 410);
}

// Each on an arm of its own: one left disabled by a previous command sags under gravity, and the
// run-time acceleration check would stop the next motion.
TEST_F(KestrelTool, MotionCommandsArriveWhereTheySay) {
  const std::string program = dir + "/short.yaml";
  std::ofstream(program) << "steps:\n"
                            "  - movej: {to: [0, 0.4, -0.9, 0, -0.6, 0], time_sec: 1.5}\n"
                            "  - gripper: open\n"
                            "  - sleep: 0.2\n"
                            "  - movej: {to: [0.3, 0.4, -0.9, 0, -0.6, 0], time_sec: 1.0}\n";
  const double deg = M_PI / 180.0;
  // {case, command, what it says, where the arm ends (only the joints given)}
  const std::tuple<const char*, std::vector<std::string>, std::string, std::vector<double>>
      commands[] = {
          {"a joint target in degrees",
           {"move", "--joints", "0,23,-46,0,-34,10", "--deg", "--time", "2"},
           "moved in 2.000 s (planned)",
           {0, 23 * deg, -46 * deg, 0, -34 * deg, 10 * deg}},
          {"a program file",
           {"run", program},
           "program done: 4 steps, 2.500 s of planned motion",
           {0.3}},
          {"gravity compensation",
           {"gravity", "--seconds", "1"},
           "floating: move the arm by hand",
           {}},
      };
  for (const auto& [name, args, says, joints] : commands) {
    SCOPED_TRACE(name);
    start_sim("clican0");
    std::vector<std::string> words = args;
    words.insert(words.end(), {"--interface", "clican0"});
    const std::string out = ok(words);
    EXPECT_THAT(out, HasSubstr(says));
    EXPECT_THAT(out, HasSubstr("joints rad:"));
    for (std::size_t j = 0; j < joints.size(); ++j) {
      EXPECT_NEAR(joints_in(out)[j], joints[j], 0.01) << j;
    }
  }
  start_sim("clican0");  // a tool pose target is solved for
  EXPECT_THAT(ok({"move", "--interface", "clican0", "--pose", "0.30,0.05,0.22,3.14159,0,0",
                  "--time", "2.5"}),
              ContainsRegex("tool pose:  x 0\\.30[0-9]*  y 0\\.0[45]"));

  start_sim("clican0");  // Ctrl-C stops the arm where it is
  const auto move = start({kTool, "move", "--interface", "clican0", "--joints",
                           "1.0,0.4,-0.9,0,-0.6,0", "--time", "6"});
  std::this_thread::sleep_for(2500ms);
  move->interrupt();
  EXPECT_EQ(move->wait(10s), 130) << move->output();
  EXPECT_THAT(move->output(), HasSubstr("kestrel: stop requested: holding the arm"));
  EXPECT_THAT(move->output(), HasSubstr("kestrel: stopped (motion stopped)"));
}

TEST_F(KestrelTool, DownAndClassicInterfacesAreRefusedWithTheReason) {
  start_sim("clican0");
  ASSERT_EQ(run({KESTREL_SIMBUS_PROGRAM, "set", "clican0", "down"}).status, 0);
  const auto refused =
      run({kTool, "move", "--interface", "clican0", "--joints", "0,0.4,-0.8,0,-0.6,0"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.output,
              HasSubstr("kestrel move: CAN interface 'clican0' is DOWN (bring it up: sudo ip link "
                        "set clican0 up type can bitrate 1000000)"));
  const auto bad_file = run({kTool, "run", dir + "/none.yaml", "--interface", "clican0"});
  EXPECT_EQ(bad_file.status, 1);
  EXPECT_THAT(bad_file.output,
              HasSubstr("kestrel run: " + dir + "/none.yaml: cannot open the file"));
  // CAN FD on a classic interface: the one line of each program, and no frame goes out.
  ASSERT_TRUE(kestrel::simbus::set_interface_mtu(dir, "clican0", 16));
  ASSERT_TRUE(kestrel::simbus::set_interface_state(dir, "clican0", true));
  const std::string classic =
      ": CAN interface 'clican0' is not CAN FD capable (MTU 16): use classic CAN, or enable CAN "
      "FD with: sudo ip link set clican0 down && sudo ip link set clican0 up type can bitrate "
      "1000000 dbitrate 5000000 fd on (a vcan: sudo ip link set clican0 mtu 72)\n";
  const std::pair<std::vector<std::string>, std::string> fd_refusals[] = {
      {{kTool, "status", "--interface", "clican0", "--fd"}, "kestrel status"},
      {{kTool, "monitor", "clican0", "--fd", "--duration", "1"}, "kestrel-monitor"},
      {{kTool, "sim", "--interface", "clican0", "--fd"}, "kestrel-sim"},
  };
  for (const auto& [words, program] : fd_refusals) {
    const auto r = run(words);
    EXPECT_EQ(r.status, 1) << program;
    EXPECT_EQ(r.output, program + classic);
  }
  EXPECT_EQ(kestrel::simbus::query_interface(dir, "clican0")->frames_received, 0u);
}

}  // namespace
