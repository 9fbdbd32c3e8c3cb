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
// Refusals are std::invalid_argument, thrown before any frame of the call is sent:
//   an index outside 0..count-1
//     "mit_control_one: motor index 6 is out of range for a group of 6 motors";
//   a vector with more entries than the group has motors
//     "mit_control_all: 7 commands for a group of 6 motors",
//     "set_acc_all: 8 values for a group of 6 motors";
//   a NaN or infinite command field or float register value
//     "mit_control_all: motor 2 q must be finite, got nan",
//     "set_acc_one: motor 0 register 4 value must be finite, got inf".
// A vector with fewer entries than motors pairs entry i with motor i and sends nothing to the
// motors past its end.
//
// The group keeps its DM devices in a list of its own, rebuilt whenever its registry gains or
// loses a device. Devices are added and removed only during set-up, before a control thread
// runs: the list is then read without a lock, and a change would move it under a reader. Once
// set up, every command member, send_encoded and reading motors through dm_devices() allocate
// nothing; get_dm_devices() and get_motors() still return copies.
class DMDeviceCollection {
 public:
  explicit DMDeviceCollection(canbus::CANSocket& socket);
  virtual ~DMDeviceCollection();

  DMDeviceCollection(const DMDeviceCollection&) = delete;
  DMDeviceCollection& operator=(const DMDeviceCollection&) = delete;

  std::vector<std::shared_ptr<DMCANDevice>> get_dm_devices() const;
  // The same devices in the same order, without a copy: the group's own list.
  const std::vector<std::shared_ptr<DMCANDevice>>& dm_devices() const { return dm_device_list; }
  std::vector<Motor> get_motors() const;
  // The frame type follows the socket's FD flag, not the device's.
  bool send_command_to_device(std::shared_ptr<DMCANDevice> device, const CANPacket& packet);
  // Writes one encoded frame as send_command_to_device writes a packet (classic or FD by the
  // socket's flag, the same bytes), without allocating. Returns the writer's result.
  bool send_encoded(const EncodedFrame& frame);

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
  void write_param_all(int rid, const std::vector<float>& values);
  void write_param_all(int rid, const std::vector<unsigned int>& values);
  void set_acc_all(const std::vector<float>& values);
  void set_dec_all(const std::vector<float>& values);
  void set_kp_apr_all(const std::vector<float>& values);
  // Writes t into every motor of the group up to the seventh; an eighth motor gets none.
  void set_timeout_all(unsigned int t);
  void switch_all_motors_mode(int mode);

  void mit_control_one(int index, const MITParam& param);
  void mit_control_all(const std::vector<MITParam>& params);
  void pos_vel_control_one(int index, const POS_VELParam& param);
  void pos_vel_control_all(const std::vector<POS_VELParam>& params);

  // The encoding half of mit_control_one / pos_vel_control_one (which send exactly these frames):
  // the same checks with the same messages, nothing sent, nothing allocated. A control loop
  // encodes every frame of its cycle first, then writes them back to back with send_encoded.
  EncodedFrame encode_mit_one(int index, const MITParam& param) const;
  EncodedFrame encode_pos_vel_one(int index, const POS_VELParam& param) const;

  void set_callback_mode_all(CallbackMode mode);

  canbus::CANDeviceCollection& get_device_collection() const { return *device_collection; }
  canbus::CANSocket& get_socket() const { return socket; }

 private:
  template <typename Encode>
  void send_to_all(Encode encode);
  const DMCANDevice& device_at(int index, const char* operation) const;
  void rebuild_dm_device_list();
  template <typename Value>
  void write_one(const char* operation, int index, int rid, Value value);
  template <typename Value>
  void write_all(const char* operation, int rid, const std::vector<Value>& values);

  canbus::CANSocket& socket;
  std::unique_ptr<CanPacketEncoder> encoder;
  std::unique_ptr<CanPacketDecoder> decoder;
  std::unique_ptr<canbus::CANDeviceCollection> device_collection;
  // The DM devices of device_collection in its key order; see rebuild_dm_device_list.
  std::vector<std::shared_ptr<DMCANDevice>> dm_device_list;
};

}  // namespace kestrel::damiao_motor
