// DM codec throughput: frames encoded and decoded per second.
#include <benchmark/benchmark.h>

#include "kestrel/damiao_motor/dm_motor_codec.hpp"
#include "kestrel/damiao_motor/dm_motor_device.hpp"

namespace dm = kestrel::damiao_motor;

namespace {

const dm::Motor kJoint(dm::MotorType::DM_V8_T28, 0x02, 0x12);

void BM_EncodeMitCommand(benchmark::State& state) {
  dm::MITParam p{30.0, 1.5, 0.4, -0.2, 3.1};
  for (auto _ : state) {
    p.q += 1e-6;
    auto packet = dm::CanPacketEncoder::create_mit_control_command(kJoint, p);
    benchmark::DoNotOptimize(packet);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeMitCommand);

// What the control loop really does per joint: packet, then the kernel frame.
void BM_EncodeMitFrame(benchmark::State& state) {
  dm::MITParam p{30.0, 1.5, 0.4, -0.2, 3.1};
  for (auto _ : state) {
    p.q += 1e-6;
    auto packet = dm::CanPacketEncoder::create_mit_control_command(kJoint, p);
    auto frame = dm::DMCANDevice::create_can_frame(packet.can_id, packet.data);
    benchmark::DoNotOptimize(frame);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeMitFrame);

void BM_EncodeParamWrite(benchmark::State& state) {
  float value = 1.0f;
  for (auto _ : state) {
    value += 1.0f;
    auto packet = dm::CanPacketEncoder::create_write_param_command(kJoint, dm::RID_ACC, value);
    benchmark::DoNotOptimize(packet);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeParamWrite);

void BM_DecodeFeedback(benchmark::State& state) {
  std::vector<uint8_t> data = {0x12, 0x80, 0x00, 0x80, 0x08, 0x00, 0x1F, 0x1D};
  for (auto _ : state) {
    data[2]++;
    auto s = dm::CanPacketDecoder::parse_motor_state_data(kJoint, data);
    benchmark::DoNotOptimize(s);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeFeedback);

// Frame in, motor updated: the device callback minus the status line (status stays the same).
void BM_DecodeFeedbackFrameIntoMotor(benchmark::State& state) {
  dm::Motor motor(dm::MotorType::DM_V8_T28, 0x02, 0x7F2);
  dm::DMCANDevice device(motor, dm::PARAM_CAN_ID, false);
  can_frame frame =
      dm::DMCANDevice::create_can_frame(0x7F2, {0x12, 0x80, 0x00, 0x80, 0x08, 0x00, 0x1F, 0x1D});
  device.callback(frame);  // first feedback prints the status line once
  for (auto _ : state) {
    frame.data[2]++;
    device.callback(frame);
  }
  benchmark::DoNotOptimize(motor.get_position());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeFeedbackFrameIntoMotor);

void BM_DecodeParamReply(benchmark::State& state) {
  std::vector<uint8_t> data = {0x01, 0x00, 0x33, 0x04, 0x00, 0x00, 0x20, 0x41};
  for (auto _ : state) {
    data[4]++;
    auto r = dm::CanPacketDecoder::parse_motor_param_data(data);
    benchmark::DoNotOptimize(r);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeParamReply);

}  // namespace

BENCHMARK_MAIN();
