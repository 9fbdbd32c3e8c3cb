#include "soak/soak_driver.hpp"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "campaign/call_checker.hpp"
#include "campaign/user_thread.hpp"

namespace kestrel::soak {

namespace {

using Clock = std::chrono::steady_clock;
using campaign::Call;
using campaign::Expectation;
using campaign::lower_this_thread_priority;
using campaign::MotionSpace;
using campaign::pose_with_rpy;
using campaign::Posture;
using namespace std::chrono_literals;

// A call still running this long after its bound is taken to never return.
constexpr double kHangAfterBoundSec = 30.0;

double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

bool starts_with(const std::string& s, const char* prefix) {
  return s.rfind(prefix, 0) == 0;
}

}  // namespace

// Everything both user threads share, held by shared pointers: threads left behind by a call
// that never returned keep it alive.
struct SoakDriver::Session {
  std::unique_ptr<ArmController> arm;
  RobotKinematics* model = nullptr;
  campaign::PlannerLimits limits;
  uint64_t seed = 0;

  std::mutex mutex;
  std::condition_variable changed;
  bool quit = false;
  int threads_done = 0;
  uint64_t stops = 0;         // stop() calls returned so far
  uint64_t calls = 0;         // returned since the last take
  std::optional<Call> chunk;  // a chunk update handed to the motion thread
  struct InFlight {
    bool active = false;
    Clock::time_point start;
    double limit = 0.0;
    std::string text;
  };
  InFlight in_flight[2];  // motion thread, interruption thread
  std::thread motions_thread;
  std::thread interruptions_thread;

  campaign::ArmView view() {
    return campaign::ArmView{
        [this] {
          auto q = arm->get_joint();
          return q.size() == 6 ? q : MotionSpace::home();
        },
        [this](const Posture& q) { return pose_with_rpy(model->forwardKinematics_kdl(q)); },
        [this] {
          const auto pose = arm->get_end_effector_pose();
          return pose.size() == 7
                     ? pose_with_rpy(pose)
                     : pose_with_rpy(model->forwardKinematics_kdl(MotionSpace::home()));
        }};
  }

  bool live() const { return arm->running() && !arm->emergency_stopped(); }

  // Runs the call; its value, or nothing when it threw (refusals and interruptions are part of
  // the run: the soak watches the process, the campaign judges the outcomes).
  std::optional<double> execute(int slot, Call call) {
    const double bound = call.blocking ? call.expected_duration + campaign::kBlockingSlack
                                       : campaign::kNonBlockingBound;
    {
      std::lock_guard<std::mutex> lock(mutex);
      in_flight[slot] = {true, Clock::now(), bound + kHangAfterBoundSec, call.text};
    }
    std::optional<double> value;
    try {
      value = call.run(*arm);
    } catch (const std::exception&) {
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      in_flight[slot].active = false;
      ++calls;
      if (call.kind == "stop" && value) {
        ++stops;
      }
    }
    changed.notify_all();
    return value;
  }

  // Sleeps `sec`; returns early when told to end or when `until` holds (checked under the mutex).
  template <typename Predicate>
  void wait(double sec, Predicate until) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::duration<double>(sec), [&] { return quit || until(); });
  }

  bool quitting() {
    std::lock_guard<std::mutex> lock(mutex);
    return quit;
  }

  // The commanded velocity is zero on every joint, twice 5 ms apart (or 10 s have passed).
  void wait_for_standstill() {
    auto at_rest = [this] {
      const auto sample = arm->get_control_cycle_sample();
      return std::all_of(sample.commanded_velocity.begin(), sample.commanded_velocity.end(),
                         [](double v) { return std::abs(v) < 1e-9; });
    };
    const auto deadline = Clock::now() + 10s;
    while (Clock::now() < deadline && !quitting() && live()) {
      if (at_rest()) {
        std::this_thread::sleep_for(5ms);
        if (at_rest()) {
          return;
        }
      }
      std::this_thread::sleep_for(5ms);
    }
  }

  void motions() {
    lower_this_thread_priority();
    campaign::MotionGenerator generator(seed, limits, view());
    while (!quitting() && live()) {
      wait_for_standstill();
      std::optional<Call> handed;
      {
        std::lock_guard<std::mutex> lock(mutex);
        handed.swap(chunk);
      }
      const bool is_chunk = handed.has_value();
      Call call = is_chunk ? std::move(*handed) : generator.next();
      const double switch_delay = call.switch_delay;
      const double set_joint_time = call.expected_duration;
      const bool is_set_joint = starts_with(call.kind, "set_joint");
      uint64_t stops_before;
      {
        std::lock_guard<std::mutex> lock(mutex);
        stops_before = stops;
      }
      const std::optional<double> value = execute(0, std::move(call));
      // Neither set_joint nor a chunk waits for its motion: the program waits its time, or
      // until stopped.
      if (value && (is_set_joint || is_chunk)) {
        const double time = is_chunk ? switch_delay + *value : set_joint_time;
        wait(time, [&] { return stops != stops_before; });
      }
      wait(generator.pause(), [] { return false; });
    }
    done();
  }

  void interruptions() {
    lower_this_thread_priority();
    campaign::InterruptionGenerator generator(seed, limits, view());
    for (;;) {
      wait(generator.pause(), [] { return false; });
      if (quitting() || !live()) {
        break;
      }
      Call call = generator.next();
      if (starts_with(call.kind, "update_joint_waypoint_chunk") &&
          call.expect != Expectation::kInvalidArgument) {
        // It would set the arm moving under a motion made for standstill: the motion thread
        // runs it between two motions instead.
        std::lock_guard<std::mutex> lock(mutex);
        if (!chunk) {
          chunk = std::move(call);
        }
        continue;
      }
      execute(1, std::move(call));
    }
    done();
  }

  void done() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      ++threads_done;
    }
    changed.notify_all();
  }
};

SoakDriver::SoakDriver(const std::string& interface, uint64_t seed,
                       const campaign::PlannerLimits& limits, RobotKinematics& model)
    : interface_(interface), seed_(seed), limits_(limits), model_(model) {}

SoakDriver::~SoakDriver() {
  finish(60.0);
}

bool SoakDriver::start() {
  auto session = std::make_shared<Session>();
  session->model = &model_;
  session->limits = limits_;
  session->seed = seed_;
  session->arm = std::make_unique<ArmController>(true, interface_, false, MIT_MODE, false);
  const auto deadline = Clock::now() + 5s;
  while (session->arm->get_joint().size() != 6) {
    if (Clock::now() > deadline) {
      session->arm->cleanup();
      return false;
    }
    std::this_thread::sleep_for(10ms);
  }
  session->motions_thread = std::thread([session] { session->motions(); });
  session->interruptions_thread = std::thread([session] { session->interruptions(); });
  session_ = std::move(session);
  return true;
}

bool SoakDriver::ended() const {
  return session_ && !session_->live();
}

ArmController& SoakDriver::arm() {
  return *session_->arm;
}

uint64_t SoakDriver::take_calls() {
  if (!session_) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(session_->mutex);
  return std::exchange(session_->calls, 0);
}

std::string SoakDriver::overdue() const {
  if (!session_) {
    return "";
  }
  std::lock_guard<std::mutex> lock(session_->mutex);
  for (const Session::InFlight& f : session_->in_flight) {
    if (f.active && seconds_since(f.start) > f.limit) {
      return f.text;
    }
  }
  return "";
}

bool SoakDriver::finish(double timeout_sec) {
  if (!session_) {
    return true;
  }
  std::shared_ptr<Session> session = std::move(session_);
  {
    std::lock_guard<std::mutex> lock(session->mutex);
    session->quit = true;
  }
  session->changed.notify_all();
  try {
    session->arm->stop();  // ends a waiting call
  } catch (const std::exception&) {
  }
  bool ended;
  {
    std::unique_lock<std::mutex> lock(session->mutex);
    ended = session->changed.wait_for(lock, std::chrono::duration<double>(timeout_sec),
                                      [&] { return session->threads_done == 2; });
  }
  if (!ended) {
    // The hung call still runs inside the controller: nothing it uses may be destroyed.
    session->motions_thread.detach();
    session->interruptions_thread.detach();
    static_cast<void>(session->arm.release());
    return false;
  }
  session->motions_thread.join();
  session->interruptions_thread.join();
  session->arm->cleanup();
  session->arm.reset();
  return true;
}

}  // namespace kestrel::soak
