// kestrel-simbus: runs the userspace CAN bus hub and lets SocketCAN programs join it.
//
//   kestrel-simbus serve IF [IF...] [--dir D] [--classic IF] [--wire-time] [--bitrate N]
//                        [--data-bitrate N]
//   kestrel-simbus set IF up|down [--dir D]
//   kestrel-simbus set IF mtu 16|72 [--dir D]
//   kestrel-simbus list [--dir D]
//   kestrel-simbus run [--dir D] -- PROGRAM [ARGS...]
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "simbus/hub.hpp"
#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"

namespace {

using namespace kestrel::simbus;

constexpr const char* kPreloadName = "libkestrel_simbus_preload.so";

constexpr const char* kUsage =
    "Usage: kestrel-simbus COMMAND [OPTIONS]\n"
    "\n"
    "A userspace CAN bus: a hub serving CAN interfaces, and an interposer that lets unmodified\n"
    "SocketCAN programs use them on machines without SocketCAN (or beside real interfaces).\n"
    "\n"
    "Commands:\n"
    "  serve IF [IF...]   serve the interfaces until SIGINT or SIGTERM\n"
    "  set IF up|down     change an interface's state on the running hub\n"
    "  set IF mtu 16|72   classic CAN only, or CAN FD as well (while the interface is down)\n"
    "  list               show the served interfaces, their state and counters\n"
    "  run -- PROGRAM     run a program with the interposer preloaded\n"
    "\n"
    "Every command takes --dir D, the bus directory (default: $KESTREL_SIMBUS_DIR, else\n"
    "$XDG_RUNTIME_DIR/kestrel-simbus, else /tmp/kestrel-simbus-UID).\n"
    "Run 'kestrel-simbus COMMAND --help' for a command's options.\n";

constexpr const char* kServeUsage =
    "Usage: kestrel-simbus serve IF [IF...] [--dir D] [--classic IF] [--wire-time]\n"
    "                            [--bitrate N] [--data-bitrate N]\n"
    "\n"
    "Serves the CAN interfaces IF (1 to 15 characters each) until SIGINT or SIGTERM, then\n"
    "removes their socket files. Every interface starts up and carries CAN FD (MTU 72).\n"
    "\n"
    "  --dir D             bus directory\n"
    "  --classic IF        IF starts with MTU 16, like a vcan without 'mtu 72' or an adapter\n"
    "                      without 'fd on': CAN FD sockets can open it, but their 72-byte\n"
    "                      writes fail with EINVAL; repeatable\n"
    "  --wire-time         deliver frames no faster than the bit rates allow, lowest\n"
    "                      identifier first when the bus is busy\n"
    "  --bitrate N         nominal bit rate in bit/s (default 1000000)\n"
    "  --data-bitrate N    CAN FD data bit rate in bit/s (default 5000000)\n";

constexpr const char* kSetUsage =
    "Usage: kestrel-simbus set IF up|down [--dir D]\n"
    "       kestrel-simbus set IF mtu 16|72 [--dir D]\n"
    "\n"
    "Marks a served interface up or down, like 'ip link set IF up|down'. While it is down,\n"
    "writes fail with ENETDOWN and nothing is relayed.\n"
    "With mtu, like 'ip link set IF mtu N' on a vcan: 16 carries classic CAN only (72-byte\n"
    "writes of CAN FD sockets fail with EINVAL), 72 CAN FD as well. Refused while IF is up.\n";

constexpr const char* kListUsage =
    "Usage: kestrel-simbus list [--dir D]\n"
    "\n"
    "Lists the interfaces in the bus directory with their index, state, MTU, attached sockets,\n"
    "frame counters and bus load. Socket files left by a hub that died show as stale.\n";

constexpr const char* kRunUsage =
    "Usage: kestrel-simbus run [--dir D] -- PROGRAM [ARGS...]\n"
    "\n"
    "Runs PROGRAM with the interposer (libkestrel_simbus_preload.so) added to LD_PRELOAD, so\n"
    "that its SocketCAN calls reach the served interfaces. With --dir, KESTREL_SIMBUS_DIR is set\n"
    "for the program. ASAN_OPTIONS gets verify_asan_link_order=0, which a program built with\n"
    "AddressSanitizer needs when another library is preloaded ahead of its runtime.\n"
    "KESTREL_SIMBUS_PRELOAD overrides where the interposer is looked for.\n";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

bool wants_help(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "--") {
      return false;
    }
    if (arg == "--help" || arg == "-h") {
      return true;
    }
  }
  return false;
}

std::uint32_t parse_bitrate(const std::string& option, const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value == 0 || value > 100000000ul ||
      text[0] == '-') {
    throw UsageError(option + " needs a bit rate in bit/s between 1 and 100000000, not \"" + text +
                     "\"");
  }
  return static_cast<std::uint32_t>(value);
}

// Takes "--dir D" out of `args`; returns the directory to use.
std::string take_directory(std::vector<std::string>& args) {
  std::optional<std::string> directory;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--") {
      break;
    }
    if (args[i] == "--dir") {
      if (i + 1 >= args.size()) {
        throw UsageError("--dir needs a directory");
      }
      directory = args[i + 1];
      args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
      --i;
    }
  }
  return directory ? *directory : bus_directory();
}

void check_interface_name(const std::string& name) {
  if (!is_valid_interface_name(name)) {
    throw UsageError("invalid interface name \"" + name +
                     "\": 1 to 15 characters, no '/', ':' or blanks");
  }
}

int serve(std::vector<std::string> args) {
  HubOptions options;
  options.directory = take_directory(args);
  std::vector<std::string> names;
  std::vector<std::string> classic;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--classic") {
      if (i + 1 >= args.size()) {
        throw UsageError("--classic needs an interface");
      }
      classic.push_back(args[++i]);
    } else if (arg == "--wire-time") {
      options.wire_time = true;
    } else if (arg == "--bitrate" || arg == "--data-bitrate") {
      if (i + 1 >= args.size()) {
        throw UsageError(arg + " needs a value");
      }
      const std::uint32_t value = parse_bitrate(arg, args[++i]);
      (arg == "--bitrate" ? options.bitrate : options.data_bitrate) = value;
    } else if (!arg.empty() && arg[0] == '-') {
      throw UsageError("unknown option " + arg);
    } else {
      check_interface_name(arg);
      names.push_back(arg);
    }
  }
  if (names.empty()) {
    throw UsageError("name at least one interface, e.g. kestrel-simbus serve can0");
  }
  for (const std::string& name : classic) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      throw UsageError("--classic " + name + " is not one of the served interfaces");
    }
  }
  // The hub thread inherits the blocked signals; the main thread collects them with sigwait.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  Hub hub(names, options);
  for (const std::string& name : classic) {
    hub.set_mtu(name, CAN_MTU);
  }
  hub.start();
  std::cout << "kestrel-simbus: serving";
  for (const std::string& name : names) {
    std::cout << ' ' << name;
  }
  std::cout << " in " << hub.directory();
  for (const std::string& name : classic) {
    std::cout << ", " << name << " classic CAN only (MTU 16)";
  }
  if (options.wire_time) {
    std::cout << " (wire time at " << options.bitrate << " / " << options.data_bitrate << " bit/s)";
  }
  std::cout << std::endl;
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  hub.stop();
  std::cout << "kestrel-simbus: stopped (" << strsignal(signal_number) << ")" << std::endl;
  return 0;
}

int set_state(std::vector<std::string> args) {
  const std::string directory = take_directory(args);
  const bool state = args.size() == 2 && (args[1] == "up" || args[1] == "down");
  const bool mtu = args.size() == 3 && args[1] == "mtu" && (args[2] == "16" || args[2] == "72");
  if (!state && !mtu) {
    throw UsageError("expected IF up|down or IF mtu 16|72, e.g. kestrel-simbus set can0 down");
  }
  check_interface_name(args[0]);
  const auto stats = state ? set_interface_state(directory, args[0], args[1] == "up")
                           : set_interface_mtu(directory, args[0], std::stoi(args[2]));
  if (!stats) {
    std::cerr << "kestrel-simbus: interface \"" << args[0] << "\" is not served in " << directory
              << " (is 'kestrel-simbus serve' running?)" << std::endl;
    return 1;
  }
  if (state) {
    std::cout << args[0] << ": " << (stats->up ? "UP" : "DOWN") << std::endl;
  } else {
    std::cout << args[0] << ": MTU " << stats->mtu << std::endl;
  }
  return 0;
}

int list(std::vector<std::string> args) {
  const std::string directory = take_directory(args);
  if (!args.empty()) {
    throw UsageError("unexpected argument " + args[0]);
  }
  const std::vector<std::string> names = interface_files(directory);
  if (names.empty()) {
    std::cout << "no interfaces in " << directory << std::endl;
    return 0;
  }
  std::printf("%-15s %-11s %-6s %4s %7s %12s %12s %9s %9s %7s\n", "INTERFACE", "INDEX", "STATE",
              "MTU", "SOCKETS", "RELAYED", "DELIVERED", "DROPPED", "DISCARDED", "LOAD");
  for (const std::string& name : names) {
    const auto stats = query_interface(directory, name);
    if (!stats) {
      std::printf("%-15s %-11d %-6s\n", name.c_str(), interface_index(name), "stale");
      continue;
    }
    std::printf("%-15s %-11d %-6s %4d %7zu %12llu %12llu %9llu %9llu %6.1f%%\n", name.c_str(),
                stats->ifindex, stats->up ? "UP" : "DOWN", stats->mtu, stats->clients,
                static_cast<unsigned long long>(stats->frames_relayed),
                static_cast<unsigned long long>(stats->deliveries),
                static_cast<unsigned long long>(stats->frames_dropped),
                static_cast<unsigned long long>(stats->frames_discarded), 100.0 * stats->load());
  }
  return 0;
}

std::string executable_directory() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length <= 0) {
    return ".";
  }
  std::string self(path, static_cast<std::size_t>(length));
  return self.substr(0, self.rfind('/'));
}

// The interposer sits beside the program in the build tree and in ../lib (or the configured
// library directory) once installed.
std::optional<std::string> find_interposer() {
  if (const char* explicit_path = std::getenv("KESTREL_SIMBUS_PRELOAD")) {
    return ::access(explicit_path, R_OK) == 0 ? std::optional<std::string>(explicit_path)
                                              : std::nullopt;
  }
  const std::string here = executable_directory();
  for (const std::string& candidate :
       {here + "/" + kPreloadName, here + "/../lib/" + kPreloadName,
        here + "/../" KESTREL_SIMBUS_INSTALL_LIBDIR "/" + kPreloadName}) {
    if (::access(candidate.c_str(), R_OK) == 0) {
      char resolved[PATH_MAX];
      return ::realpath(candidate.c_str(), resolved) != nullptr ? std::string(resolved) : candidate;
    }
  }
  return std::nullopt;
}

int run(std::vector<std::string> args) {
  const auto separator = std::find(args.begin(), args.end(), "--");
  std::vector<std::string> own(args.begin(), separator);
  std::optional<std::string> directory;
  if (std::find(own.begin(), own.end(), "--dir") != own.end()) {
    directory = take_directory(own);
  }
  if (!own.empty()) {
    throw UsageError("unexpected argument " + own[0] + " (put the program after --)");
  }
  if (separator == args.end() || separator + 1 == args.end()) {
    throw UsageError("name the program after --, e.g. kestrel-simbus run -- candump can0");
  }
  const auto interposer = find_interposer();
  if (!interposer) {
    std::cerr << "kestrel-simbus: cannot find " << kPreloadName << " next to "
              << executable_directory() << " or in ../lib (set KESTREL_SIMBUS_PRELOAD)"
              << std::endl;
    return 1;
  }
  std::string preload = *interposer;
  if (const char* existing = std::getenv("LD_PRELOAD"); existing != nullptr && *existing) {
    preload += ':';
    preload += existing;
  }
  ::setenv("LD_PRELOAD", preload.c_str(), 1);
  std::string asan_options = "verify_asan_link_order=0";
  if (const char* existing = std::getenv("ASAN_OPTIONS"); existing != nullptr && *existing) {
    asan_options = std::string(existing) + ":" + asan_options;
  }
  ::setenv("ASAN_OPTIONS", asan_options.c_str(), 1);
  if (directory) {
    ::setenv(kDirectoryEnv, directory->c_str(), 1);
  }
  std::vector<char*> argv;
  for (auto it = separator + 1; it != args.end(); ++it) {
    argv.push_back(const_cast<char*>(it->c_str()));
  }
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  std::cerr << "kestrel-simbus: cannot run " << argv[0] << ": " << std::strerror(errno)
            << std::endl;
  return 127;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    std::cout << kUsage;
    return args.empty() ? 2 : 0;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  struct Command {
    const char* name;
    const char* usage;
    int (*handler)(std::vector<std::string>);
  };
  static const Command kCommands[] = {{"serve", kServeUsage, serve},
                                      {"set", kSetUsage, set_state},
                                      {"list", kListUsage, list},
                                      {"run", kRunUsage, run}};
  for (const Command& entry : kCommands) {
    if (command != entry.name) {
      continue;
    }
    if (wants_help(args)) {
      std::cout << entry.usage;
      return 0;
    }
    try {
      return entry.handler(std::move(args));
    } catch (const UsageError& error) {
      std::cerr << "kestrel-simbus " << command << ": " << error.what() << "\n\n" << entry.usage;
      return 2;
    } catch (const std::exception& error) {
      std::cerr << "kestrel-simbus " << command << ": " << error.what() << std::endl;
      return 1;
    }
  }
  std::cerr << "kestrel-simbus: unknown command \"" << command << "\"\n\n" << kUsage;
  return 2;
}
