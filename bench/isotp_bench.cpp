// ISO-TP: the segmenter and reassembler on the host alone (frames per second), and a
// 4095-byte request and its 4095-byte echo end to end against the virtual diagnostic ECU,
// compared with the time the same frames need on a 500 kbit/s bus, in classic frames and
// in 64-byte CAN FD frames at 500 kbit/s / 2 Mbit/s.
#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "protocols/isotp_reassembler.hpp"
#include "sim/testbed.hpp"
#include "sim/uds_server.hpp"
#include "veltrix/can.h"
#include "veltrix/can_uds.h"
#include "veltrix/canfd.h"
#include "veltrix/usb_device.h"

namespace {

using namespace veltrix;

constexpr uint32_t kSerial = 0x31000001;
constexpr uint32_t kFdSerial = 0x53000002;
constexpr uint32_t kMessage = 4095;

std::vector<uint8_t> message() {
  std::vector<uint8_t> m(kMessage);
  for (size_t i = 0; i < m.size(); ++i) m[i] = uint8_t(i * 29 + 3);
  return m;
}

// Frames of one message, computed from the plan outside the timed loop.
size_t frames_of(const isotp::FramePlan& p, uint32_t n) {
  if (n <= p.single_max) return 1;
  return 1 + (n - p.first_short + p.consecutive - 1) / p.consecutive;
}

// Segment one message and reassemble it, frame by frame, padded as on the wire.
void BM_SegmentAndReassemble(benchmark::State& state) {
  const auto p = isotp::plan(uint8_t(state.range(0)), state.range(1) != 0);
  const std::vector<uint8_t> msg = message();
  std::vector<uint8_t> out(kMessage);
  const size_t want_frames = frames_of(p, kMessage);
  size_t frames = 0;
  for (auto _ : state) {
    isotp::Segmenter seg(p, 0xE0, msg.data(), kMessage);
    isotp::Reassembler r(p, out.data(), out.size());
    isotp::Reassembler::Step step;
    size_t n = 0;
    do {
      isotp::FrameBytes f = seg.next();
      std::memset(f.data + f.size, isotp::kPad, p.length - f.size);
      step = r.feed(f.data, p.length);
      ++n;
    } while (!seg.done());
    if (step != isotp::Reassembler::Step::Done || n != want_frames) std::abort();
    frames += n;
    benchmark::DoNotOptimize(out.data());
  }
  if (out != msg) std::abort();
  state.SetItemsProcessed(int64_t(frames));
  state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SegmentAndReassemble)->Args({8, 0})->Args({8, 1})->Args({64, 0});

std::shared_ptr<sim::Model> g_model;
std::shared_ptr<sim::Model> g_fd_model;

std::shared_ptr<sim::Model> add_echo_server(uint32_t serial, uint8_t frame_length) {
  sim::Identity id;
  id.serial = serial;
  auto m = sim::Testbed::instance().add_adapter(id);
  std::scoped_lock g(sim::sim_mutex());
  sim::uds_server(*m).enabled = true;
  sim::uds_server(*m).echo = true;
  sim::uds_server(*m).frame_length = frame_length;
  return m;
}

void setup_once() {
  static bool done = [] {
    g_model = add_echo_server(kSerial, 8);
    g_fd_model = add_echo_server(kFdSerial, 64);
    USB_ScanDevice(nullptr);
    if (USB_OpenDevice(kSerial) != 1 || USB_OpenDevice(kFdSerial) != 1) return false;
    CAN_CHANNEL_CONFIG c{};
    CAN_GetCANSpeedArg(kSerial, &c, 500000);
    CANFD_CHANNEL_CONFIG fc{};
    if (CANFD_GetCANSpeedArg(kFdSerial, &fc, 500000, 2000000) != 0) return false;
    return CAN_Init(kSerial, 0, &c) == 0 && CAN_StartGetMsg(kSerial, 0) == 0 &&
           CANFD_Init(kFdSerial, 0, &fc) == 0 && CANFD_StartGetMsg(kFdSerial, 0) == 0;
  }();
  if (!done) std::abort();
}

double thread_cpu_s() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// A classic frame with an 11-bit identifier and 8 data bytes: 111 bits plus 3 bits of
// interframe space, stuff bits not counted (the bus limit is thus a lower bound).
constexpr double kClassicFrameBits = 114;

// A 64-byte CAN FD frame with an 11-bit identifier and bit rate switching: 29 bits at the
// nominal rate (SOF, identifier, RRS, IDE, FDF, res, BRS; ACK, its delimiter, EOF and
// interframe space) and 543 at the data rate (ESI, DLC, 512 data bits, stuff count, the
// 21-bit CRC and its delimiter). Stuff bits are not counted here either.
constexpr double kFdNominalBits = 29;
constexpr double kFdDataBits = 543;

// Request and echo of kMessage bytes; the counters relate the wall time to the bus time
// of the frames exchanged (the message's frames and one flow control each way).
void request_and_echo(benchmark::State& state, uint32_t serial, CAN_UDS_ADDR a, double frame_s) {
  setup_once();
  const std::vector<uint8_t> msg = message();
  std::vector<uint8_t> out(kMessage + 1);
  const bool fd = serial == kFdSerial;
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    const auto w0 = std::chrono::steady_clock::now();
    const double c0 = thread_cpu_s();
    if (CAN_UDS_Request(serial, 0, &a, msg.data(), int(kMessage)) != 0) std::abort();
    const int n = CAN_UDS_ResponseWithSize(serial, 0, &a, out.data(), unsigned(out.size()), 5000);
    cpu += thread_cpu_s() - c0;
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - w0).count();
    if (n != int(kMessage) || std::memcmp(out.data(), msg.data(), kMessage) != 0) std::abort();
    fd ? CANFD_ClearMsg(serial, 0) : CAN_ClearMsg(serial, 0);  // the echoes of our own frames
  }
  const double frames =
      2.0 * double(frames_of(isotp::plan(a.FrameLength, a.ExtAddressing != 0), kMessage) + 1);
  const double bus_s = frames * frame_s;
  state.counters["frames"] = frames;
  state.counters["bus_limit_ms"] = bus_s * 1e3;
  const double iterations = double(state.iterations());
  state.counters["ratio_to_bus"] = wall / iterations / bus_s;
  state.counters["caller_cpu_ms"] = cpu * 1e3 / iterations;
  state.counters["caller_cpu_share_of_bus"] = cpu / iterations / bus_s;
}

void BM_RequestAndEcho4095Classic500k(benchmark::State& state) {
  request_and_echo(state, kSerial, {0x7E0, 0x7E8, 0, 0, 0, 8}, kClassicFrameBits / 500000.0);
}
BENCHMARK(BM_RequestAndEcho4095Classic500k)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_RequestAndEcho4095Fd500k2M(benchmark::State& state) {
  request_and_echo(state, kFdSerial, {0x7E0, 0x7E8, CAN_UDS_ID_BRS | CAN_UDS_ID_FD, 0, 0, 64},
                   kFdNominalBits / 500000.0 + kFdDataBits / 2000000.0);
}
BENCHMARK(BM_RequestAndEcho4095Fd500k2M)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
