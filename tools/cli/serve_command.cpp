// kestrel serve: one long-running process that owns the arm, keeps it held between commands
// and serves clients on a local Unix-domain socket (the protocol: docs/service.md).
#include <cstdio>

#include "arm_session.hpp"
#include "commands.hpp"
#include "service_paths.hpp"
#include "service_server.hpp"

namespace kestrel::cli {

int command_serve(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel serve [--socket PATH] [--group NAME] [connection options]\n"
      "Brings the arm up, holds the measured posture and serves clients (kestrel status, move,\n"
      "run, gravity and record, the Python ServiceClient, your scripts) on a Unix-domain socket,\n"
      "one JSON request per line (docs/service.md). Between client commands the arm stays held.\n"
      "Ctrl-C or SIGTERM ends any motion, holds, disables the motors and removes the socket.\n"
      "One service per interface; nothing listens on the network.\n"
      "  --socket PATH    socket path (default $XDG_RUNTIME_DIR/kestrel/IF.sock, or\n"
      "                   /tmp/kestrel-UID/IF.sock; $KESTREL_SERVICE_DIR overrides the folder)\n"
      "  --group NAME     let members of this group connect too (default: owner only); put\n"
      "                   the socket in a folder they can reach with --socket\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {"--socket", "--group"}, {}, kHelp, args)) {
    return 0;
  }
  const auto options = connection_options(args);
  service::ServerOptions server_options;
  server_options.socket_path =
      args.text("--socket", service::default_socket_path(options.interface));
  if (args.has("--group")) {
    server_options.group = args.text("--group", "");
  }
  server_options.facts = {options.gripper, options.mode == MIT_MODE};

  StopSignals signals;
  // Before the bus is touched: a second service would fight the first for the motors.
  service::ServiceRegistration registration(options.interface, server_options.socket_path);
  auto arm = connect_arm(options, true);
  signals.attach(arm.get());
  {
    service::ServiceServer server(*arm, server_options);
    std::printf("kestrel serve: holding the arm on %s; clients connect at %s (Ctrl-C ends)\n",
                options.interface.c_str(), server_options.socket_path.c_str());
    std::fflush(stdout);
    server.serve([&] { return !signals.requested(); });
    server.shut_down();  // every client's motion has ended; the arm holds
  }
  signals.attach(nullptr);
  arm->stop();
  arm->cleanup();
  std::printf("kestrel serve: motors disabled, socket removed\n");
  return 0;
}

}  // namespace kestrel::cli
