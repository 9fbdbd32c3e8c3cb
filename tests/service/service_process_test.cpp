// kestrel serve beside the simulated arm: the arm stays held between client commands, one
// client at a time holds control, stop comes from anyone, a client that goes mid-motion leaves
// the arm holding, bad requests are answered and the service keeps serving, a second service
// for the interface is refused, and SIGTERM mid-motion ends cleanly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <future>
#include <tuple>

#include "service/line_channel.hpp"
#include "service/service_client.hpp"
#include "simbus/private_bus.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::service::json;
using kestrel::service::LineChannel;
using kestrel::service::ServiceClient;
using kestrel::service::ServiceError;
using kestrel::testing::Process;
using ::testing::HasSubstr;

const std::vector<double> kPostureA{0.0, 0.4, -0.8, 0.0, -0.6, 0.0};
const std::vector<double> kPostureB{0.3, 0.8, -1.2, 0.2, -0.5, 0.1};

// The simulated arm on "svccan0" and `kestrel serve` for it, on a private bus and service folder.
class ArmService : public kestrel::testing::PrivateBus {
 protected:
  void SetUp() override {
    PrivateBus::SetUp();
    ::setenv("KESTREL_SERVICE_DIR", (dir + "/service").c_str(), 1);
    ASSERT_NO_FATAL_FAILURE(start_sim("svccan0"));
    service = start_service();
    for (int i = 0; i < 500 && !std::filesystem::exists(socket()); ++i) {
      std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(std::filesystem::exists(socket())) << service->output();
  }
  void TearDown() override {
    if (service) {
      service->terminate();
      EXPECT_EQ(service->wait(), 0) << service->output();
    }
    ::unsetenv("KESTREL_SERVICE_DIR");
    PrivateBus::TearDown();
  }
  std::unique_ptr<Process> start_service() {
    return start({KESTREL_CLI_PROGRAM, "serve", "--interface", "svccan0"});
  }
  std::string socket() const { return dir + "/service/svccan0.sock"; }
  // A kestrel command for the arm, which must go through the service and succeed.
  std::string through_service(std::vector<std::string> words) {
    words.insert(words.begin(), KESTREL_CLI_PROGRAM);
    words.insert(words.end(), {"--interface", "svccan0"});
    const auto r = run(words);
    EXPECT_EQ(r.status, 0) << r.output << service->output();
    EXPECT_THAT(r.output, HasSubstr("kestrel: using the arm service at " + socket()));
    return r.output;
  }
  static std::vector<double> joints(ServiceClient& client) {
    return client.call("state")["joints"].get<std::vector<double>>();
  }
  // The largest change of any joint over `seconds` of state streamed at 50 Hz.
  static double largest_drift(ServiceClient& watcher, double seconds) {
    const auto first = joints(watcher);
    double drift = 0.0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < until) {
      const auto q = joints(watcher);
      for (size_t j = 0; j < 6; ++j) {
        drift = std::max(drift, std::abs(q[j] - first[j]));
      }
      std::this_thread::sleep_for(20ms);
    }
    return drift;
  }
  // Once a motion towards kPostureB was cut short: the arm holds still, short of it.
  static void holds_short_of_b(ServiceClient& watcher) {
    EXPECT_LT(largest_drift(watcher, 0.5), 0.003);
    EXPECT_GT(std::abs(joints(watcher)[1] - kPostureB[1]), 0.05);  // it did not go on
  }
  // The error a call is answered with: "type: message".
  template <typename Call>
  static std::string error_of(Call call) {
    try {
      call();
    } catch (const ServiceError& e) {
      return e.type + ": " + e.what();
    } catch (const std::exception& e) {
      return std::string("client: ") + e.what();
    }
    return "no error";
  }
  // A 4 s motion towards kPostureB by `holder`, in the background: its error once it ends.
  static std::future<std::string> long_motion(ServiceClient& holder) {
    holder.call("acquire");
    return std::async(std::launch::async, [&holder] {
      return error_of([&] {
        holder.call("move_joint_waypoints", {{"waypoints", {kPostureB}}, {"time_sec", 4.0}});
      });
    });
  }
  std::unique_ptr<Process> service;
};

TEST_F(ArmService, HoldsTheArmBetweenCommandsAndLendsControlToOneClientAtATime) {
  namespace fs = std::filesystem;  // the socket is the owner's only
  EXPECT_EQ(fs::status(socket()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  ServiceClient watcher(socket());
  for (const auto& [text, target] : {std::pair{"0,0.4,-0.8,0,-0.6,0", kPostureA},
                                     std::pair{"0.3,0.8,-1.2,0.2,-0.5,0.1", kPostureB}}) {
    through_service({"move", "--joints", text, "--time", "1.5"});
    // Between commands the arm holds: joint 2 carries the arm's weight and would fall first.
    EXPECT_LT(largest_drift(watcher, 0.6), 0.003);
    const auto q = joints(watcher);
    for (size_t j = 0; j < 6; ++j) {
      EXPECT_NEAR(q[j], target[j], 0.01) << "joint " << j + 1;
    }
  }
  EXPECT_THAT(through_service({"status"}), HasSubstr("motors: holding; control free"));

  const std::string program = dir + "/program.yaml";
  std::ofstream(program) << "steps:\n"
                            "  - movej: {to: [0.0, 0.4, -0.8, 0.0, -0.6, 0.0], time_sec: 2.0}\n"
                            "  - gripper: open\n";
  EXPECT_THAT(through_service({"run", program}),
              HasSubstr("program done: 2 steps, 2.000 s of planned motion"));
  const std::string csv = dir + "/record.csv";
  through_service({"record", "--seconds", "0.5", "--output", csv});
  EXPECT_THAT(through_service({"gravity", "--seconds", "0.3"}),
              HasSubstr("floating: move the arm by hand"));
  std::ifstream rows(csv);
  std::string header;
  std::getline(rows, header);
  EXPECT_THAT(header, ::testing::StartsWith("time_s,kind,"));
  // 0.5 s at 400 cycles a second, every cycle seen
  EXPECT_GT(std::count(std::istreambuf_iterator<char>(rows), {}, '\n'), 150);
  EXPECT_EQ(watcher.call("state")["control_holder"].get<int>(), 0);  // each let go of control

  auto second = std::make_unique<ServiceClient>(socket());
  const json move{{"q", kPostureA}, {"time_sec", 1.0}};
  EXPECT_EQ(error_of([&] { watcher.call("set_joint", move); }),
            "no_control: this command needs control of the arm: send \"acquire\" first");
  const int holder = watcher.call("acquire")["client"].get<int>();
  const std::string held = "no_control: control is held by client " + std::to_string(holder) +
                           " (it is free once that client releases it or disconnects)";
  EXPECT_EQ(error_of([&] { second->call("acquire"); }), held);
  EXPECT_EQ(error_of([&] { second->call("set_joint", move); }), held);
  EXPECT_EQ(error_of([&] { second->call("release"); }),
            "no_control: this client does not hold control");
  EXPECT_EQ(watcher.call("state")["control_holder"].get<int>(), holder);
  watcher.call("release");
  EXPECT_NE(second->call("acquire")["client"].get<int>(), holder);
  second.reset();  // disconnecting frees the lease
  for (int i = 0; i < 100 && watcher.call("state")["control_holder"].get<int>() != 0; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(watcher.call("acquire")["client"].get<int>(), holder);
}

TEST_F(ArmService, StopOrADisconnectMidMotionLeavesTheArmHoldingAndSigtermEndsCleanly) {
  ServiceClient watcher(socket());
  {  // stop from a watching client ends the holder's motion
    ServiceClient holder(socket());
    auto motion = long_motion(holder);
    std::this_thread::sleep_for(1s);
    watcher.call("stop");
    ASSERT_EQ(motion.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(motion.get(), "runtime_error: motion stopped");
    std::this_thread::sleep_for(300ms);  // braking to rest
    holds_short_of_b(watcher);
    holder.call("release");
  }
  {  // a holder that goes mid-motion
    LineChannel holder(LineChannel::connect_unix(socket()));
    ASSERT_TRUE(holder.write_line(R"({"id":1,"op":"acquire"})"));
    ASSERT_TRUE(holder.write_line(json{
        {"id", 2}, {"op", "move_joint_waypoints"}, {"waypoints", {kPostureB}}, {"time_sec", 4.0}}
                                      .dump()));
    std::this_thread::sleep_for(1s);
  }
  std::this_thread::sleep_for(500ms);
  holds_short_of_b(watcher);
  EXPECT_EQ(watcher.call("state")["control_holder"].get<int>(), 0);

  ServiceClient holder(socket());
  auto motion = long_motion(holder);
  std::this_thread::sleep_for(1s);
  service->terminate();
  EXPECT_EQ(service->wait(10s), 0) << service->output();
  ASSERT_EQ(motion.wait_for(2s), std::future_status::ready);
  EXPECT_THAT(motion.get(),
              ::testing::AnyOf(HasSubstr("motion stopped"), HasSubstr("closed the connection")));
  EXPECT_THAT(service->output(), HasSubstr("kestrel serve: motors disabled, socket removed"));
  EXPECT_FALSE(std::filesystem::exists(socket()));
  EXPECT_FALSE(std::filesystem::exists(dir + "/service/svccan0.lock"));
  service.reset();
}

TEST_F(ArmService, AnswersBadRequestsStreamsStateAndRefusesASecondService) {
  LineChannel raw(LineChannel::connect_unix(socket()));
  ASSERT_TRUE(raw.write_line(R"({"id":0,"op":"acquire"})"));
  std::string reply;
  ASSERT_EQ(raw.read_line(reply), LineChannel::Read::line);
  // {request, the error type answered, what its message says}
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"this is not json", "bad_request", "not a JSON document: "},
      {"[1, 2]", "bad_request", "a request is one JSON object per line"},
      {R"({"id": 3})", "bad_request", "a request names its operation in the string field \"op\""},
      {R"({"id": 4, "op": "fly"})", "bad_request", "unknown operation \"fly\""},
      {R"({"id": 5, "op": "set_joint", "q": "up", "time_sec": 1})", "bad_request",
       "field \"q\" must be an array of numbers"},
      {R"({"id": 6, "op": "set_joint", "q": [0, 0]})", "bad_request", "missing field \"time_sec\""},
      {R"({"id": 7, "op": "set_joint", "q": [0, 0, 0, 0, 0], "time_sec": 1})", "invalid_argument",
       "q_end size mismatch"},
      {R"({"id": 9, "op": "subscribe", "rate_hz": 5000})", "invalid_argument",
       "rate_hz must be in (0, 800]"},
      {R"({"id": 10, "op": "run_program", "text": "- movej: [[0, 0]]"})", "runtime_error",
       "program: "},
      {std::string(LineChannel::kMaxLine + 10, 'x'), "bad_request",
       "request longer than 1048576 bytes: ignored"},
  };
  for (const auto& [request, type, message] : cases) {
    ASSERT_TRUE(raw.write_line(request));
    ASSERT_EQ(raw.read_line(reply), LineChannel::Read::line) << request.substr(0, 60);
    const json answer = json::parse(reply);
    EXPECT_FALSE(answer["ok"].get<bool>()) << reply;
    EXPECT_EQ(answer["error"]["type"], type) << reply;
    EXPECT_THAT(answer["error"]["message"].get<std::string>(), HasSubstr(message)) << reply;
  }
  ASSERT_TRUE(raw.write_line(R"({"id": 11, "op": "ping"})"));
  ASSERT_EQ(raw.read_line(reply), LineChannel::Read::line);
  EXPECT_EQ(json::parse(reply)["id"], 11);
  EXPECT_TRUE(json::parse(reply)["ok"].get<bool>()) << reply;

  // State streams at the chosen rate: 50 states at 100 Hz take half a second.
  ServiceClient watcher(socket());
  watcher.call("subscribe", {{"rate_hz", 100}});
  const auto start = std::chrono::steady_clock::now();
  uint64_t first_cycle = 0;
  json state;
  for (int i = 0; i < 50; ++i) {
    state = watcher.next_state();
    first_cycle = first_cycle == 0 ? state["cycle"]["cycle"].get<uint64_t>() : first_cycle;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_NEAR(seconds, 0.5, 0.15);
  EXPECT_EQ(state["joints"].size(), 6u);
  EXPECT_EQ(state["torques"].size(), 6u);
  EXPECT_EQ(state["tool_pose"].size(), 7u);
  EXPECT_GT(state["loop"]["cycles"].get<uint64_t>(), 0u);
  EXPECT_FALSE(state["motors"]["emergency_stopped"].get<bool>());
  EXPECT_GT(state["cycle"]["cycle"].get<uint64_t>(), first_cycle + 100);  // 400 cycles a second

  auto second = start_service();
  EXPECT_EQ(second->wait(30s), 1);
  EXPECT_THAT(second->output(),
              HasSubstr("kestrel serve: a service for svccan0 is already running (socket " +
                        socket() + ")"));
  EXPECT_EQ(ServiceClient(socket()).call("ping")["protocol"], 1);  // the first one serves on
}

}  // namespace
