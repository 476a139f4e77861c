// Sustained ADC stream through the real libusb and the virtual adapter: the rate the
// library keeps up with, and the CPU its own threads (the reader and the draining caller)
// spend on it. Every run checks that the samples form the virtual adapter's unbroken ramp
// and that no frame was dropped, on the adapter or in the queue; it aborts otherwise.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/virtual_adapter.hpp"
#include "peripherals/adc/adc_state.hpp"
#include "sim/adc.hpp"
#include "sim/testbed.hpp"
#include "veltrix/adc.h"
#include "veltrix/usb_device.h"

namespace {

constexpr uint32_t kSerial = 0x41000B01;
constexpr auto kRunTime = std::chrono::seconds(3);

std::shared_ptr<veltrix::sim::Model> model;

void setup_once() { model = veltrix::bench::open_virtual_adapter(kSerial); }

double cpu_seconds(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

void fail(const char* what, unsigned long long at) {
  std::fprintf(stderr, "adc_bench: %s at sample %llu\n", what, at);
  std::abort();
}

void BM_AdcStream(benchmark::State& state) {
  setup_once();
  const int rate = int(state.range(0));
  const unsigned frame = unsigned(std::min<int64_t>(ADC_MAX_FRAME_SAMPLES, rate / 100));
  veltrix::adc::Stream& stream = veltrix::adc::state().slots[usb_list_get_index(kSerial)].stream;
  std::vector<short> buf(size_t(frame) * 64);
  double lib_cpu = 0, wall = 0;
  unsigned long long total = 0;
  for (auto _ : state) {
    if (ADC_StartContinueRead(kSerial, 0x01, rate, frame, nullptr) != 0) fail("start failed", 0);
    clockid_t reader_clock;
    if (pthread_getcpuclockid(stream.thread.native_handle(), &reader_clock) != 0)
      fail("no reader thread", 0);
    const double reader0 = cpu_seconds(reader_clock);
    const double main0 = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
    const auto t0 = std::chrono::steady_clock::now();
    unsigned long long got = 0;
    while (std::chrono::steady_clock::now() - t0 < kRunTime) {
      int n = ADC_GetData(kSerial, buf.data(), int(buf.size()));
      if (n < 0) fail("ADC_GetData failed", got);
      // The ramp of input 0 starts at 0 with every start; a gap is a lost sample.
      for (int i = 0; i < n; ++i, ++got)
        if (uint16_t(buf[size_t(i)]) != uint16_t(got)) fail("gap in the ramp", got);
      if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    lib_cpu += cpu_seconds(reader_clock) - reader0 + cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - main0;
    unsigned int dropped = 0;
    if (ADC_GetStreamState(kSerial, &dropped) != 1) fail("stream ended early", got);
    ADC_StopContinueRead(kSerial);
    uint64_t lost;
    {
      std::scoped_lock g(veltrix::sim::sim_mutex());
      lost = veltrix::sim::adc_sim(*model).frames_lost;
    }
    // A library that falls behind shows here: the adapter's backlog overflows (lost) or
    // the queue overflows (dropped).
    if (dropped != 0 || lost != 0) fail("frames dropped", got);
    if (got == 0) fail("no samples", got);
    total += got;
    wall += elapsed;
    state.SetIterationTime(elapsed);
  }
  // Samples delivered per second of wall time; below the rate by what was still in flight
  // at the end of each run.
  state.counters["samples_per_s"] = double(total) / wall;
  state.counters["lib_cpu_pct"] = 100.0 * lib_cpu / wall;
  state.counters["frame_samples"] = frame;
}
BENCHMARK(BM_AdcStream)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(2)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
