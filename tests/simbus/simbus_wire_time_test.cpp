// Wire-time model and bus directory conventions: pure functions, no hub.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_wire_time.hpp"

namespace kestrel::simbus {
namespace {

using std::chrono::nanoseconds;

// Bits on the wire, without dynamic stuffing, and the time they take at 1 Mbit/s nominal and
// 5 Mbit/s data rate (the defaults).
TEST(WireTime, FramesTakeTheirBitsAtTheNominalAndDataRates) {
  // {case, CAN FD, identifier, length, flags, nominal-rate bits, data-rate bits, wire time ns}
  const std::tuple<const char*, bool, canid_t, std::uint8_t, std::uint8_t, std::uint32_t,
                   std::uint32_t, long>
      rows[] = {
          {"classic, 8 bytes", false, 0x123, 8, 0, 111, 0, 111000},
          {"classic, empty", false, 0x123, 0, 0, 47, 0, 47000},
          {"classic, extended identifier", false, 0x123 | CAN_EFF_FLAG, 8, 0, 131, 0, 131000},
          {"remote frame: no data field whatever its DLC", false, 0x123 | CAN_RTR_FLAG, 8, 0, 47, 0,
           47000},
          // 17 arbitration + 13 tail bits; ESI, DLC, data, stuff count, CRC-17, 6 fixed stuff bits.
          {"FD, 8 bytes, bit-rate switch", true, 0x123, 8, CANFD_BRS, 30, 96, 49200},
          {"FD, 16 bytes", true, 0x123, 16, CANFD_BRS, 30, 32 + 128, 62000},
          // CRC-21 and 7 fixed stuff bits above 16 bytes.
          {"FD, 64 bytes", true, 0x123, 64, CANFD_BRS, 30, 37 + 512, 139800},
          {"FD, extended identifier (36 arbitration bits)", true, 0x123 | CAN_EFF_FLAG, 8,
           CANFD_BRS, 49, 96, 68200},
          // Payloads are padded to the next valid length.
          {"FD, 9 bytes sent as 12", true, 0x1, 9, CANFD_BRS, 30, 32 + 96, 55600},
          {"FD without bit-rate switch: all at the nominal rate", true, 0x123, 8, 0, 126, 0,
           126000},
      };
  for (const auto& [name, fd, id, length, flags, nominal, data, time_ns] : rows) {
    SCOPED_TRACE(name);
    canfd_frame frame{};  // a classic frame is its first CAN_MTU bytes
    frame.can_id = id;
    frame.len = length;
    frame.flags = flags;
    const FrameBits bits = fd ? canfd_frame_bits(frame)
                              : classic_frame_bits(reinterpret_cast<const can_frame&>(frame));
    EXPECT_EQ(bits.nominal, nominal);
    EXPECT_EQ(bits.data, data);
    EXPECT_EQ(frame_wire_time(&frame, fd ? CANFD_MTU : CAN_MTU), nanoseconds(time_ns));
  }
  canfd_frame frame{};
  frame.len = 8;
  EXPECT_EQ(frame_wire_time(&frame, CAN_MTU, 500000), nanoseconds(222000));
  // The data rate does not apply to classic frames.
  EXPECT_EQ(frame_wire_time(&frame, CAN_MTU, 1000000, 8000000), nanoseconds(111000));
  EXPECT_EQ(frame_wire_time(&frame, 20), nanoseconds(0));  // not a CAN record size
  for (const auto& [length, padded] :
       {std::pair<std::size_t, std::size_t>{8, 8}, {9, 12}, {13, 16}, {33, 48}, {49, 64}}) {
    EXPECT_EQ(padded_canfd_length(length), padded) << length;
  }
}

// Sets or clears an environment variable.
void set_env(const char* name, const char* value) {
  value ? ::setenv(name, value, 1) : ::unsetenv(name);
}

TEST(BusDirectory, ExplicitVariableThenRuntimeDirectoryThenTmp) {
  // {case, KESTREL_SIMBUS_DIR, XDG_RUNTIME_DIR, the directory}
  const std::tuple<const char*, const char*, const char*, std::string> rows[] = {
      {"explicit", "/somewhere/bus", "/run/user/1234", "/somewhere/bus"},
      {"empty counts as unset", "", "/run/user/1234", "/run/user/1234/kestrel-simbus"},
      {"neither", nullptr, nullptr, "/tmp/kestrel-simbus-" + std::to_string(::getuid())},
  };
  for (const auto& [name, dir, runtime, expected] : rows) {
    set_env(kDirectoryEnv, dir);
    set_env("XDG_RUNTIME_DIR", runtime);
    EXPECT_EQ(bus_directory(), expected) << name;
  }
  EXPECT_EQ(socket_path("/d", "can0"), "/d/can0");
  EXPECT_EQ(state_path("/d", "can0"), "/d/can0:state");
  EXPECT_TRUE(fits_socket_path(std::string(107, 'x')));
  EXPECT_FALSE(fits_socket_path(std::string(108, 'x')));
}

TEST(InterfaceNames, FollowTheKernelRulesAndAreCutAtFifteenCharactersOrTheFirstNul) {
  for (const char* valid : {"can0", "a23456789012345", ".hidden"}) {
    EXPECT_TRUE(is_valid_interface_name(valid)) << valid;
  }
  for (const char* invalid :
       {"a234567890123456", "", ".", "..", "can/0", "can:0", "can 0", "can\t0"}) {
    EXPECT_FALSE(is_valid_interface_name(invalid)) << invalid;
  }
  EXPECT_EQ(kernel_interface_name("a23456789012345XYZ"), "a23456789012345");
  EXPECT_EQ(kernel_interface_name(std::string_view("can0\0junk", 9)), "can0");
  EXPECT_EQ(kernel_interface_name("can0"), "can0");
}

TEST(InterfaceIndexes, AreStableHighAndDistinct) {
  EXPECT_NE(interface_index("can0"), interface_index("can1"));
  // FNV-1a of "can0" is 0xDBF640CF: a value fixed for every process and every release.
  EXPECT_EQ(interface_index("can0"), 1542865103);
  for (const char* name : {"a", "can0", "simcan0", "a23456789012345", "vcan9"}) {
    EXPECT_GE(interface_index(name), 1 << 30) << name;
    EXPECT_TRUE(is_simbus_index(interface_index(name))) << name;
  }
  EXPECT_FALSE(is_simbus_index(1));
  EXPECT_FALSE(is_simbus_index(70000));
}

}  // namespace
}  // namespace kestrel::simbus
