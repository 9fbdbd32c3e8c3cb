#include "request_dispatch.hpp"

#include <map>
#include <optional>

#include "control_lease.hpp"
#include "program_file.hpp"

namespace kestrel::service {

namespace {

using Vector = std::vector<double>;
using Vectors = std::vector<std::vector<double>>;

const json& field(const json& request, const char* name) {
  const auto at = request.find(name);
  if (at == request.end()) {
    throw BadRequest(std::string("missing field \"") + name + "\"");
  }
  return *at;
}

double number(const json& request, const char* name, std::optional<double> fallback = {}) {
  if (fallback && !request.contains(name)) {
    return *fallback;
  }
  const json& value = field(request, name);
  if (!value.is_number()) {
    throw BadRequest(std::string("field \"") + name + "\" must be a number");
  }
  return value.get<double>();
}

bool boolean(const json& request, const char* name, bool fallback) {
  if (!request.contains(name)) {
    return fallback;
  }
  const json& value = request[name];
  if (!value.is_boolean()) {
    throw BadRequest(std::string("field \"") + name + "\" must be true or false");
  }
  return value.get<bool>();
}

Vector numbers_of(const json& value, const std::string& name) {
  if (!value.is_array()) {
    throw BadRequest("field \"" + name + "\" must be an array of numbers");
  }
  Vector out;
  for (const auto& v : value) {
    if (!v.is_number()) {
      throw BadRequest("field \"" + name + "\" must be an array of numbers");
    }
    out.push_back(v.get<double>());
  }
  return out;
}

// Sizes are left to the library, which names them in its own messages.
Vector vector(const json& request, const char* name, bool optional = false) {
  if (optional && !request.contains(name)) {
    return {};
  }
  return numbers_of(field(request, name), name);
}

Vectors vectors(const json& request, const char* name) {
  const json& value = field(request, name);
  if (!value.is_array()) {
    throw BadRequest(std::string("field \"") + name + "\" must be an array of arrays of numbers");
  }
  Vectors out;
  for (const auto& row : value) {
    out.push_back(numbers_of(row, name));
  }
  return out;
}

std::string text(const json& request, const char* name) {
  const json& value = field(request, name);
  if (!value.is_string()) {
    throw BadRequest(std::string("field \"") + name + "\" must be a string");
  }
  return value.get<std::string>();
}

json planned(double seconds) {
  return json{{"planned_sec", seconds}};
}

const json kDone = json::object();

void require_gripper(const ArmFacts& facts) {
  if (!facts.gripper) {
    throw std::invalid_argument("this arm service runs without a gripper (--no-gripper)");
  }
}

json move_joint_waypoints(ArmController& arm, const ArmFacts&, const json& r) {
  const double time = number(r, "time_sec", 0.0);
  const double speed = number(r, "speed_percent", 0.0);
  if (r.contains("gripper_positions")) {
    return planned(arm.move_joint_waypoints_with_gripper(
        vectors(r, "waypoints"), vector(r, "gripper_positions"), time, speed));
  }
  return planned(arm.move_joint_waypoints(vectors(r, "waypoints"), time, speed));
}

json update_chunk(ArmController& arm, const ArmFacts&, const json& r) {
  const double time = number(r, "time_sec", 0.0);
  const double speed = number(r, "speed_percent", 0.0);
  const double delay = number(r, "switch_delay_sec", 0.0);
  if (r.contains("gripper_positions")) {
    return planned(arm.update_joint_waypoint_chunk_with_gripper(
        vectors(r, "waypoints"), vector(r, "gripper_positions"), time, speed, delay));
  }
  return planned(arm.update_joint_waypoint_chunk(vectors(r, "waypoints"), time, speed, delay));
}

json move_p(ArmController& arm, const ArmFacts&, const json& r) {
  const double time = number(r, "time_sec", 0.0);
  const double speed = number(r, "speed_percent", 0.0);
  if (r.contains("gripper_positions")) {
    return planned(
        arm.move_p_with_gripper(vectors(r, "poses"), vector(r, "gripper_positions"), time, speed));
  }
  return planned(arm.move_p(vectors(r, "poses"), time, speed));
}

json run_program(ArmController& arm, const ArmFacts&, const json& r) {
  if (r.contains("file") == r.contains("text")) {
    throw BadRequest("give the program as \"file\" (a path the service can read) or \"text\"");
  }
  const cli::Program program =
      r.contains("file") ? cli::load_program_file(text(r, "file"))
                         : cli::parse_program(text(r, "text"), r.value("name", "program"));
  // A stop() ends the running motion with "motion stopped"; later steps never start.
  const double seconds = cli::run_program(arm, program, [] { return false; });
  return json{{"planned_sec", seconds}, {"steps", program.steps.size()}};
}

json ik_answer(const std::pair<std::vector<double>, bool>& answer) {
  return json{{"q", answer.first}, {"success", answer.second}};
}

json solve_ik(ArmController& arm, const ArmFacts&, const json& r) {
  return ik_answer(arm.solve_ik(vector(r, "pos"), vector(r, "euler"), vector(r, "q_seed", true)));
}

json solve_ik_nearest(ArmController& arm, const ArmFacts&, const json& r) {
  return ik_answer(
      arm.solve_ik_nearest(vector(r, "pos"), vector(r, "euler"), vector(r, "q_seed", true)));
}

json gravity(ArmController& arm, const ArmFacts& facts, const json& r) {
  if (!boolean(r, "on", true)) {
    arm.stop();  // hold the posture the arm was left in
    return kDone;
  }
  if (!facts.mit_mode) {
    throw std::invalid_argument("gravity compensation needs the motors in MIT mode");
  }
  arm.identify_gravity_compensation_kdl();
  return kDone;
}

const std::map<std::string, ArmOperation>& operations() {
  static const std::map<std::string, ArmOperation> table = {
      {"stop",
       {false, false,
        [](ArmController& arm, const ArmFacts&, const json&) {
          arm.stop();
          return kDone;
        }}},
      {"solve_ik", {false, false, solve_ik}},
      {"solve_ik_nearest", {false, false, solve_ik_nearest}},
      {"set_joint",
       {true, false,
        [](ArmController& arm, const ArmFacts&, const json& r) {
          arm.set_joint(vector(r, "q"), number(r, "time_sec"));
          return kDone;
        }}},
      {"set_joint_raw",
       {true, false,
        [](ArmController& arm, const ArmFacts&, const json& r) {
          arm.set_joint_raw(vector(r, "q"), vector(r, "v"));
          return kDone;
        }}},
      {"open_gripper",
       {true, false,
        [](ArmController& arm, const ArmFacts& f, const json&) {
          require_gripper(f);
          arm.openGripper();
          return kDone;
        }}},
      {"close_gripper",
       {true, false,
        [](ArmController& arm, const ArmFacts& f, const json&) {
          require_gripper(f);
          arm.closeGripper();
          return kDone;
        }}},
      {"set_gripper_position",
       {true, false,
        [](ArmController& arm, const ArmFacts& f, const json& r) {
          require_gripper(f);
          arm.setGripperPosition(number(r, "position"));
          return kDone;
        }}},
      {"set_gripper_distance",
       {true, false,
        [](ArmController& arm, const ArmFacts& f, const json& r) {
          require_gripper(f);
          if (r.contains("kp") || r.contains("kd")) {
            arm.setGripperDistance(number(r, "distance"), number(r, "kp", 8.0),
                                   number(r, "kd", 0.1));
          } else {
            arm.setGripperDistance(number(r, "distance"));
          }
          return kDone;
        }}},
      {"set_end_effector_pose",
       {true, false,
        [](ArmController& arm, const ArmFacts&, const json& r) {
          arm.set_end_effector_pose(vector(r, "pos"), vector(r, "euler"), number(r, "time_sec"));
          return kDone;
        }}},
      {"set_end_effector_pose_raw",
       {true, false,
        [](ArmController& arm, const ArmFacts&, const json& r) {
          arm.set_end_effector_pose_raw(vector(r, "pos"), vector(r, "euler"));
          return kDone;
        }}},
      {"gravity_compensation", {true, false, gravity}},
      {"move_joint_waypoints", {true, true, move_joint_waypoints}},
      {"update_joint_waypoint_chunk", {true, false, update_chunk}},
      {"move_pose_waypoints",
       {true, true,
        [](ArmController& arm, const ArmFacts&, const json& r) {
          return planned(arm.move_pose_waypoints(
              vectors(r, "poses"), number(r, "time_sec", 0.0), number(r, "speed_percent", 0.0),
              boolean(r, "linear", true), number(r, "blend_radius_m", 0.002)));
        }}},
      {"move_l",
       {true, true,
        [](ArmController& arm, const ArmFacts&, const json& r) {
          return planned(arm.move_l(vectors(r, "poses"), number(r, "time_sec", 0.0),
                                    number(r, "speed_percent", 0.0),
                                    number(r, "blend_radius_m", 0.002)));
        }}},
      {"move_p", {true, true, move_p}},
      {"run_program", {true, true, run_program}},
  };
  return table;
}

}  // namespace

const ArmOperation* find_arm_operation(const std::string& op) {
  const auto at = operations().find(op);
  return at == operations().end() ? nullptr : &at->second;
}

json success_reply(const json& id, json result) {
  return json{{"id", id}, {"ok", true}, {"result", std::move(result)}};
}

json error_reply(const json& id, const std::string& type, const std::string& message) {
  return json{{"id", id}, {"ok", false}, {"error", {{"type", type}, {"message", message}}}};
}

json current_exception_reply(const json& id) {
  try {
    throw;
  } catch (const BadRequest& e) {
    return error_reply(id, "bad_request", e.what());
  } catch (const json::exception& e) {
    return error_reply(id, "bad_request", e.what());
  } catch (const ControlRefused& e) {
    return error_reply(id, "no_control", e.what());
  } catch (const std::invalid_argument& e) {
    return error_reply(id, "invalid_argument", e.what());
  } catch (const std::out_of_range& e) {
    return error_reply(id, "out_of_range", e.what());
  } catch (const std::logic_error& e) {
    return error_reply(id, "logic_error", e.what());
  } catch (const std::runtime_error& e) {
    return error_reply(id, "runtime_error", e.what());
  } catch (const std::exception& e) {
    return error_reply(id, "exception", e.what());
  }
}

}  // namespace kestrel::service
