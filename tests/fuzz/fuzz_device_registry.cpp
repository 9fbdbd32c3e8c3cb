// The device registry's dispatch on arbitrary frames, into the seven DM devices of the arm on
// a classic and a CAN FD socket of a private userspace bus. A frame reaches only the device
// whose receive identifier equals its whole can_id, and only what that device's callback mode
// takes: feedback inside the motor's ranges in STATE, read replies in PARAM, nothing in IGNORE.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "fuzz_support.hpp"
#include "kestrel/canbus/can_device_collection.hpp"
#include "kestrel/damiao_motor/dm_motor_device.hpp"
#include "simbus/simbus_testing.hpp"

namespace {

namespace dm = kestrel::damiao_motor;
using kestrel::canbus::CANDeviceCollection;
using kestrel::canbus::CANSocket;

// A motor's state and its registers; a NaN register value equals a NaN.
struct Snapshot {
  std::vector<double> state;
  std::map<int, double> params;

  bool same_params(const Snapshot& o) const {
    return std::equal(
        params.begin(), params.end(), o.params.begin(), o.params.end(),
        [](const auto& a, const auto& b) {
          return a.first == b.first &&
                 (a.second == b.second || (std::isnan(a.second) && std::isnan(b.second)));
        });
  }
};

Snapshot snapshot(const dm::Motor& m) {
  return {{m.get_position(), m.get_velocity(), m.get_torque(), double(m.get_t_mos()),
           double(m.get_t_rotor()), double(m.get_feedback_id()), double(m.get_error_code())},
          m.get_params()};
}

// One registry per socket kind, each with the arm's seven motors. Built once per process.
struct Rig {
  kestrel::simbus::ScopedSimbus bus{{"can0"}};
  CANSocket classic_socket{"can0", false};
  CANSocket fd_socket{"can0", true};
  CANDeviceCollection classic{classic_socket};
  CANDeviceCollection fd{fd_socket};
  std::vector<std::unique_ptr<dm::Motor>> motors;  // 0..6 classic, 7..13 FD
  std::vector<std::shared_ptr<dm::DMCANDevice>> devices;

  Rig() {
    for (int kind = 0; kind < 2; ++kind) {
      for (unsigned id = 1; id <= 7; ++id) {
        const auto type = id <= 3 ? dm::MotorType::DM_V8_T28 : dm::MotorType::DM_V30_T10;
        motors.push_back(std::make_unique<dm::Motor>(type, id, 0x10 + id));
        devices.push_back(
            std::make_shared<dm::DMCANDevice>(*motors.back(), dm::PARAM_CAN_ID, kind == 1));
        (kind == 0 ? classic : fd).add_device(devices.back());
      }
    }
  }
};

void check_updated(const dm::Motor& m, const Snapshot& before, dm::CallbackMode mode) {
  const Snapshot after = snapshot(m);
  FUZZ_CHECK(mode == dm::CallbackMode::STATE || after.state == before.state);
  FUZZ_CHECK(mode == dm::CallbackMode::PARAM || after.same_params(before));
  FUZZ_CHECK(after.params.size() <= before.params.size() + 1);
  for (const auto& entry : after.params) {
    FUZZ_CHECK(entry.first >= 0 && entry.first <= 0xFF);
  }
  if (mode == dm::CallbackMode::STATE) {  // position, velocity, torque, then the integer fields
    const dm::LimitParam lim = dm::Motor::get_limit_param(m.get_motor_type());
    const double limits[] = {lim.p_max, lim.v_max, lim.t_max, 0xFF, 0xFF, 0xF, 0xF};
    for (size_t i = 0; i < after.state.size(); ++i) {
      FUZZ_CHECK(std::abs(after.state[i]) <= limits[i] && (i < 3 || after.state[i] >= 0));
    }
  }
}

}  // namespace

// Byte 0: callback mode of every device (two bits each for devices 1-4 and again for 5-7,
// wrapping); then frames, each 1 control byte (bit 0: FD registry, bit 1: FD frame), a 4-byte
// can_id (little-endian), 1 length byte and as much payload as is left, up to 8 or 64 bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Rig rig;
  if (size < 1) {
    return 0;
  }
  for (size_t i = 0; i < rig.devices.size(); ++i) {
    const unsigned bits = (data[0] >> (2 * (i % 4))) & 3u;
    rig.devices[i]->set_callback_mode(static_cast<dm::CallbackMode>(bits == 3 ? 0 : bits));
  }
  size_t at = 1;
  while (at + 6 <= size) {
    const uint8_t control = data[at];
    const uint32_t can_id =
        static_cast<uint32_t>(data[at + 1] | data[at + 2] << 8 | data[at + 3] << 16) |
        static_cast<uint32_t>(data[at + 4]) << 24;
    const uint8_t length = data[at + 5];
    at += 6;
    const bool fd_registry = (control & 1) != 0;
    const bool fd_frame = (control & 2) != 0;
    const size_t capacity = fd_frame ? CANFD_MAX_DLEN : CAN_MAX_DLEN;
    const size_t take = std::min(capacity, size - at);

    std::vector<Snapshot> before;
    for (const auto& m : rig.motors) {
      before.push_back(snapshot(*m));
    }
    CANDeviceCollection& registry = fd_registry ? rig.fd : rig.classic;
    // The length field as received, even when it lies.
    canfd_frame fd{};
    fd.len = length;
    can_frame classic{};
    classic.can_dlc = length;
    const auto dispatch = [&](auto frame) {
      frame.can_id = can_id;
      std::memcpy(frame.data, data + at, take);
      registry.dispatch_frame_callback(frame);
    };
    fd_frame ? dispatch(fd) : dispatch(classic);
    at += take;

    for (size_t i = 0; i < rig.motors.size(); ++i) {
      const dm::Motor& m = *rig.motors[i];
      // Only the addressed device of the dispatching registry, and only a frame of its kind.
      const bool addressed =
          m.get_recv_id() == can_id && (i >= 7) == fd_registry && fd_frame == fd_registry;
      check_updated(m, before[i],
                    addressed ? rig.devices[i]->get_callback_mode() : dm::CallbackMode::IGNORE);
    }
  }
  return 0;
}
