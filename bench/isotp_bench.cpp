// ISO-TP: the segmenter and reassembler on the host alone (frames per second), and a
// 4095-byte request and its 4095-byte echo end to end against the virtual diagnostic ECU,
// compared with the time the same frames need on a 500 kbit/s bus, in classic frames and
// in 64-byte CAN FD frames at 500 kbit/s / 2 Mbit/s.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/bench_check.hpp"
#include "can/can_state.hpp"
#include "can/fd_state.hpp"
#include "protocols/isotp_clock.hpp"
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
    bench::check(step == isotp::Reassembler::Step::Done && n == want_frames,
                 "a message did not come back whole in the planned frames");
    frames += n;
    benchmark::DoNotOptimize(out.data());
  }
  bench::check(out == msg, "the reassembled message differs");
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

// Both adapters open and started; neither is polled by a receive thread until its
// benchmark starts one, so one benchmark's figures carry no polling of the other adapter.
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
    return CAN_Init(kSerial, 0, &c) == 0 && CANFD_Init(kFdSerial, 0, &fc) == 0;
  }();
  bench::check(done, "opening and starting the two adapters");
}

double cpu_s(clockid_t clock) {
  timespec t{};
  if (clock_gettime(clock, &t) != 0) bench::fail("reading a CPU clock");
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

long voluntary_switches() {
  rusage u{};
  getrusage(RUSAGE_THREAD, &u);
  return u.ru_nvcsw;
}

// The receive thread of the adapter: the library's own, like the calling thread.
clockid_t reader_clock(uint32_t serial, bool fd) {
  pthread_t t;
  if (fd) {
    auto& slot = can::fd_state().slot[*can::fd_slot_of(serial)];
    std::scoped_lock g(slot.thread_mutex);
    t = slot.reader.native_handle();
  } else {
    auto& slot = can::state().slot[*can::slot_of(serial)];
    std::scoped_lock g(slot.thread_mutex);
    t = slot.reader.native_handle();
  }
  clockid_t id;
  if (pthread_getcpuclockid(t, &id) != 0) bench::fail("no receive thread");
  return id;
}

// The library's pauses (its clock's sleeps): how often the ISO-TP layer found nothing to do.
std::atomic<uint64_t> g_naps{0};
const isotp::Clock g_system_clock = isotp::system_clock();
void counting_sleep_us(uint32_t us) {
  g_naps.fetch_add(1, std::memory_order_relaxed);
  g_system_clock.sleep_us(us);
}

// Counts the commands the adapter receives from restart() to count(). The adapter's record
// keeps a bounded number of entries; a window that overflowed it cannot be counted.
class CommandWindow {
 public:
  explicit CommandWindow(sim::Model& m) : m_(m) { restart(); }
  void restart() {
    std::scoped_lock g(sim::sim_mutex());
    m_.clear_record();
    dropped_ = m_.dropped_records();
  }
  size_t count() const {
    std::scoped_lock g(sim::sim_mutex());
    bench::check(m_.dropped_records() == dropped_, "the adapter's command record overflowed");
    return m_.commands().size();
  }

 private:
  sim::Model& m_;
  size_t dropped_ = 0;
};

// The calling thread's CPU time (and the wall time) of one exchange that carries nothing
// (a poll of an idle port): libusb, the system calls and the emulation's side of each
// transfer in this thread. Exchanges that carry frames cost more, so subtracting this per
// exchange leaves an upper bound of the time spent in the library's own code.
struct ExchangeCost {
  double cpu_s, wall_s;
};
ExchangeCost empty_exchange(uint32_t serial, bool fd, sim::Model& model) {
  constexpr int kPolls = 50;
  const CommandWindow window(model);
  const auto w0 = std::chrono::steady_clock::now();
  const double c0 = cpu_s(CLOCK_THREAD_CPUTIME_ID);
  for (int i = 0; i < kPolls; ++i)
    bench::check((fd ? CANFD_ReadMsgToBuffer(serial, 0) : CAN_ReadMsgToBuffer(serial, 0)) == 0,
                 "polling the idle port");
  const double cpu = cpu_s(CLOCK_THREAD_CPUTIME_ID) - c0;
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - w0).count();
  bench::check(window.count() == kPolls, "one command per poll");
  fd ? CANFD_ClearMsg(serial, 0) : CAN_ClearMsg(serial, 0);
  return {cpu / kPolls, wall / kPolls};
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

// Request and echo of kMessage bytes, with the adapter's receive thread running (as an
// application runs it) or, with range(0) == 0, with the caller's reads polling the
// adapter. The counters relate the wall time to the bus time of the frames
// exchanged (the message's frames and one flow control each way) and split the CPU time
// of the process: the library's (the calling thread, which includes libusb and the system
// calls of each transfer, and the receive thread) and the emulation's (every other thread:
// umockdev's, which runs the adapter's firmware model). library_own_share_max takes the
// cost of the exchanges themselves out of the library's share.
void request_and_echo(benchmark::State& state, uint32_t serial, CAN_UDS_ADDR a, double frame_s) {
  setup_once();
  const bool fd = serial == kFdSerial;
  sim::Model& model = fd ? *g_fd_model : *g_model;
  const bool threaded = state.range(0) != 0;
  const ExchangeCost per_exchange = empty_exchange(serial, fd, model);
  if (threaded)
    bench::check((fd ? CANFD_StartGetMsg(serial, 0) : CAN_StartGetMsg(serial, 0)) == 0,
                 "starting the receive thread");
  const clockid_t reader = threaded ? reader_clock(serial, fd) : CLOCK_THREAD_CPUTIME_ID;
  const std::vector<uint8_t> msg = message();
  std::vector<uint8_t> out(kMessage + 1);
  double caller = 0, receiver = 0, process = 0, wall = 0;
  long switches = 0;
  size_t commands = 0;
  isotp::active_clock = {g_system_clock.now_us, counting_sleep_us};
  const uint64_t naps0 = g_naps.load();
  CommandWindow window(model);
  for (auto _ : state) {
    const auto w0 = std::chrono::steady_clock::now();
    const double c0 = cpu_s(CLOCK_THREAD_CPUTIME_ID), r0 = threaded ? cpu_s(reader) : 0;
    const double p0 = cpu_s(CLOCK_PROCESS_CPUTIME_ID);
    const long s0 = voluntary_switches();
    if (CAN_UDS_Request(serial, 0, &a, msg.data(), int(kMessage)) != 0)
      bench::fail("request refused");
    const int n = CAN_UDS_ResponseWithSize(serial, 0, &a, out.data(), unsigned(out.size()), 5000);
    caller += cpu_s(CLOCK_THREAD_CPUTIME_ID) - c0;
    if (threaded) receiver += cpu_s(reader) - r0;
    process += cpu_s(CLOCK_PROCESS_CPUTIME_ID) - p0;
    switches += voluntary_switches() - s0;
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - w0).count();
    if (n != int(kMessage) || std::memcmp(out.data(), msg.data(), kMessage) != 0)
      bench::fail("the echo differs from the request");
    state.PauseTiming();
    commands += window.count();
    fd ? CANFD_ClearMsg(serial, 0) : CAN_ClearMsg(serial, 0);  // the echoes of our own frames
    window.restart();
    state.ResumeTiming();
  }
  const double iterations = double(state.iterations());
  isotp::active_clock = g_system_clock;
  const double naps = double(g_naps.load() - naps0);
  if (threaded)
    bench::check((fd ? CANFD_StopGetMsg(serial, 0) : CAN_StopGetMsg(serial, 0)) == 0,
                 "stopping the receive thread");
  const double frames =
      2.0 * double(frames_of(isotp::plan(a.FrameLength, a.ExtAddressing != 0), kMessage) + 1);
  const double bus_s = frames * frame_s;
  const double library = caller + receiver;
  state.counters["frames"] = frames;
  state.counters["bus_ms"] = bus_s * 1e3;
  state.counters["wall_ratio"] = wall / iterations / bus_s;
  state.counters["library_cpu_ms"] = library * 1e3 / iterations;
  state.counters["library_share"] = library / iterations / bus_s;
  state.counters["caller_share"] = caller / iterations / bus_s;
  state.counters["receiver_share"] = receiver / iterations / bus_s;
  state.counters["emulation_share"] = (process - library) / iterations / bus_s;
  state.counters["exchanges_per_rt"] = double(commands) / iterations;
  state.counters["empty_exchange_cpu_us"] = per_exchange.cpu_s * 1e6;
  state.counters["empty_exchange_wall_us"] = per_exchange.wall_s * 1e6;
  state.counters["library_own_share_max"] =
      std::max(0.0, library / iterations - double(commands) / iterations * per_exchange.cpu_s) /
      bus_s;
  state.counters["caller_switches_per_rt"] = double(switches) / iterations;
  state.counters["library_naps_per_rt"] = naps / iterations;
}

void BM_RequestAndEcho4095Classic500k(benchmark::State& state) {
  request_and_echo(state, kSerial, {0x7E0, 0x7E8, 0, 0, 0, 8}, kClassicFrameBits / 500000.0);
}
BENCHMARK(BM_RequestAndEcho4095Classic500k)
    ->ArgName("receive_thread")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_RequestAndEcho4095Fd500k2M(benchmark::State& state) {
  request_and_echo(state, kFdSerial, {0x7E0, 0x7E8, CAN_UDS_ID_BRS | CAN_UDS_ID_FD, 0, 0, 64},
                   kFdNominalBits / 500000.0 + kFdDataBits / 2000000.0);
}
BENCHMARK(BM_RequestAndEcho4095Fd500k2M)
    ->ArgName("receive_thread")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
