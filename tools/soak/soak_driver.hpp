// Random motions on one ArmController, for as long as it runs: the campaign's two generators
// drive it from two user threads, as a program would. The motion thread issues one motion after
// another, each from standstill (the shipped configuration starts a motion from the measured
// joints at rest); the interruption thread stops, drives the gripper, reads the state and tries
// bad arguments at random moments, and hands its chunk updates to the motion thread, which runs
// them from standstill too.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "campaign/command_generator.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/controller/interfaces.hpp"

namespace kestrel::soak {

class SoakDriver {
 public:
  // The model gives the generators' forward kinematics; it outlives the driver.
  SoakDriver(const std::string& interface, uint64_t seed, const campaign::PlannerLimits& limits,
             RobotKinematics& model);
  ~SoakDriver();  // finish() if not done yet
  SoakDriver(const SoakDriver&) = delete;
  SoakDriver& operator=(const SoakDriver&) = delete;

  // Makes the controller and starts both threads once it publishes its joints; false (and
  // nothing running) when it does not within 5 s.
  bool start();
  // The controller ended by itself: an emergency stop, or its loop stopped.
  bool ended() const;
  ArmController& arm();
  uint64_t take_calls();  // calls returned since the last take
  // A call that has run far past its bound ("" while none has): its C++ text.
  std::string overdue() const;
  // Ends both threads and releases the controller. False when a call did not return within
  // `timeout_sec` of being told to end: then the threads and the controller are left behind
  // (nothing they use may be destroyed) and the process must end.
  bool finish(double timeout_sec);

 private:
  struct Session;
  std::string interface_;
  uint64_t seed_;
  campaign::PlannerLimits limits_;
  RobotKinematics& model_;
  std::shared_ptr<Session> session_;
};

}  // namespace kestrel::soak
