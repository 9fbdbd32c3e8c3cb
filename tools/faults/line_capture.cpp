#include "line_capture.hpp"

#include <chrono>

namespace kestrel::faults {

LineCapture::LineCapture(std::ostream& stream, bool echo)
    : stream_(stream), previous_(stream.rdbuf()), echo_(echo) {
  stream_.rdbuf(this);
}

LineCapture::~LineCapture() {
  stream_.rdbuf(previous_);
}

std::vector<CapturedLine> LineCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

int LineCapture::overflow(int c) {
  if (c != traits_type::eof()) {
    const char ch = static_cast<char>(c);
    append(&ch, 1);
  }
  return traits_type::not_eof(c);
}

std::streamsize LineCapture::xsputn(const char* s, std::streamsize n) {
  append(s, static_cast<size_t>(n));
  return n;
}

void LineCapture::append(const char* s, size_t n) {
  const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                       .count();
  std::lock_guard<std::mutex> lock(mutex_);
  std::string& line = pending_[std::this_thread::get_id()];
  for (size_t i = 0; i < n; ++i) {
    if (s[i] != '\n') {
      line.push_back(s[i]);
      continue;
    }
    if (echo_) {
      line.push_back('\n');
      previous_->sputn(line.data(), static_cast<std::streamsize>(line.size()));
      previous_->pubsync();
      line.pop_back();
    }
    lines_.push_back({now, line});
    line.clear();
  }
}

}  // namespace kestrel::faults
