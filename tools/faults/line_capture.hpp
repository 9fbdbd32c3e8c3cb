// Captures what the library prints on a standard stream, line by line with the time each line
// was finished, while the stream's own buffer is set aside (restored by the destructor).
// Threads writing at once each build their own line.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

namespace kestrel::faults {

struct CapturedLine {
  int64_t time_ns = 0;  // steady clock
  std::string text;
};

class LineCapture : public std::streambuf {
 public:
  // `echo`: also pass every finished line on to the stream's own buffer.
  explicit LineCapture(std::ostream& stream, bool echo = false);
  ~LineCapture() override;
  LineCapture(const LineCapture&) = delete;
  LineCapture& operator=(const LineCapture&) = delete;

  std::vector<CapturedLine> lines() const;

 protected:
  int overflow(int c) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;

 private:
  void append(const char* s, size_t n);

  std::ostream& stream_;
  std::streambuf* previous_;
  bool echo_;
  mutable std::mutex mutex_;
  std::map<std::thread::id, std::string> pending_;
  std::vector<CapturedLine> lines_;
};

}  // namespace kestrel::faults
