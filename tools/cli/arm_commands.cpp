// status, move, run, gravity and record: the subcommands that talk to the arm.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <thread>

#include "arm_session.hpp"
#include "arm_state_text.hpp"
#include "can_interface_probe.hpp"
#include "commands.hpp"
#include "cycle_csv.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/arm/gripper_component.hpp"
#include "kestrel/arm/kestrel.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "kestrel/damiao_motor/dm_motor_device.hpp"
#include "program_file.hpp"
#include "service_commands.hpp"

namespace kestrel::cli {

namespace {

namespace dm = kestrel::damiao_motor;
constexpr double kPi = 3.14159265358979323846;

void print_arm_state(ArmController& arm) {
  print_joints_and_pose(arm.get_joint(), arm.get_end_effector_pose());
}

// The stop signal turns a waiting motion's "motion stopped" into exit status 130.
int finish_stopped(const StopSignals& signals, const std::exception& e) {
  if (signals.requested()) {
    std::fprintf(stderr, "kestrel: stopped (%s)\n", e.what());
    return 130;
  }
  throw;
}

// Connects, lets Ctrl-C stop the arm while `body` runs, and turns a stop into status 130.
int with_arm(const Args& args, const std::function<int(ArmController&, StopSignals&)>& body) {
  const auto options = connection_options(args);
  StopSignals signals;
  auto arm = connect_arm(options, true);
  signals.attach(arm.get());
  int status = 0;
  try {
    status = body(*arm, signals);
  } catch (const std::runtime_error& e) {
    status = finish_stopped(signals, e);
  }
  signals.attach(nullptr);
  return signals.requested() && status == 0 ? 130 : status;
}

}  // namespace

int command_status(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel status [--watch] [connection options]\n"
      "Reads every motor once (a refresh request: nothing is enabled or moved) and prints joint\n"
      "positions, velocities, torques, temperatures and status codes, the gripper opening and the\n"
      "tool pose, and the frame writes the interface refused. --watch repeats twice a second\n"
      "until Ctrl-C. Exit status 1 when a motor does not answer or reports a fault.\n"
      "  --watch          keep reading until Ctrl-C\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {}, {"--watch"}, kHelp, args)) {
    return 0;
  }
  if (const auto service = running_service(args)) {
    return status_through_service(*service, args.flag("--watch"));
  }
  const auto options = connection_options(args);
  const std::string problem = kestrel::tools::probe_can_interface(options.interface, options.fd);
  if (!problem.empty()) {
    throw std::runtime_error(problem);
  }
  StopSignals signals;
  using T = dm::MotorType;
  kestrel::can::socket::Kestrel bus(options.interface, options.fd);
  bus.init_arm_motors(
      {T::DM_V8_T28, T::DM_V8_T28, T::DM_V8_T28, T::DM_V30_T10, T::DM_V30_T10, T::DM_V30_T10},
      {1, 2, 3, 4, 5, 6}, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16});
  if (options.gripper) {
    bus.init_gripper_motor(T::DM_V30_T10, 7, 0x17);
  }
  const auto signs = kestrel::controller::load_motor_signs_config();
  std::unique_ptr<RobotKinematics> model;
  without_stdout([&] { model = std::make_unique<RobotKinematics>(); });  // it prints its joints
  int status = 0;
  do {
    bus.refresh_all();
    bus.recv_all(20000);
    std::printf("%-8s %3s %9s %8s %9s %8s %5s %7s  %s\n", "motor", "id", "q rad", "q deg",
                "dq rad/s", "tau Nm", "MOS C", "rotor C", "status");
    auto motors = bus.get_arm().get_motors();
    if (options.gripper) {
      for (const auto& m : bus.get_gripper().get_motors()) {
        motors.push_back(m);
      }
    }
    int silent = 0;
    int faulty = 0;
    std::vector<double> q;
    for (size_t i = 0; i < motors.size(); ++i) {
      const auto& m = motors[i];
      const std::string name = i < 6 ? "joint " + std::to_string(i + 1) : "gripper";
      if (m.get_feedback_id() == 0) {
        std::printf("%-8s %3u  no answer\n", name.c_str(), m.get_send_id());
        ++silent;
        continue;
      }
      const double sign = i < 6 ? signs[i] : 1.0;
      const double position = m.get_position() * sign;
      if (i < 6) {
        q.push_back(position);
      }
      const int code = m.get_error_code();
      faulty += code >= 8 ? 1 : 0;  // 0x8 and above are the motor's fault codes
      std::printf("%-8s %3u %9.4f %8.2f %9.4f %8.3f %5d %7d  %X %s\n", name.c_str(),
                  m.get_send_id(), position, position * 180.0 / kPi, m.get_velocity() * sign,
                  m.get_torque() * sign, m.get_t_mos(), m.get_t_rotor(), code,
                  dm::dm_status_text(code));
      if (i == 6) {
        using kestrel::can::socket::GripperComponent;
        const double opening = GripperComponent::motor_angle_to_distance(m.get_position());
        std::printf("%-8s opening %.4f m of %.3f m\n", "", std::max(opening, 0.0),
                    GripperComponent::kMaxDistance);
      }
    }
    if (q.size() == 6) {
      std::printf("tool pose: %s\n", euler_text(model->forwardKinematics_kdl(q)).c_str());
    }
    std::printf("%zu of %zu motors answered%s\n", motors.size() - silent, motors.size(),
                faulty ? ", some report a fault (clear it: power-cycle or run a command that "
                         "enables the arm)"
                       : "");
    std::printf("CAN send failures: %s\n",
                kestrel::canbus::describe_send_failures(bus.get_socket().send_failures()).c_str());
    std::fflush(stdout);
    status = (silent || faulty) ? 1 : 0;
  } while (args.flag("--watch") && signals.sleep(0.5) && std::printf("\n") > 0);
  return status;
}

int command_move(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel move (--joints Q1,...,Q6 | --pose X,Y,Z,ROLL,PITCH,YAW [--linear])\n"
      "                    [--time S | --speed F] [--deg] [--gripper G] [connection options]\n"
      "Moves the arm from where it stands and waits until it has arrived; prints the end state.\n"
      "  --joints ...     joint target, rad (deg with --deg)\n"
      "  --pose ...       tool target in the base frame: metres, then roll/pitch/yaw about the\n"
      "                   fixed X, Y, Z axes in rad (deg with --deg); solved by inverse "
      "kinematics\n"
      "  --linear         with --pose: a straight tool line instead of a joint-space move\n"
      "  --time S         take S seconds\n"
      "  --speed F        fraction (0, 1] of the joint speed limits (default: configured default)\n"
      "  --gripper G      then set the gripper: 0 closed .. 1 open\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {"--joints", "--pose", "--time", "--speed", "--gripper"},
                        {"--deg", "--linear"}, kHelp, args)) {
    return 0;
  }
  if (args.has("--joints") == args.has("--pose")) {
    throw UsageError("give one target: --joints or --pose");
  }
  if (args.has("--time") && args.has("--speed")) {
    throw UsageError("give --time or --speed, not both");
  }
  if (args.flag("--linear") && !args.has("--pose")) {
    throw UsageError("--linear goes with --pose");
  }
  const double time = args.number("--time", 0.0, 0.01, 3600.0);
  const double speed = args.number("--speed", 0.0, 1e-3, 1.0);
  const double gripper = args.number("--gripper", -1.0, 0.0, 1.0);
  const double scale = args.flag("--deg") ? kPi / 180.0 : 1.0;
  std::vector<double> target = args.numbers(args.has("--joints") ? "--joints" : "--pose", 6);
  for (size_t i = args.has("--joints") ? 0 : 3; i < 6; ++i) {
    target[i] *= scale;
  }
  if (const auto service = running_service(args)) {
    const char* op = args.has("--joints")    ? "move_joint_waypoints"
                     : args.flag("--linear") ? "move_l"
                                             : "move_p";
    return move_through_service(*service, op, target, time, speed, gripper);
  }
  return with_arm(args, [&](ArmController& arm, StopSignals& signals) {
    double planned = 0.0;
    if (args.has("--joints")) {
      planned = arm.move_joint_waypoints({target}, time, speed);
    } else if (args.flag("--linear")) {
      planned = arm.move_l({target}, time, speed, 0.0);
    } else {
      planned = arm.move_p({target}, time, speed);
    }
    std::printf("moved in %.3f s (planned)\n", planned);
    if (gripper >= 0.0) {
      arm.setGripperPosition(gripper);
      signals.sleep(1.0);
    }
    print_arm_state(arm);
    return 0;
  });
}

int command_run(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel run FILE [--check] [connection options]\n"
      "Runs a motion program: a YAML file of steps (movej, movel, movep, sleep, gripper), read\n"
      "and checked whole before the arm moves. The format: docs/motion-programs.md.\n"
      "  --check          only read and check the file; no arm is needed\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {}, {"--check"}, kHelp, args)) {
    return 0;
  }
  if (args.positional().size() != 1) {
    throw UsageError("name one program file");
  }
  const Program program = load_program_file(args.positional()[0]);
  if (args.flag("--check")) {
    std::printf("%s: %zu steps, all well-formed\n", args.positional()[0].c_str(),
                program.steps.size());
    return 0;
  }
  if (const auto service = running_service(args)) {
    return run_through_service(*service, args.positional()[0]);
  }
  return with_arm(args, [&](ArmController& arm, StopSignals& signals) {
    const double planned = run_program(arm, program, [&] { return signals.requested(); });
    std::printf("program done: %zu steps, %.3f s of planned motion\n", program.steps.size(),
                planned);
    print_arm_state(arm);
    return 0;
  });
}

int command_gravity(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel gravity [--seconds S] [connection options]\n"
      "Floats the arm: the motors give only the torque that holds it against gravity, so it\n"
      "can be moved by hand. Ctrl-C (or the end of --seconds) holds it where it is and exits.\n"
      "MIT mode only. Support the arm before the motors are disabled at exit.\n"
      "  --seconds S      end by itself after S seconds\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {"--seconds"}, {}, kHelp, args)) {
    return 0;
  }
  const double seconds = args.number("--seconds", 0.0, 0.0, 86400.0);
  const auto options = connection_options(args);
  if (options.mode != MIT_MODE) {
    throw UsageError("gravity compensation needs --mode mit");
  }
  if (const auto service = running_service(args)) {
    return gravity_through_service(*service, seconds);
  }
  return with_arm(args, [&](ArmController& arm, StopSignals& signals) {
    arm.identify_gravity_compensation_kdl();
    std::printf("floating: move the arm by hand; Ctrl-C holds it and exits\n");
    const auto start = std::chrono::steady_clock::now();
    while (!signals.requested() && (seconds <= 0.0 || std::chrono::steady_clock::now() - start <
                                                          std::chrono::duration<double>(seconds))) {
      signals.sleep(std::min(1.0, seconds > 0.0 ? seconds : 1.0));
      print_arm_state(arm);
    }
    arm.stop();  // hold the posture it was left in
    return 0;
  });
}

int command_record(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel record [--output FILE] [--seconds S] [--program FILE] [connection options]\n"
      "Writes one CSV row per control cycle (400 Hz): time, command kind, then per joint the\n"
      "commanded position and velocity, the feed-forward torque, the measured position,\n"
      "velocity and torque, then the gripper's commanded and measured opening. It records\n"
      "while the arm holds still, or while it runs --program, until Ctrl-C or --seconds.\n"
      "  --output FILE    CSV file (default: standard output)\n"
      "  --seconds S      stop recording after S seconds\n"
      "  --program FILE   run this motion program while recording, stop when it ends\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {"--output", "--seconds", "--program"}, {}, kHelp, args)) {
    return 0;
  }
  const double seconds = args.number("--seconds", 0.0, 0.0, 86400.0);
  std::unique_ptr<Program> program;
  if (args.has("--program")) {
    program = std::make_unique<Program>(load_program_file(args.text("--program", "")));
  }
  std::ofstream file;
  if (args.has("--output")) {
    file.open(args.text("--output", ""));
    if (!file) {
      throw std::runtime_error("cannot write " + args.text("--output", ""));
    }
  }
  std::ostream& out = args.has("--output") ? file : std::cout;
  if (const auto service = running_service(args)) {
    return record_through_service(*service, out, seconds, args.text("--program", ""));
  }
  return with_arm(args, [&](ArmController& arm, StopSignals& signals) {
    std::atomic<bool> done{false};
    std::string program_error;
    std::thread runner;
    if (program) {
      runner = std::thread([&] {
        try {
          run_program(arm, *program, [&] { return signals.requested(); });
        } catch (const std::exception& e) {
          program_error = e.what();
        }
        done.store(true);
      });
    }
    out << kestrel::tools::cycle_csv_header() << "\n";
    const auto start = std::chrono::steady_clock::now();
    auto next = start;
    uint64_t last = 0;
    double t0 = -1.0;
    size_t rows = 0;
    while (!signals.requested() && !done.load() &&
           (seconds <= 0.0 ||
            std::chrono::steady_clock::now() - start < std::chrono::duration<double>(seconds))) {
      const auto c = arm.get_control_cycle_sample();
      if (c.cycle != last && c.cycle != 0) {
        last = c.cycle;
        t0 = t0 < 0.0 ? c.time_sec : t0;
        out << kestrel::tools::cycle_csv_row(c, t0) << "\n";
        ++rows;
      }
      next += std::chrono::microseconds(1250);  // twice the control rate: no cycle is missed
      std::this_thread::sleep_until(next);
    }
    if (runner.joinable()) {
      if (!done.load()) {
        arm.stop();
      }
      runner.join();
    }
    out.flush();
    std::fprintf(stderr, "kestrel record: %zu rows\n", rows);
    if (!program_error.empty() && !signals.requested()) {
      std::fprintf(stderr, "kestrel record: the program failed: %s\n", program_error.c_str());
      return 1;
    }
    return 0;
  });
}

}  // namespace kestrel::cli
