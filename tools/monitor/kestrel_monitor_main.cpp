// kestrel-monitor: joins a CAN interface and prints every frame decoded in DM motor terms, with a
// frames-per-second and bus-load line once a second. Plain SocketCAN: it runs on a real CAN
// interface, on vcan, and on the userspace bus through `kestrel-simbus run`.
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <string>

#include "bus_load.hpp"
#include "can_interface_probe.hpp"
#include "candump_log.hpp"
#include "dm_frame_describer.hpp"

namespace {

using Clock = std::chrono::steady_clock;
namespace km = kestrel::monitor;

std::atomic<bool> stop_requested{false};
void on_signal(int) {
  stop_requested = true;
}

void usage(FILE* out) {
  std::fprintf(out,
               "Usage: kestrel-monitor [options] [INTERFACE]\n"
               "Prints every frame on a DM motor CAN bus (default interface can0) decoded: "
               "which motor,\nenable/disable/zero/clear-error, MIT fields in physical units, "
               "position-velocity,\nrefresh and register reads and writes with register names, "
               "feedback with position,\nvelocity, torque, temperatures and status. Once a "
               "second: frames per second each way\nand the bus load on a 1 Mbit/s classic bus "
               "and on CAN FD (1 Mbit/s, 5 Mbit/s data).\n\n"
               "  --fd            open a CAN FD socket (see FD frames too)\n"
               "  --filter ID     only frames to or from motor ID (1..7); repeatable\n"
               "  --raw           also print each frame's payload bytes\n"
               "  --quiet         summary lines only\n"
               "  --duration SEC  stop after SEC seconds\n"
               "  --log FILE      decode a candump -L log (FILE, or - for standard input) instead\n"
               "                  of listening; times are the log's, from its first frame\n"
               "  --help          this text\n"
               "The motor table is the arm's: joints 1-3 DM_V8_T28, joints 4-6 and gripper "
               "DM_V30_T10,\nids 1..7, replies on 0x11..0x17. Stop with Ctrl-C.\n");
}

// Opens a raw CAN socket on `name`; prints why not and returns -1 on failure.
int open_socket(const std::string& name, bool fd) {
  std::string error;
  const int s = kestrel::tools::open_can_socket(name, fd, error);
  if (s < 0) {
    std::fprintf(stderr, "kestrel-monitor: %s\n", error.c_str());
  }
  return s;
}

struct Counters {
  uint64_t to_motor = 0;
  uint64_t from_motor = 0;
  uint64_t other = 0;
  double classic_seconds = 0.0;  // wire time as classic 1 Mbit/s frames
  double fd_seconds = 0.0;       // wire time as CAN FD frames at 1/5 Mbit/s
};

}  // namespace

int main(int argc, char** argv) {
  std::string interface = "can0";
  bool fd = false;
  bool raw = false;
  bool quiet = false;
  double duration = 0.0;
  std::set<int> filter;
  std::string log_file;
  bool have_interface = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char* what) -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "kestrel-monitor: %s needs a value\n", what);
        usage(stderr);
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      usage(stdout);
      return 0;
    } else if (a == "--fd") {
      fd = true;
    } else if (a == "--raw") {
      raw = true;
    } else if (a == "--quiet") {
      quiet = true;
    } else if (a == "--filter") {
      const std::string v = value("--filter");
      char* end = nullptr;
      const long id = std::strtol(v.c_str(), &end, 0);
      if (end == v.c_str() || *end != '\0' || id < 1 || id > 7) {
        std::fprintf(stderr, "kestrel-monitor: --filter takes a motor id 1..7, not '%s'\n",
                     v.c_str());
        return 2;
      }
      filter.insert(static_cast<int>(id));
    } else if (a == "--duration") {
      const std::string v = value("--duration");
      char* end = nullptr;
      duration = std::strtod(v.c_str(), &end);
      if (end == v.c_str() || *end != '\0' || !(duration > 0.0)) {
        std::fprintf(stderr, "kestrel-monitor: --duration takes seconds > 0, not '%s'\n",
                     v.c_str());
        return 2;
      }
    } else if (a == "--log") {
      log_file = value("--log");
    } else if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "kestrel-monitor: unknown option '%s'\n", a.c_str());
      usage(stderr);
      return 2;
    } else if (have_interface) {
      std::fprintf(stderr, "kestrel-monitor: one interface only ('%s' and '%s')\n",
                   interface.c_str(), a.c_str());
      return 2;
    } else {
      interface = a;
      have_interface = true;
    }
  }

  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const km::DmFrameDescriber describer;
  Counters window;
  Counters total;

  auto summary = [&](const Counters& c, double seconds, const char* label) {
    std::printf(
        "-- %s %.1f s: to motors %.0f frames/s, from motors %.0f frames/s, other %.0f "
        "frames/s; bus load %.1f%% of 1 Mbit/s classic, %.1f%% of CAN FD 1/5 Mbit/s\n",
        label, seconds, c.to_motor / seconds, c.from_motor / seconds, c.other / seconds,
        100.0 * c.classic_seconds / seconds, 100.0 * c.fd_seconds / seconds);
  };

  // Counts one frame and prints its line (unless quiet or filtered out).
  auto show = [&](const km::MonitoredFrame& f, const canfd_frame& frame, std::size_t size,
                  double elapsed) {
    kestrel::tools::BusLoad frame_load;  // this frame's wire time, both ways of counting
    frame_load.add(frame, size);
    const auto dir = describer.direction(f);
    for (Counters* c : {&window, &total}) {
      (dir == km::Direction::to_motor     ? c->to_motor
       : dir == km::Direction::from_motor ? c->from_motor
                                          : c->other) += 1;
      c->classic_seconds += frame_load.classic_seconds;
      c->fd_seconds += frame_load.fd_seconds;
    }
    if (quiet) {
      return;
    }
    if (!filter.empty()) {
      const int m = describer.motor_of(f);
      if (m < 0 || filter.count(m + 1) == 0) {
        return;
      }
    }
    const char* arrow = dir == km::Direction::to_motor     ? "->"
                        : dir == km::Direction::from_motor ? "<-"
                                                           : "  ";
    std::printf("%12.6f %s %03X%s %s", elapsed, arrow, f.id, f.fd ? " FD" : "   ",
                describer.describe(f).c_str());
    if (raw) {
      std::printf("  [%s]", km::hex_bytes(f.data).c_str());
    }
    std::printf("\n");
  };

  if (!log_file.empty()) {
    std::ifstream file;
    if (log_file != "-") {
      file.open(log_file);
      if (!file) {
        std::fprintf(stderr, "kestrel-monitor: cannot read '%s': %s\n", log_file.c_str(),
                     std::strerror(errno));
        return 1;
      }
    }
    std::istream& in = log_file == "-" ? std::cin : file;
    std::string line;
    std::string error;
    double first = -1.0;
    double last = 0.0;
    for (int number = 1; std::getline(in, line); ++number) {
      const auto logged = km::parse_candump_line(line, error);
      if (!logged) {
        if (!error.empty()) {
          std::fprintf(stderr, "kestrel-monitor: %s line %d: %s\n", log_file.c_str(), number,
                       error.c_str());
          return 1;
        }
        continue;
      }
      const km::MonitoredFrame& f = logged->frame;
      canfd_frame frame{};
      frame.can_id = f.id | (f.extended ? CAN_EFF_FLAG : 0) | (f.rtr ? CAN_RTR_FLAG : 0) |
                     (f.error ? CAN_ERR_FLAG : 0);
      frame.len = static_cast<uint8_t>(f.data.size());
      std::copy(f.data.begin(), f.data.end(), frame.data);
      first = first < 0.0 ? logged->timestamp : first;
      last = logged->timestamp;
      show(f, frame, f.fd ? CANFD_MTU : CAN_MTU, logged->timestamp - first);
    }
    summary(total, std::max(last - std::max(first, 0.0), 1e-9), "total");
    return 0;
  }

  const int s = open_socket(interface, fd);
  if (s < 0) {
    return 1;
  }
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  const auto started = Clock::now();
  auto window_start = started;
  std::printf("kestrel-monitor: listening on %s%s\n", interface.c_str(), fd ? " (CAN FD)" : "");

  while (!stop_requested) {
    const auto now = Clock::now();
    const double elapsed = std::chrono::duration<double>(now - started).count();
    if (duration > 0.0 && elapsed >= duration) {
      break;
    }
    const double in_window = std::chrono::duration<double>(now - window_start).count();
    if (in_window >= 1.0) {
      summary(window, in_window, "last");
      window = Counters{};
      window_start = now;
    }
    pollfd p{s, POLLIN, 0};
    const int ready = poll(&p, 1, 100);
    if (ready < 0) {
      if (errno == EINTR) {
        continue;
      }
      std::fprintf(stderr, "kestrel-monitor: poll: %s\n", std::strerror(errno));
      break;
    }
    if (ready == 0) {
      continue;
    }
    canfd_frame frame{};
    const ssize_t n = read(s, &frame, sizeof frame);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) {
        continue;
      }
      std::fprintf(stderr, "kestrel-monitor: read from %s: %s%s\n", interface.c_str(),
                   std::strerror(errno), errno == ENETDOWN ? " (the interface went DOWN)" : "");
      break;
    }
    const bool is_fd = n == static_cast<ssize_t>(CANFD_MTU);
    km::MonitoredFrame f;
    f.extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    f.rtr = (frame.can_id & CAN_RTR_FLAG) != 0;
    f.error = (frame.can_id & CAN_ERR_FLAG) != 0;
    f.id = frame.can_id & (f.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
    f.fd = is_fd;
    f.data.assign(frame.data, frame.data + std::min<size_t>(frame.len, is_fd ? 64 : 8));
    show(f, frame, static_cast<size_t>(n), elapsed);
  }
  const double seconds =
      std::max(std::chrono::duration<double>(Clock::now() - started).count(), 1e-9);
  summary(total, seconds, "total");
  close(s);
  return 0;
}
