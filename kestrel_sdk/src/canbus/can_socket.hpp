// One raw SocketCAN socket bound to one named interface, in classic or CAN FD mode.
// It is the only place that touches the bus: everything above writes and reads whole
// kernel frames through it.
#pragma once

#include <linux/can.h>
#include <linux/can/raw.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace kestrel::canbus {

// Why a frame write failed, by the errno the kernel gave.
enum class SendFailureCause {
  refused,         // EINVAL, EMSGSIZE: the socket or the interface does not take such a frame
  queue_full,      // ENOBUFS, EAGAIN: the interface's transmit queue is full
  interface_down,  // ENETDOWN
  other,
};
SendFailureCause send_failure_cause(int error);

// Failed frame writes of one socket since it was opened, by cause.
struct SendFailureCounts {
  std::uint64_t refused = 0;
  std::uint64_t queue_full = 0;
  std::uint64_t interface_down = 0;
  std::uint64_t other = 0;
  int last_errno = 0;  // of the latest failure; 0 before the first

  std::uint64_t total() const { return refused + queue_full + interface_down + other; }
};

// "Network is down (ENETDOWN)".
std::string send_error_text(int error);
// "0", or the total with its causes and the latest error:
// "3 (refused 3, queue full 0, interface down 0, other 0; last Invalid argument (EINVAL))".
std::string describe_send_failures(const SendFailureCounts& counts);

// Why CAN FD cannot be used on an interface with this MTU, as a line for the user: the kernel
// lets an FD socket open on a classic interface (MTU 16) and then refuses every 72-byte write.
// Empty for an MTU that carries CAN FD, or an unknown one (negative).
std::string canfd_mtu_refusal(const std::string& interface_name, int mtu);
// canfd_mtu_refusal for the interface's present MTU when `canfd` asks for CAN FD; empty when it
// does not, or when the MTU cannot be read (opening the socket then says what is wrong).
std::string canfd_refusal(const std::string& interface_name, bool canfd);

// Raised when a socket cannot be opened, configured, bound or found up.
class CANSocketException : public std::runtime_error {
 public:
  explicit CANSocketException(const std::string& message)
      : std::runtime_error("Socket error: " + message) {}
};

class CANSocket {
 public:
  // Opens and binds the socket; throws CANSocketException when that fails.
  CANSocket(const std::string& interface_name, bool canfd);
  ~CANSocket();

  CANSocket(const CANSocket&) = delete;
  CANSocket& operator=(const CANSocket&) = delete;

  bool initialize_socket(const std::string& interface_name);
  // Closes the descriptor once. Descriptor 0 is never closed: the test is strictly > 0.
  void cleanup();

  ssize_t read_raw_frame(void* buffer, size_t length);
  // A frame whose length field exceeds its kind (more than 8 bytes in a classic frame, more than
  // 64 in an FD frame) throws std::invalid_argument before anything is written:
  // "write_can_frame: length 9 exceeds the 8 bytes of a classic CAN frame". write_raw_frame
  // checks that field when `length` is CAN_MTU or CANFD_MTU and leaves other sizes to write().
  ssize_t write_raw_frame(const void* buffer, size_t length);
  // The writers do not look at is_initialized: on a closed descriptor write() fails. A failed
  // write is counted by cause (send_failures()) and leaves errno as write() set it.
  bool write_can_frame(const can_frame& frame);
  bool write_canfd_frame(const canfd_frame& frame);
  bool read_can_frame(can_frame& frame);
  bool read_canfd_frame(canfd_frame& frame);
  // Waits up to timeout_us microseconds for the socket to become readable.
  bool is_data_available(int timeout_us);

  int get_socket_fd() const { return socket_fd; }
  const std::string& get_interface_name() const { return interface_name; }
  bool is_canfd_enabled() const { return canfd_enabled; }
  bool get_is_initialized() const { return is_initialized; }

  // The interface's MTU (SIOCGIFMTU): CAN_MTU when it carries classic frames only, CANFD_MTU
  // when it carries CAN FD. -1 with errno when it cannot be read.
  int interface_mtu() const;
  // Failed writes so far; any thread may ask while another writes.
  SendFailureCounts send_failures() const;

 private:
  void count_send_failure(ssize_t result) noexcept;

  int socket_fd;
  std::string interface_name;
  bool canfd_enabled;
  bool is_initialized;
  std::atomic<std::uint64_t> refused_writes{0};
  std::atomic<std::uint64_t> queue_full_writes{0};
  std::atomic<std::uint64_t> interface_down_writes{0};
  std::atomic<std::uint64_t> other_failed_writes{0};
  std::atomic<int> last_write_errno{0};
};

}  // namespace kestrel::canbus
