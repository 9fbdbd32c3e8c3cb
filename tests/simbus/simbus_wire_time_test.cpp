// Wire-time model and bus directory conventions: pure functions, no hub.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "simbus/simbus_paths.hpp"
#include "simbus/simbus_wire_time.hpp"

namespace kestrel::simbus {
namespace {

using std::chrono::nanoseconds;

can_frame classic(canid_t id, std::uint8_t dlc) {
  can_frame frame{};
  frame.can_id = id;
  frame.can_dlc = dlc;
  return frame;
}

canfd_frame fd(canid_t id, std::uint8_t len, std::uint8_t flags) {
  canfd_frame frame{};
  frame.can_id = id;
  frame.len = len;
  frame.flags = flags;
  return frame;
}

TEST(WireTime, ClassicFramesCountNominalBitsWithoutStuffing) {
  EXPECT_EQ(classic_frame_bits(classic(0x123, 8)).nominal, 111u);
  EXPECT_EQ(classic_frame_bits(classic(0x123, 0)).nominal, 47u);
  EXPECT_EQ(classic_frame_bits(classic(0x123, 3)).nominal, 71u);
  EXPECT_EQ(classic_frame_bits(classic(0x123 | CAN_EFF_FLAG, 8)).nominal, 131u);
  // A remote frame carries no data field whatever its DLC says.
  EXPECT_EQ(classic_frame_bits(classic(0x123 | CAN_RTR_FLAG, 8)).nominal, 47u);
  EXPECT_EQ(classic_frame_bits(classic(0x123, 8)).data, 0u);

  const can_frame frame = classic(0x001, 8);
  EXPECT_EQ(frame_wire_time(&frame, CAN_MTU), nanoseconds(111000));
  EXPECT_EQ(frame_wire_time(&frame, CAN_MTU, 500000), nanoseconds(222000));
  // The data rate does not apply to classic frames.
  EXPECT_EQ(frame_wire_time(&frame, CAN_MTU, 1000000, 8000000), nanoseconds(111000));
}

TEST(WireTime, FdFramesSplitArbitrationAndDataPhases) {
  const FrameBits eight = canfd_frame_bits(fd(0x123, 8, CANFD_BRS));
  EXPECT_EQ(eight.nominal, 30u);  // 17 arbitration + 13 tail
  EXPECT_EQ(eight.data, 96u);     // ESI, DLC, 64 data, stuff count, CRC-17, 6 fixed stuff bits
  const canfd_frame frame = fd(0x123, 8, CANFD_BRS);
  EXPECT_EQ(frame_wire_time(&frame, CANFD_MTU), nanoseconds(49200));

  const FrameBits full = canfd_frame_bits(fd(0x123, 64, CANFD_BRS));
  EXPECT_EQ(full.data, 37u + 512u);  // CRC-21 and 7 fixed stuff bits above 16 bytes
  const FrameBits sixteen = canfd_frame_bits(fd(0x123, 16, CANFD_BRS));
  EXPECT_EQ(sixteen.data, 32u + 128u);

  const FrameBits extended = canfd_frame_bits(fd(0x123 | CAN_EFF_FLAG, 8, CANFD_BRS));
  EXPECT_EQ(extended.nominal, 49u);  // 36 arbitration + 13 tail
  EXPECT_EQ(extended.data, 96u);

  // Without bit-rate switch the whole frame runs at the nominal rate.
  const FrameBits slow = canfd_frame_bits(fd(0x123, 8, 0));
  EXPECT_EQ(slow.nominal, 126u);
  EXPECT_EQ(slow.data, 0u);
  const canfd_frame slow_frame = fd(0x123, 8, 0);
  EXPECT_EQ(frame_wire_time(&slow_frame, CANFD_MTU), nanoseconds(126000));
}

TEST(WireTime, FdPayloadsArePaddedToTheNextValidLength) {
  EXPECT_EQ(padded_canfd_length(8), 8u);
  EXPECT_EQ(padded_canfd_length(9), 12u);
  EXPECT_EQ(padded_canfd_length(13), 16u);
  EXPECT_EQ(padded_canfd_length(33), 48u);
  EXPECT_EQ(padded_canfd_length(49), 64u);
  EXPECT_EQ(canfd_frame_bits(fd(0x1, 9, CANFD_BRS)).data,
            canfd_frame_bits(fd(0x1, 12, CANFD_BRS)).data);
}

TEST(WireTime, SevenMotorLoadMatchesTheDesignFigures) {
  // 8,400 8-byte frames a second: about 93 % of a classic bus, about 41 % of CAN FD.
  const can_frame classic_command = classic(0x001, 8);
  const canfd_frame fd_command = fd(0x001, 8, CANFD_BRS);
  const double classic_load = 8400 * frame_wire_time(&classic_command, CAN_MTU).count() / 1e9;
  const double fd_load = 8400 * frame_wire_time(&fd_command, CANFD_MTU).count() / 1e9;
  EXPECT_NEAR(classic_load, 0.9324, 1e-4);
  EXPECT_NEAR(fd_load, 0.4133, 1e-4);
}

TEST(WireTime, OtherRecordSizesTakeNoTime) {
  const canfd_frame frame = fd(0x1, 8, 0);
  EXPECT_EQ(frame_wire_time(&frame, 20), nanoseconds(0));
}

// Sets or clears an environment variable for one scope.
class EnvironmentOverride {
 public:
  EnvironmentOverride(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) {
      previous_ = old;
    }
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~EnvironmentOverride() { previous_ ? ::setenv(name_, previous_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

TEST(BusDirectory, ExplicitVariableThenRuntimeDirectoryThenTmp) {
  {
    EnvironmentOverride dir(kDirectoryEnv, "/somewhere/bus");
    EnvironmentOverride runtime("XDG_RUNTIME_DIR", "/run/user/1234");
    EXPECT_EQ(bus_directory(), "/somewhere/bus");
  }
  {
    EnvironmentOverride dir(kDirectoryEnv, "");  // empty counts as unset
    EnvironmentOverride runtime("XDG_RUNTIME_DIR", "/run/user/1234");
    EXPECT_EQ(bus_directory(), "/run/user/1234/kestrel-simbus");
  }
  {
    EnvironmentOverride dir(kDirectoryEnv, nullptr);
    EnvironmentOverride runtime("XDG_RUNTIME_DIR", nullptr);
    EXPECT_EQ(bus_directory(), "/tmp/kestrel-simbus-" + std::to_string(::getuid()));
  }
  // Read at every call, never cached.
  EnvironmentOverride dir(kDirectoryEnv, "/first");
  EXPECT_EQ(bus_directory(), "/first");
  ::setenv(kDirectoryEnv, "/second", 1);
  EXPECT_EQ(bus_directory(), "/second");
}

TEST(BusDirectory, FilesAreNamedAfterTheInterface) {
  EXPECT_EQ(socket_path("/d", "can0"), "/d/can0");
  EXPECT_EQ(state_path("/d", "can0"), "/d/can0:state");
  EXPECT_TRUE(fits_socket_path(std::string(107, 'x')));
  EXPECT_FALSE(fits_socket_path(std::string(108, 'x')));
}

TEST(InterfaceNames, FollowTheKernelRules) {
  EXPECT_TRUE(is_valid_interface_name("can0"));
  EXPECT_TRUE(is_valid_interface_name("a23456789012345"));
  EXPECT_FALSE(is_valid_interface_name("a234567890123456"));
  EXPECT_FALSE(is_valid_interface_name(""));
  EXPECT_FALSE(is_valid_interface_name("."));
  EXPECT_FALSE(is_valid_interface_name(".."));
  EXPECT_FALSE(is_valid_interface_name("can/0"));
  EXPECT_FALSE(is_valid_interface_name("can:0"));
  EXPECT_FALSE(is_valid_interface_name("can 0"));
  EXPECT_FALSE(is_valid_interface_name("can\t0"));
  EXPECT_TRUE(is_valid_interface_name(".hidden"));
}

TEST(InterfaceNames, AreCutAtFifteenCharactersOrTheFirstNul) {
  EXPECT_EQ(kernel_interface_name("a23456789012345XYZ"), "a23456789012345");
  EXPECT_EQ(kernel_interface_name(std::string_view("can0\0junk", 9)), "can0");
  EXPECT_EQ(kernel_interface_name("can0"), "can0");
}

TEST(InterfaceIndexes, AreStableHighAndDistinct) {
  EXPECT_EQ(interface_index("can0"), interface_index("can0"));
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
