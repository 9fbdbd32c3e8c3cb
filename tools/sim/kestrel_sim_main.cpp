// kestrel-sim: the arm's seven DM motors on a CAN interface, answering like the hardware.
// With --serve it also hosts the userspace CAN bus for that interface, so one command gives a
// working bus plus arm; without it, it joins an interface served elsewhere (a simbus hub, or a
// kernel vcan).
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kestrel/canbus/can_socket.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/hub.hpp"

namespace {

using kestrel::sim::SimulatedMotorBus;

constexpr const char* kUsage =
    R"(Usage: kestrel-sim [options]
Runs the arm's seven simulated DM motors (joints 1-3 type 3, joints 4-6 type 1, gripper
type 1; command ids 1..7, feedback ids 0x11..0x17) on a CAN interface.

  --interface NAME         CAN interface (default simcan0)
  --fd                     CAN FD socket: FD requests are answered with FD frames (refused
                           on an interface that is not CAN FD capable)
  --serve                  host the userspace CAN bus for NAME in this process
  --classic                with --serve: the interface carries classic CAN only (MTU 16),
                           like a vcan without 'mtu 72' or an adapter without 'fd on'
  --no-wire-time           with --serve: relay frames at once instead of at 1 Mbit/s
                           (5 Mbit/s FD data phase)
  --start-posture Q1,..,Q6[,G]
                           joint angles where the arm rests at power-on, rad (fewer values
                           leave the rest at 0), and the gripper motor angle G; the arm is
                           held there until its motors are first driven
  --plant rigid|simple     mechanics: the arm's rigid-body dynamics from the URDF under gravity
                           (default), or independent joints without gravity
  --payload KG[,X,Y,Z]     an extra point mass at the tool centre point (offset X,Y,Z m in the
                           tool frame) that the controller's configuration does not know about
  --silent ID              motor ID (1..7) never answers; repeatable
  --fault ID:CODE          motor ID reports status CODE (8 over-voltage, 9 under-voltage,
                           10 over-current, 11 MOS over-temperature, 12 coil
                           over-temperature, 13 communication lost, 14 overload) and applies
                           no torque; survives clear-error; repeatable
  --external-torque J:TAU  constant external torque TAU N*m on joint J (1..7); repeatable
  --drop-rate P            each reply is lost with probability P (0..1)
  --delay-us N             replies go out N microseconds after the request
  --telemetry              one line per second: frame rates each way, bus load on a
                           1 Mbit/s classic bus and on CAN FD at 1/5 Mbit/s, motor status
  --help                   this text
Stops cleanly on Ctrl-C (SIGINT) or SIGTERM.
)";

struct Options {
  std::string interface = "simcan0";
  bool fd = false;
  bool serve = false;
  bool classic = false;
  bool wire_time = true;
  std::vector<double> posture;
  std::string plant = "rigid";
  double payload_mass = 0.0;
  std::array<double, 3> payload_com{};
  std::vector<int> silent;
  std::vector<std::pair<int, int>> faults;
  std::vector<std::pair<int, double>> torques;
  double drop_rate = 0.0;
  long delay_us = 0;
  bool telemetry = false;
};

[[noreturn]] void usage_error(const std::string& message) {
  std::fprintf(stderr, "kestrel-sim: %s\nTry 'kestrel-sim --help'.\n", message.c_str());
  std::exit(2);
}

double parse_double(const std::string& text, const std::string& what) {
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0) {
    usage_error("invalid " + what + ": '" + text + "'");
  }
  return v;
}

int parse_int(const std::string& text, const std::string& what, int lo, int hi) {
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno != 0 || v < lo || v > hi) {
    usage_error("invalid " + what + ": '" + text + "' (expected " + std::to_string(lo) + ".." +
                std::to_string(hi) + ")");
  }
  return static_cast<int>(v);
}

std::pair<std::string, std::string> split_pair(const std::string& text, const std::string& what) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    usage_error(what + " needs the form A:B, got '" + text + "'");
  }
  return {text.substr(0, colon), text.substr(colon + 1)};
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        usage_error(arg + " needs a value");
      }
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--interface") {
      o.interface = value();
    } else if (arg == "--fd") {
      o.fd = true;
    } else if (arg == "--serve") {
      o.serve = true;
    } else if (arg == "--classic") {
      o.classic = true;
    } else if (arg == "--no-wire-time") {
      o.wire_time = false;
    } else if (arg == "--start-posture") {
      std::stringstream list(value());
      std::string item;
      while (std::getline(list, item, ',')) {
        o.posture.push_back(parse_double(item, "start posture value"));
      }
      if (o.posture.size() > 7) {
        usage_error("--start-posture takes at most 7 values");
      }
    } else if (arg == "--plant") {
      o.plant = value();
      if (o.plant != "rigid" && o.plant != "simple") {
        usage_error("--plant must be 'rigid' or 'simple'");
      }
    } else if (arg == "--payload") {
      std::stringstream list(value());
      std::string item;
      std::vector<double> values;
      while (std::getline(list, item, ',')) {
        values.push_back(parse_double(item, "payload value"));
      }
      if ((values.size() != 1 && values.size() != 4) || values[0] < 0.0) {
        usage_error("--payload takes KG or KG,X,Y,Z with KG >= 0");
      }
      o.payload_mass = values[0];
      for (size_t k = 1; k < values.size(); ++k) {
        o.payload_com[k - 1] = values[k];
      }
    } else if (arg == "--silent") {
      o.silent.push_back(parse_int(value(), "motor id", 1, 7));
    } else if (arg == "--fault") {
      auto [id, code] = split_pair(value(), "--fault");
      o.faults.emplace_back(parse_int(id, "motor id", 1, 7), parse_int(code, "status code", 8, 14));
    } else if (arg == "--external-torque") {
      auto [joint, tau] = split_pair(value(), "--external-torque");
      o.torques.emplace_back(parse_int(joint, "joint", 1, 7), parse_double(tau, "torque"));
    } else if (arg == "--drop-rate") {
      o.drop_rate = parse_double(value(), "drop rate");
      if (o.drop_rate < 0.0 || o.drop_rate > 1.0) {
        usage_error("--drop-rate must lie in 0..1");
      }
    } else if (arg == "--delay-us") {
      o.delay_us = parse_int(value(), "delay", 0, 10000000);
    } else if (arg == "--telemetry") {
      o.telemetry = true;
    } else {
      usage_error("unknown option '" + arg + "'");
    }
  }
  if (o.classic && !o.serve) {
    usage_error("--classic goes with --serve (an interface served elsewhere has its own MTU)");
  }
  return o;
}

std::string status_column(const SimulatedMotorBus& bus) {
  std::string s;
  for (const auto& m : bus.motor_states()) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%s%X", s.empty() ? "" : " ", m.status);
    s += buf;
  }
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);

  // Signals are taken synchronously by the main thread; every thread started below inherits
  // the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::unique_ptr<kestrel::simbus::Hub> hub;
  try {
    if (o.serve) {
      kestrel::simbus::HubOptions hub_options;
      hub_options.wire_time = o.wire_time;
      hub = std::make_unique<kestrel::simbus::Hub>(std::vector<std::string>{o.interface},
                                                   hub_options);
      if (o.classic) {
        hub->set_mtu(o.interface, CAN_MTU);
      }
      hub->start();
    }
    const std::string refusal = kestrel::canbus::canfd_refusal(o.interface, o.fd);
    if (!refusal.empty()) {
      throw std::runtime_error(refusal);
    }

    kestrel::sim::BusOptions options;
    options.interface = o.interface;
    options.fd = o.fd;
    std::unique_ptr<kestrel::sim::Plant> plant;
    std::vector<double> shaft_posture = o.posture;
    if (o.plant == "rigid") {
      kestrel::sim::RigidBodyArmOptions arm;
      for (size_t j = 0; j < o.posture.size() && j < 6; ++j) {
        arm.start_posture[j] = o.posture[j];
      }
      arm.gripper_start_angle = o.posture.size() > 6 ? o.posture[6] : 0.0;
      arm.payload_mass = o.payload_mass;
      arm.payload_com = Eigen::Vector3d(o.payload_com[0], o.payload_com[1], o.payload_com[2]);
      plant = kestrel::sim::RigidBodyArmPlant::from_shipped_configuration(arm);
      shaft_posture.clear();  // the plant starts there itself
    } else {
      // Independent joints: the joint angles become shaft angles through the motor signs.
      const auto signs = kestrel::controller::load_motor_signs_config();
      for (size_t j = 0; j < shaft_posture.size() && j < 6; ++j) {
        shaft_posture[j] *= signs[j];
      }
    }
    SimulatedMotorBus bus(kestrel::sim::arm_motor_configs(), options, std::move(plant));
    if (!shaft_posture.empty()) {
      bus.set_posture(shaft_posture);
    }
    for (int id : o.silent) {
      bus.set_silent(bus.index_of(id), true);
    }
    for (auto [id, code] : o.faults) {
      bus.inject_fault(bus.index_of(id), static_cast<uint8_t>(code), true);
    }
    for (auto [joint, tau] : o.torques) {
      bus.set_external_torque(static_cast<size_t>(joint - 1), tau);
    }
    bus.set_reply_drop_probability(o.drop_rate);
    bus.set_reply_delay(std::chrono::microseconds(o.delay_us));
    bus.start();

    std::fprintf(
        stderr, "kestrel-sim: 7 motors on %s (%s)%s%s. Ctrl-C to stop.\n", o.interface.c_str(),
        o.fd ? "CAN FD" : "classic CAN",
        o.serve ? (o.classic ? ", serving the bus (classic CAN only)" : ", serving the bus") : "",
        o.serve ? (o.wire_time ? " with wire time" : " without wire time") : "");
    if (hub) {
      std::fprintf(stderr, "kestrel-sim: bus directory %s (KESTREL_SIMBUS_DIR)\n",
                   hub->directory().c_str());
    }

    const struct timespec second = {1, 0};
    int sig;
    do {
      sig = sigtimedwait(&signals, nullptr, &second);
      if (sig < 0 && o.telemetry) {
        std::printf("%s  status %s\n", kestrel::sim::format_line(bus.telemetry()).c_str(),
                    status_column(bus).c_str());
        std::fflush(stdout);
      }
    } while (sig < 0 && (errno == EAGAIN || errno == EINTR));

    bus.stop();
    const auto physics = bus.physics_stats();
    std::fprintf(stderr, "kestrel-sim: stopped (physics %.0f Hz, %llu late steps)\n",
                 physics.rate_hz, static_cast<unsigned long long>(physics.late_steps));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kestrel-sim: %s\n", e.what());
    return 1;
  }
  if (hub) {
    hub->stop();
  }
  return 0;
}
