// ScopedSimbus: a private userspace CAN bus for the lifetime of one object (tests).
//
// The constructor makes a fresh directory (mkdtemp under $TMPDIR or /tmp), points
// KESTREL_SIMBUS_DIR at it and starts an in-process hub serving the given interfaces, all up.
// From then on every SocketCAN call of the process (the SDK's CANSocket, the simulator, the
// test's own sockets) sees those interfaces, provided the test is linked with the interposer
// (kestrel_add_test(... SIMBUS)). The destructor stops the hub, removes the directory and
// restores KESTREL_SIMBUS_DIR to what it was.
//
//   #include "simbus/simbus_testing.hpp"
//
//   TEST(Motor, AnswersEnable) {
//     kestrel::simbus::ScopedSimbus bus({"can0"});
//     kestrel::canbus::CANSocket socket("can0", false);  // works: can0 is served
//     bus.set_up("can0", false);                         // `ip link set can0 down`
//     bus.set_mtu("can0", CAN_MTU);                      // classic only (while down)
//     EXPECT_EQ(bus.statistics("can0").frames_relayed, 0u);
//   }
//
// Options (wire-time pacing, bit rates) go in the second argument; its `directory` field is
// ignored. Construct and destroy it while no other thread of the test is opening CAN sockets:
// changing the environment is not thread-safe. Link the target with `kestrel_simbus`.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simbus/hub.hpp"

namespace kestrel::simbus {

class ScopedSimbus {
 public:
  explicit ScopedSimbus(std::vector<std::string> interfaces = {"can0"}, HubOptions options = {});
  ~ScopedSimbus();

  ScopedSimbus(const ScopedSimbus&) = delete;
  ScopedSimbus& operator=(const ScopedSimbus&) = delete;

  Hub& hub() { return *hub_; }
  const std::string& directory() const { return hub_->directory(); }

  // Shorthands for the hub's own calls.
  void set_up(const std::string& interface, bool up) { hub_->set_up(interface, up); }
  void set_mtu(const std::string& interface, int mtu) { hub_->set_mtu(interface, mtu); }
  InterfaceStatistics statistics(const std::string& interface) const {
    return hub_->statistics(interface);
  }

 private:
  std::optional<std::string> previous_dir_;
  std::unique_ptr<Hub> hub_;
};

}  // namespace kestrel::simbus
