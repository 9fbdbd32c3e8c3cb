// The arm service's request round trip: starts the simulated arm and `kestrel serve` in a
// private folder, then times N requests from one client (a full state query, and a ping that
// touches no arm state) and prints median, p99 and max for each.
//
//   bench_service_round_trip [N]     (default 5000)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "service/service_client.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace {

using Clock = std::chrono::steady_clock;

void report(const char* what, std::vector<double> us) {
  std::sort(us.begin(), us.end());
  const auto at = [&](double q) { return us[static_cast<size_t>(q * (us.size() - 1))]; };
  std::printf("%-8s n %zu  median %.1f us  p99 %.1f us  max %.1f us\n", what, us.size(), at(0.5),
              at(0.99), us.back());
}

std::vector<double> time_requests(kestrel::service::ServiceClient& client, const char* op,
                                  int count) {
  std::vector<double> us;
  us.reserve(count);
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    client.call(op);
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return us;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(100, std::atoi(argv[1])) : 5000;
  char dir_template[] = "/tmp/kestrel-bench-service-XXXXXX";
  const std::string dir = ::mkdtemp(dir_template);
  ::setenv(kestrel::simbus::kDirectoryEnv, dir.c_str(), 1);
  ::setenv("KESTREL_SERVICE_DIR", (dir + "/service").c_str(), 1);
  int status = 1;
  {
    kestrel::testing::Process sim(
        {KESTREL_CLI_PROGRAM, "sim", "--serve", "--interface", "benchcan0"}, dir + "/sim.log");
    for (int i = 0; i < 500 && !kestrel::simbus::is_served(dir, "benchcan0"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kestrel::testing::Process service({KESTREL_CLI_PROGRAM, "serve", "--interface", "benchcan0"},
                                      dir + "/serve.log");
    const std::string socket = dir + "/service/benchcan0.sock";
    for (int i = 0; i < 1000 && !std::filesystem::exists(socket); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    try {
      kestrel::service::ServiceClient client(socket);
      time_requests(client, "state", 200);  // warm-up
      std::printf("request round trip over the Unix socket, one client, %d requests each\n", count);
      report("state", time_requests(client, "state", count));
      report("ping", time_requests(client, "ping", count));
      status = 0;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "bench_service_round_trip: %s\n%s", e.what(), service.output().c_str());
    }
    service.terminate();
    service.wait();
    sim.terminate();
    sim.wait();
  }
  std::filesystem::remove_all(dir);
  return status;
}
