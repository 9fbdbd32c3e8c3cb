// One connected stream socket carrying text lines: the framing of the arm service's protocol,
// used by the service and its clients alike. Writes are whole lines under a lock, so that
// replies and streamed state from different threads never interleave.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>

namespace kestrel::service {

class LineChannel {
 public:
  static constexpr std::size_t kMaxLine = 1 << 20;  // one request, bytes

  // Takes ownership of the connected socket `fd`.
  explicit LineChannel(int fd, std::size_t max_line = kMaxLine);
  ~LineChannel();
  LineChannel(const LineChannel&) = delete;
  LineChannel& operator=(const LineChannel&) = delete;

  // Connects to the Unix-domain socket at `path`; std::runtime_error with the reason.
  static int connect_unix(const std::string& path);

  enum class Read { line, too_long, closed };
  // Blocks for the next line (without its newline). A line longer than max_line is reported as
  // too_long once and the rest of it is skipped, so that the next line reads cleanly.
  Read read_line(std::string& line);
  // Sends `text` and a newline; false once the peer has gone.
  bool write_line(const std::string& text);
  // Wakes a reader blocked in read_line (it sees closed) and ends further writes.
  void shut_down();

 private:
  int fd_;
  std::size_t max_line_;
  std::string buffer_;
  bool skipping_ = false;
  std::mutex write_mutex_;
};

}  // namespace kestrel::service
