// The kestrel tool as a user runs it: the simulated arm started with `kestrel sim`, then each
// subcommand as its own process on the same userspace bus, with its exit status and output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::testing::Process;
using ::testing::HasSubstr;

struct Result {
  int status;
  std::string output;
};

// A private bus directory, optionally with the simulated arm served on "clican0".
class KestrelTool : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir_template[] = "/tmp/kestrel-cli-test-XXXXXX";
    dir = ::mkdtemp(dir_template);
    ::setenv(kestrel::simbus::kDirectoryEnv, dir.c_str(), 1);
  }
  void TearDown() override {
    if (sim) {
      sim->terminate();
      EXPECT_EQ(sim->wait(), 0) << sim->output();
    }
    ::unsetenv(kestrel::simbus::kDirectoryEnv);
    std::filesystem::remove_all(dir);
  }
  void start_sim() {
    sim = std::make_unique<Process>(
        std::vector<std::string>{KESTREL_CLI_PROGRAM, "sim", "--serve", "--interface", "clican0"},
        dir + "/sim.log");
    bool served = false;
    for (int i = 0; i < 500 && !served; ++i) {
      served = kestrel::simbus::is_served(dir, "clican0");
      std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(served) << sim->output();
  }
  std::vector<std::string> command(std::vector<std::string> words) {
    words.insert(words.begin(), KESTREL_CLI_PROGRAM);
    return words;
  }
  Result run(std::vector<std::string> words, std::chrono::seconds timeout = 60s) {
    Process p(command(std::move(words)), dir + "/run" + std::to_string(++runs) + ".log");
    const int status = p.wait(timeout);
    return {status, p.output()};
  }
  // The six numbers after "joints rad:" in a command's output.
  static std::vector<double> joints_in(const std::string& output) {
    const auto at = output.rfind("joints rad:");
    std::istringstream in(at == std::string::npos ? "" : output.substr(at + 11));
    std::vector<double> q(6, 1e9);
    for (double& v : q) {
      in >> v;
    }
    return q;
  }
  std::string dir;
  std::unique_ptr<Process> sim;
  int runs = 0;
};

TEST_F(KestrelTool, HelpForEveryCommandAndUsageErrors) {
  const auto top = run({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char* sub :
       {"sim", "monitor", "status", "move", "run", "gravity", "record", "latency"}) {
    EXPECT_THAT(top.output, HasSubstr(std::string("\n  ") + sub + " ")) << sub;
    const auto help = run({sub, "--help"});
    EXPECT_EQ(help.status, 0) << sub << help.output;
    EXPECT_THAT(help.output, HasSubstr("Usage: kestrel")) << sub;
  }
  EXPECT_EQ(run({}).status, 2);
  // Usage mistakes: exit status 2 and the line that names the mistake.
  const struct {
    std::vector<std::string> words;
    std::string message;
  } usage_errors[] = {
      {{"fly"}, "kestrel: unknown command \"fly\""},
      {{"status", "--bogus"}, "kestrel status: unknown option --bogus (kestrel status --help)"},
      {{"move", "--joints", "0.1,0.2"}, "--joints needs 6 numbers separated by commas, got 2"},
      {{"move", "--joints", "0,0,nan,0,0,0"}, "--joints needs a finite number, not \"nan\""},
      {{"move", "--joints", "0,0,0,0,0,0", "--time", "1", "--speed", "0.5"},
       "give --time or --speed, not both"},
      {{"move", "--joints", "0,0,0,0,0,0", "--speed", "2"},
       "--speed must be between 0.001 and 1, not 2"},
      {{"gravity", "--mode", "posvel"}, "gravity compensation needs --mode mit"},
      {{"latency", "--bogus"}, "kestrel latency: unknown option --bogus (kestrel latency --help)"},
      {{"latency", "--seconds", "0"},
       "kestrel latency: --seconds must be between 0.1 and 86400, not 0"},
  };
  for (const auto& row : usage_errors) {
    const auto r = run(row.words);
    EXPECT_EQ(r.status, 2) << row.words[0] << ' ' << r.output;
    EXPECT_THAT(r.output, HasSubstr(row.message));
  }
}

TEST_F(KestrelTool, LatencyCountsTheLoopOfASimulatedArmItRunsItself) {
  const auto r = run({"latency", "--seconds", "1"});
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_THAT(r.output, HasSubstr("kestrel latency: the simulated arm in this process on "));
  EXPECT_THAT(r.output, ::testing::ContainsRegex("\nrange us +compute +bus I/O +jitter\n"));
  EXPECT_THAT(r.output, ::testing::ContainsRegex("\nsummary us +compute +bus I/O +jitter\n"));
  for (const char* label :
       {"< 5 ", "< 10 ", "< 20 ", "< 50 ", "< 100 ", "< 200 ", "< 500 ", "< 1000 ", "< 2500 ",
        ">= 2500 ", "min ", "median ", "p99 ", "max ", "missed deadlines ", "missed per minute "}) {
    EXPECT_THAT(r.output, HasSubstr(std::string("\n") + label)) << label;
  }
  const auto at = r.output.find("\ncycles ");
  ASSERT_NE(at, std::string::npos) << r.output;
  unsigned long long cycles = 0;
  std::istringstream(r.output.substr(at + 8)) >> cycles;
  EXPECT_GT(cycles, 0u) << r.output;
}

TEST_F(KestrelTool, MissingAndDownInterfacesAreRefusedWithTheReason) {
  const auto missing = run({"status", "--interface", "nocan0"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.output,
              HasSubstr("kestrel status: cannot open CAN interface 'nocan0': No such device "
                        "(does it exist? for a USB adapter: sudo ip link set nocan0 up type can "
                        "bitrate 1000000)"));
  start_sim();
  Process down({KESTREL_SIMBUS_PROGRAM, "set", "clican0", "down"}, dir + "/down.log");
  ASSERT_EQ(down.wait(), 0) << down.output();
  const auto refused = run({"move", "--interface", "clican0", "--joints", "0,0.4,-0.8,0,-0.6,0"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.output,
              HasSubstr("kestrel move: CAN interface 'clican0' is DOWN (bring it up: sudo ip link "
                        "set clican0 up type can bitrate 1000000)"));
  const auto bad_file = run({"run", dir + "/none.yaml", "--interface", "clican0"});
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
      {{"status", "--interface", "clican0", "--fd"}, "kestrel status"},
      {{"monitor", "clican0", "--fd", "--duration", "1"}, "kestrel-monitor"},
      {{"sim", "--interface", "clican0", "--fd"}, "kestrel-sim"},
  };
  for (const auto& [words, program] : fd_refusals) {
    const auto r = run(words);
    EXPECT_EQ(r.status, 1) << program;
    EXPECT_EQ(r.output, program + classic);
  }
  EXPECT_EQ(kestrel::simbus::query_interface(dir, "clican0")->frames_received, 0u);
}

TEST_F(KestrelTool, StatusReadsEveryMotorWithoutEnablingIt) {
  start_sim();
  const auto status = run({"status", "--interface", "clican0"});
  EXPECT_EQ(status.status, 0) << status.output;
  for (const char* motor : {"joint 1", "joint 6", "gripper"}) {
    EXPECT_THAT(status.output, HasSubstr(motor));
  }
  EXPECT_THAT(status.output, HasSubstr("0 Disabled"));
  EXPECT_THAT(status.output, ::testing::Not(HasSubstr("Enabled")));
  EXPECT_THAT(status.output, HasSubstr("tool pose: x "));
  EXPECT_THAT(status.output, HasSubstr("7 of 7 motors answered\nCAN send failures: 0\n"));
  const auto without_gripper = run({"status", "--interface", "clican0", "--no-gripper"});
  EXPECT_THAT(without_gripper.output, HasSubstr("6 of 6 motors answered"));
}

TEST_F(KestrelTool, MoveArrivesAtAJointTargetGivenInDegrees) {
  start_sim();
  const auto joints = run(
      {"move", "--interface", "clican0", "--joints", "0,23,-46,0,-34,10", "--deg", "--time", "2"});
  ASSERT_EQ(joints.status, 0) << joints.output;
  EXPECT_THAT(joints.output, HasSubstr("moved in 2.000 s (planned)"));
  const auto q = joints_in(joints.output);
  const double deg = M_PI / 180.0;
  const std::vector<double> target = {0, 23 * deg, -46 * deg, 0, -34 * deg, 10 * deg};
  for (int j = 0; j < 6; ++j) {
    EXPECT_NEAR(q[j], target[j], 0.01) << j;
  }
}

TEST_F(KestrelTool, PoseMoveSolvesTheToolTarget) {
  start_sim();
  const auto pose = run(
      {"move", "--interface", "clican0", "--pose", "0.30,0.05,0.22,3.14159,0,0", "--time", "2.5"});
  ASSERT_EQ(pose.status, 0) << pose.output;
  EXPECT_THAT(pose.output, ::testing::ContainsRegex("tool pose:  x 0\\.30[0-9]*  y 0\\.0[45]"));
}

TEST_F(KestrelTool, RunChecksThenRunsAProgramFile) {
  const auto check = run({"run", KESTREL_EXAMPLE_PROGRAM_FILE, "--check"});
  EXPECT_EQ(check.status, 0) << check.output;
  EXPECT_THAT(check.output, HasSubstr("10 steps, all well-formed"));
  const std::string bad = dir + "/bad.yaml";
  std::ofstream(bad) << "steps:\n  - movej: {to: [0, 0.4, -0.9, 0, -0.6, 0], time_sec: 1}\n"
                        "  - movel: {to: [0.3, 0, 0.2]}\n";
  const auto refused = run({"run", bad, "--check"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.output,
              HasSubstr("kestrel run: " + bad + ":3: step 2: to must be a list of 6 numbers"));

  start_sim();
  const std::string program = dir + "/short.yaml";
  std::ofstream(program) << "steps:\n"
                            "  - movej: {to: [0, 0.4, -0.9, 0, -0.6, 0], time_sec: 1.5}\n"
                            "  - gripper: open\n"
                            "  - sleep: 0.2\n"
                            "  - movej: {to: [0.3, 0.4, -0.9, 0, -0.6, 0], time_sec: 1.0}\n";
  const auto ran = run({"run", program, "--interface", "clican0"});
  ASSERT_EQ(ran.status, 0) << ran.output;
  EXPECT_THAT(ran.output, HasSubstr("program done: 4 steps, 2.500 s of planned motion"));
  EXPECT_NEAR(joints_in(ran.output)[0], 0.3, 0.01);
}

TEST_F(KestrelTool, RecordWritesOneRowPerControlCycle) {
  start_sim();
  const std::string csv = dir + "/record.csv";
  const auto recorded =
      run({"record", "--interface", "clican0", "--seconds", "1", "--output", csv});
  ASSERT_EQ(recorded.status, 0) << recorded.output;
  std::ifstream in(csv);
  std::string header;
  std::getline(in, header);
  EXPECT_THAT(header, ::testing::StartsWith("time_s,kind,cmd_q1,"));
  EXPECT_THAT(header, ::testing::EndsWith(",tau6,cmd_gripper_m,gripper_m"));
  int rows = 0;
  double last_time = -1.0;
  for (std::string line; std::getline(in, line); ++rows) {
    const double t = std::stod(line);
    EXPECT_GT(t, last_time);
    last_time = t;
  }
  // One second at 400 Hz, less the cycles that fall between two polls on a busy machine.
  EXPECT_GT(rows, 300);
  EXPECT_LE(rows, 410);
}

TEST_F(KestrelTool, GravityFloatsForItsSeconds) {
  start_sim();
  const auto floated = run({"gravity", "--interface", "clican0", "--seconds", "1"});
  EXPECT_EQ(floated.status, 0) << floated.output;
  EXPECT_THAT(floated.output, HasSubstr("floating: move the arm by hand"));
  EXPECT_THAT(floated.output, HasSubstr("joints rad:"));
}

TEST_F(KestrelTool, CtrlCStopsTheArmWhereItIs) {
  start_sim();
  Process move(command({"move", "--interface", "clican0", "--joints", "1.0,0.4,-0.9,0,-0.6,0",
                        "--time", "6"}),
               dir + "/move.log");
  std::this_thread::sleep_for(2500ms);
  move.interrupt();
  EXPECT_EQ(move.wait(10s), 130) << move.output();
  EXPECT_THAT(move.output(), HasSubstr("kestrel: stop requested: holding the arm"));
  EXPECT_THAT(move.output(), HasSubstr("kestrel: stopped (motion stopped)"));
}

TEST_F(KestrelTool, MonitorSeesTheBusOfTheSimulatedArm) {
  start_sim();
  Process monitor(command({"monitor", "clican0", "--duration", "3"}), dir + "/monitor.log");
  std::this_thread::sleep_for(300ms);
  const auto status = run({"status", "--interface", "clican0"});
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(monitor.wait(), 0) << monitor.output();
  EXPECT_THAT(monitor.output(), HasSubstr("joint 1 (id 1) refresh"));
  EXPECT_THAT(monitor.output(), HasSubstr("gripper (id 7) feedback Disabled (0)"));
}

}  // namespace
