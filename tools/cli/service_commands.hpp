// status, move, run, gravity and record through a running arm service: when `kestrel serve`
// holds the arm on the command's interface, the command becomes its client (and says so)
// instead of opening the bus. Ctrl-C sends the service a stop; the arm holds.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "cli_args.hpp"

namespace kestrel::cli {

// The socket of the service for the interface named in `args`, announced on standard error;
// nullopt when none runs.
std::optional<std::string> running_service(const Args& args);

int status_through_service(const std::string& socket, bool watch);
// op: move_joint_waypoints (target = joints), move_l or move_p (target = pose); gripper < 0:
// leave the gripper alone.
int move_through_service(const std::string& socket, const std::string& op,
                         const std::vector<double>& target, double time, double speed,
                         double gripper);
int run_through_service(const std::string& socket, const std::string& program_path);
int gravity_through_service(const std::string& socket, double seconds);
// program_path empty: record while the arm holds.
int record_through_service(const std::string& socket, std::ostream& out, double seconds,
                           const std::string& program_path);

}  // namespace kestrel::cli
