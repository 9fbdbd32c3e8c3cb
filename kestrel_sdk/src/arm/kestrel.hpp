// The arm's hardware facade: owns the socket, the bus-wide device registry and the two motor
// groups, forwards group commands to every registered group, and drains the bus.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kestrel/arm/arm_component.hpp"
#include "kestrel/arm/gripper_component.hpp"
#include "kestrel/canbus/can_device_collection.hpp"
#include "kestrel/canbus/can_socket.hpp"

namespace kestrel::can::socket {

class Kestrel {
 public:
  // Opens the socket (CANSocketException on failure); no motor exists yet, nothing is sent.
  Kestrel(const std::string& interface_name, bool canfd);
  // Sends nothing: destroying the facade does not disable the motors.
  ~Kestrel();

  Kestrel(const Kestrel&) = delete;
  Kestrel& operator=(const Kestrel&) = delete;

  void init_arm_motors(const std::vector<damiao_motor::MotorType>& types,
                       const std::vector<unsigned int>& send_ids,
                       const std::vector<unsigned int>& recv_ids);
  void init_gripper_motor(damiao_motor::MotorType type, unsigned int send_id, unsigned int recv_id);
  // Copies the group's devices into the bus-wide registry and forwards commands to the group.
  // Registering a group twice makes every forwarded command reach it twice.
  void register_dm_device_collection(damiao_motor::DMDeviceCollection& group);

  // Takes in every queued frame and returns once timeout_us microseconds pass with no new frame
  // (or on the first read error). Blocks at least timeout_us.
  void recv_all(int timeout_us);

  // Forwarded to every registered group, in registration order (arm before gripper).
  void enable_all();
  void disable_all();
  void set_zero_all();
  void refresh_all();
  void set_timeout_all(unsigned int t);
  void switch_all_motors_mode(int mode);
  void query_param_all(int rid);
  void query_acc_all();
  void query_dec_all();
  void query_kp_apr_all();
  void set_acc_all(const std::vector<float>& values);
  void set_dec_all(const std::vector<float>& values);
  void set_kp_apr_all(const std::vector<float>& values);
  void set_callback_mode_all(damiao_motor::CallbackMode mode);

  ArmComponent& get_arm() const { return *arm; }
  GripperComponent& get_gripper() const { return *gripper; }
  canbus::CANSocket& get_socket() const { return *socket; }
  const std::string& get_interface_name() const { return interface_name; }
  bool is_canfd() const { return canfd; }

 private:
  template <typename Fn>
  void for_each_group(Fn&& fn);

  std::string interface_name;
  bool canfd;
  std::unique_ptr<canbus::CANSocket> socket;
  std::unique_ptr<ArmComponent> arm;
  std::unique_ptr<GripperComponent> gripper;
  std::unique_ptr<canbus::CANDeviceCollection> dispatcher;
  std::vector<damiao_motor::DMDeviceCollection*> collections;
};

}  // namespace kestrel::can::socket
