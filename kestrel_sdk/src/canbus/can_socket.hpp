// One raw SocketCAN socket bound to one named interface, in classic or CAN FD mode.
// It is the only place that touches the bus: everything above writes and reads whole
// kernel frames through it.
#pragma once

#include <linux/can.h>
#include <linux/can/raw.h>
#include <sys/types.h>

#include <stdexcept>
#include <string>

namespace kestrel::canbus {

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
  // The writers do not look at is_initialized: on a closed descriptor write() fails.
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

 private:
  int socket_fd;
  std::string interface_name;
  bool canfd_enabled;
  bool is_initialized;
};

}  // namespace kestrel::canbus
