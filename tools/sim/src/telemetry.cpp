#include "kestrel_sim/telemetry.hpp"

#include <algorithm>
#include <cstdio>

#include "simbus/simbus_wire_time.hpp"

namespace kestrel::sim {

namespace {

double seconds_on_wire(simbus::FrameBits bits, const BusTiming& timing) {
  return bits.nominal / timing.nominal_bitrate + bits.data / timing.data_bitrate;
}

}  // namespace

// The bit counts are the bus's own (simbus), so that the simulator's load figures and the
// hub's wire-time pacing can never disagree.
double classic_frame_seconds(int len, const BusTiming& timing, bool extended) {
  can_frame frame{};
  frame.can_id = extended ? CAN_EFF_FLAG : 0;
  frame.can_dlc = static_cast<uint8_t>(std::clamp(len, 0, CAN_MAX_DLEN));
  return seconds_on_wire(simbus::classic_frame_bits(frame), timing);
}

double fd_frame_seconds(int len, const BusTiming& timing, bool extended) {
  canfd_frame frame{};
  frame.can_id = extended ? CAN_EFF_FLAG : 0;
  frame.len = static_cast<uint8_t>(std::clamp(len, 0, CANFD_MAX_DLEN));
  frame.flags = CANFD_BRS;
  return seconds_on_wire(simbus::canfd_frame_bits(frame), timing);
}

std::string format_line(const TelemetrySnapshot& s) {
  char buf[200];
  std::snprintf(buf, sizeof buf,
                "rx %7.1f fps  tx %7.1f fps  classic 1M %5.1f %%  FD 1M/5M %5.1f %%  "
                "dropped %llu  reply %.0f us (max %.0f)",
                s.received_fps, s.sent_fps, 100.0 * s.classic_load, 100.0 * s.fd_load,
                static_cast<unsigned long long>(s.dropped_total), s.mean_reply_latency_us,
                s.max_reply_latency_us);
  return buf;
}

TelemetryMeter::TelemetryMeter(BusTiming timing) : timing_(timing), start_(Clock::now()) {}

int64_t TelemetryMeter::bucket_index(TimePoint t) const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(t - start_).count() /
         kBucketWidth.count();
}

void TelemetryMeter::record(Direction direction, const Frame& frame, TimePoint now) {
  const double classic = classic_frame_seconds(frame.len, timing_, frame.extended);
  const double fd = frame.fd ? fd_frame_seconds(frame.len, timing_, frame.extended) : classic;
  std::lock_guard<std::mutex> lock(mutex_);
  const int64_t index = std::max<int64_t>(0, bucket_index(now));
  Bucket& b = buckets_[index % kBuckets];
  if (b.index != index) {
    b = Bucket{};
    b.index = index;
  }
  if (direction == Direction::kReceived) {
    ++b.received;
    ++received_total_;
  } else {
    ++b.sent;
    ++sent_total_;
  }
  // On the FD bus every frame is assumed to go out as FD; a classic frame costs the same there.
  b.classic_seconds += classic;
  b.fd_seconds += frame.fd ? fd : fd_frame_seconds(frame.len, timing_, frame.extended);
}

void TelemetryMeter::record_drop() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++dropped_total_;
}

void TelemetryMeter::record_latency(double microseconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++latency_count_;
  latency_sum_us_ += microseconds;
  latency_max_us_ = std::max(latency_max_us_, microseconds);
}

TelemetrySnapshot TelemetryMeter::snapshot(TimePoint now) const {
  std::lock_guard<std::mutex> lock(mutex_);
  TelemetrySnapshot s;
  const int64_t newest = bucket_index(now);
  // The current bucket is partly filled: the window runs from the oldest full bucket to now.
  const int64_t oldest = std::max<int64_t>(0, newest - (kBuckets - 1));
  const double elapsed =
      std::chrono::duration<double>(now - start_).count() - oldest * kBucketWidth.count() * 1e-3;
  s.window_seconds = std::max(elapsed, 1e-3);
  double classic = 0.0;
  double fd = 0.0;
  for (const Bucket& b : buckets_) {
    if (b.index >= oldest && b.index <= newest) {
      s.received_fps += b.received;
      s.sent_fps += b.sent;
      classic += b.classic_seconds;
      fd += b.fd_seconds;
    }
  }
  s.received_fps /= s.window_seconds;
  s.sent_fps /= s.window_seconds;
  s.classic_load = classic / s.window_seconds;
  s.fd_load = fd / s.window_seconds;
  s.received_total = received_total_;
  s.sent_total = sent_total_;
  s.dropped_total = dropped_total_;
  s.mean_reply_latency_us = latency_count_ ? latency_sum_us_ / latency_count_ : 0.0;
  s.max_reply_latency_us = latency_max_us_;
  return s;
}

void TelemetryMeter::reset(TimePoint now) {
  std::lock_guard<std::mutex> lock(mutex_);
  start_ = now;
  buckets_ = {};
  received_total_ = sent_total_ = dropped_total_ = latency_count_ = 0;
  latency_sum_us_ = latency_max_us_ = 0.0;
}

}  // namespace kestrel::sim
