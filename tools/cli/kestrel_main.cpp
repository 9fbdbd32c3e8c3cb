// kestrel: one command for the arm, real or simulated. Subcommands drive the arm through the
// library (status, move, run, gravity, record, latency) or start the companion programs (sim,
// monitor).
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "cli_args.hpp"
#include "commands.hpp"

namespace {

constexpr const char* kUsage =
    "Usage: kestrel COMMAND [OPTIONS]   (kestrel COMMAND --help for each)\n"
    "\n"
    "Drive a Kestrel arm (six DM joint motors and a gripper on one CAN bus), real or simulated.\n"
    "\n"
    "Commands:\n"
    "  sim       start the simulated arm on the userspace CAN bus (interface simcan0)\n"
    "  monitor   print every frame on the bus decoded in motor terms, with bus load\n"
    "  status    read joints, gripper, torques, temperatures and status codes (moves nothing)\n"
    "  move      move to a joint posture or a tool pose, by time or speed\n"
    "  run       run a motion program from a YAML file (movej, movel, movep, sleep, gripper)\n"
    "  gravity   float the arm on gravity compensation until Ctrl-C\n"
    "  record    write joint states (commanded and measured) to CSV at the control rate\n"
    "  latency   qualify this machine: histogram of the control loop's compute, bus I/O and\n"
    "            wake-up jitter while the arm (by default a simulated one) holds still\n"
    "  serve     keep the arm held and serve the commands above (and scripts) on a local socket\n"
    "\n"
    "Try it without hardware:\n"
    "  kestrel sim &                     # the simulated arm on simcan0\n"
    "  kestrel status --interface simcan0\n"
    "  kestrel move --interface simcan0 --joints 0,0.4,-0.8,0,-0.6,0 --time 2\n"
    "\n"
    "Each arm command enables the motors when it starts and disables them when it ends, so\n"
    "between commands the arm is limp (the simulated one falls, as the real one would):\n"
    "support it, or run a whole sequence with kestrel run. Ctrl-C stops the arm where it is\n"
    "(it holds still), then the motors are disabled. With kestrel serve running for the\n"
    "interface, the commands go through it instead and the arm stays held between them.\n";

}  // namespace

int main(int argc, char** argv) {
  using namespace kestrel::cli;
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ||
      std::strcmp(argv[1], "help") == 0) {
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  const std::string command = argv[1];
  const Words words(argv + 2, argv + argc);
  try {
    if (command == "sim")
      return command_sim(words);
    if (command == "monitor")
      return command_monitor(words);
    if (command == "status")
      return command_status(words);
    if (command == "move")
      return command_move(words);
    if (command == "run")
      return command_run(words);
    if (command == "gravity")
      return command_gravity(words);
    if (command == "record")
      return command_record(words);
    if (command == "latency")
      return command_latency(words);
    if (command == "serve")
      return command_serve(words);
    std::fprintf(stderr, "kestrel: unknown command \"%s\" (kestrel --help lists them)\n",
                 command.c_str());
    return 2;
  } catch (const UsageError& e) {
    std::fprintf(stderr, "kestrel %s: %s (kestrel %s --help)\n", command.c_str(), e.what(),
                 command.c_str());
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kestrel %s: %s\n", command.c_str(), e.what());
    return 1;
  }
}
