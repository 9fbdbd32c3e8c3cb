// Base of everything on the bus that wants the frames addressed to it.
#pragma once

#include <linux/can.h>

#include <cstdint>

namespace kestrel::canbus {

class CANDevice {
 public:
  CANDevice(uint32_t send_id, uint32_t recv_id, uint32_t param_can_id, bool canfd)
      : send_id(send_id), recv_id(recv_id), param_can_id(param_can_id), canfd(canfd) {}
  virtual ~CANDevice() = default;

  // Handle one frame whose identifier equals this device's receive identifier.
  virtual void callback(const can_frame& frame) = 0;
  virtual void callback(const canfd_frame& frame) = 0;

  uint32_t get_send_id() const { return send_id; }
  // The identifier this device's own frames carry on the bus: the registry key.
  uint32_t get_recv_id() const { return recv_id; }
  uint32_t get_param_can_id() const { return param_can_id; }
  bool is_canfd() const { return canfd; }

 protected:
  uint32_t send_id;
  uint32_t recv_id;
  uint32_t param_can_id;
  bool canfd;
};

}  // namespace kestrel::canbus
