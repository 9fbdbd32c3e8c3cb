// A group of DM motors on one socket, commanded together: every motor command for one motor by
// index and for the whole group. It only sends; replies come back through the facade's receive
// loop into the devices.
#pragma once

#include <memory>
#include <vector>

#include "kestrel/canbus/can_device_collection.hpp"
#include "kestrel/canbus/can_socket.hpp"
#include "kestrel/damiao_motor/dm_motor_codec.hpp"
#include "kestrel/damiao_motor/dm_motor_control.hpp"
#include "kestrel/damiao_motor/dm_motor_device.hpp"

namespace kestrel::damiao_motor {

// Device i and value i always mean the i-th device in ascending receive identifier.
class DMDeviceCollection {
 public:
  explicit DMDeviceCollection(canbus::CANSocket& socket);
  virtual ~DMDeviceCollection();

  DMDeviceCollection(const DMDeviceCollection&) = delete;
  DMDeviceCollection& operator=(const DMDeviceCollection&) = delete;

  std::vector<std::shared_ptr<DMCANDevice>> get_dm_devices() const;
  std::vector<Motor> get_motors() const;
  // The frame type follows the socket's FD flag, not the device's.
  bool send_command_to_device(std::shared_ptr<DMCANDevice> device, const CANPacket& packet);

  void enable_all();
  void disable_all();
  void set_zero_all();
  void clrErr_all();
  void refresh_one(int index);
  void refresh_all();

  void query_param_one(int index, int rid);
  void query_param_all(int rid);
  void query_acc_all();
  void query_dec_all();
  void query_kp_apr_all();

  void write_param_one(int index, int rid, unsigned int value);
  void write_param_one(int index, int rid, float value);
  void set_acc_one(int index, float value);
  void set_dec_one(int index, float value);
  void set_kp_apr_one(int index, float value);
  // Pairs value i with device i for i below the smaller count; surplus entries are left alone.
  void write_param_all(int rid, const std::vector<float>& values);
  void write_param_all(int rid, const std::vector<unsigned int>& values);
  void set_acc_all(const std::vector<float>& values);
  void set_dec_all(const std::vector<float>& values);
  void set_kp_apr_all(const std::vector<float>& values);
  // Writes seven copies of t, so it reaches at most seven motors of a group.
  void set_timeout_all(unsigned int t);
  void switch_all_motors_mode(int mode);

  // Indexes are not range-checked: they must lie in 0..count-1, and the vectors of the
  // *_control_all members must not be longer than the group.
  void mit_control_one(int index, const MITParam& param);
  void mit_control_all(const std::vector<MITParam>& params);
  void pos_vel_control_one(int index, const POS_VELParam& param);
  void pos_vel_control_all(const std::vector<POS_VELParam>& params);

  void set_callback_mode_all(CallbackMode mode);

  canbus::CANDeviceCollection& get_device_collection() const { return *device_collection; }
  canbus::CANSocket& get_socket() const { return socket; }

 private:
  template <typename MakePacket>
  void send_to_all(MakePacket make_packet);

  canbus::CANSocket& socket;
  std::unique_ptr<CanPacketEncoder> encoder;
  std::unique_ptr<CanPacketDecoder> decoder;
  std::unique_ptr<canbus::CANDeviceCollection> device_collection;
};

}  // namespace kestrel::damiao_motor
