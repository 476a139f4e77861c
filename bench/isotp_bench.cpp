// ISO-TP: the segmenter and reassembler on the host alone (frames per second), and a
// 4095-byte request and its 4095-byte echo end to end against the virtual diagnostic ECU,
// compared with the time the same frames need on a 500 kbit/s bus.
#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "protocols/isotp_reassembler.hpp"
#include "sim/reexec.hpp"
#include "sim/testbed.hpp"
#include "sim/uds_server.hpp"
#include "veltrix/can.h"
#include "veltrix/can_uds.h"
#include "veltrix/usb_device.h"

namespace {

using namespace veltrix;

constexpr uint32_t kSerial = 0x31000001;
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

void setup_once() {
  static bool done = [] {
    sim::Identity id;
    id.serial = kSerial;
    g_model = sim::Testbed::instance().add_adapter(id);
    {
      std::scoped_lock g(sim::sim_mutex());
      sim::uds_server(*g_model).enabled = true;
      sim::uds_server(*g_model).echo = true;
    }
    USB_ScanDevice(nullptr);
    if (USB_OpenDevice(kSerial) != 1) return false;
    CAN_CHANNEL_CONFIG c{};
    CAN_GetCANSpeedArg(kSerial, &c, 500000);
    return CAN_Init(kSerial, 0, &c) == 0 && CAN_StartGetMsg(kSerial, 0) == 0;
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

void BM_RequestAndEcho4095Classic500k(benchmark::State& state) {
  setup_once();
  const std::vector<uint8_t> msg = message();
  std::vector<uint8_t> out(kMessage + 1);
  CAN_UDS_ADDR a{0x7E0, 0x7E8, 0, 0, 0, 8};
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    const auto w0 = std::chrono::steady_clock::now();
    const double c0 = thread_cpu_s();
    if (CAN_UDS_Request(kSerial, 0, &a, msg.data(), int(kMessage)) != 0) std::abort();
    const int n = CAN_UDS_ResponseWithSize(kSerial, 0, &a, out.data(), unsigned(out.size()), 5000);
    cpu += thread_cpu_s() - c0;
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - w0).count();
    if (n != int(kMessage) || std::memcmp(out.data(), msg.data(), kMessage) != 0) std::abort();
    CAN_ClearMsg(kSerial, 0);  // the echoes of our own frames
  }
  // Each direction: the message's frames and one flow control.
  const double frames = 2.0 * double(frames_of(isotp::plan(8, false), kMessage) + 1);
  const double bus_s = frames * kClassicFrameBits / 500000.0;
  state.counters["bus_limit_ms"] = bus_s * 1e3;
  const double iterations = double(state.iterations());
  state.counters["ratio_to_bus"] = wall / iterations / bus_s;
  state.counters["caller_cpu_ms"] = cpu * 1e3 / iterations;
  state.counters["caller_cpu_share_of_bus"] = cpu / iterations / bus_s;
}
BENCHMARK(BM_RequestAndEcho4095Classic500k)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  veltrix::sim::ensure_umockdev(argc, argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
