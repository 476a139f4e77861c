// Classic CAN reception: the host-side processing of a polled batch (sort + both queues),
// and end to end through the virtual adapter: frames sent on port 0 cross the cable and
// are polled from port 1 by the receive thread. The end-to-end figures count the CPU
// time of the library's own threads (the caller's and the receive thread); the virtual
// adapter's threads are not included.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "bench/virtual_adapter.hpp"
#include "can/can_state.hpp"
#include "can/receive.hpp"
#include "sim/testbed.hpp"
#include "veltrix/can.h"
#include "veltrix/usb_device.h"

namespace {

constexpr uint32_t kSerial = 0x31000001;

std::shared_ptr<veltrix::sim::Model> g_model;

void setup_once() {
  g_model = veltrix::bench::open_virtual_adapter(kSerial, [](veltrix::sim::Model&) {
    CAN_CHANNEL_CONFIG c{};
    CAN_GetCANSpeedArg(kSerial, &c, 1000000);
    return CAN_Init(kSerial, 0, &c) == 0 && CAN_Init(kSerial, 1, &c) == 0;
  });
}

std::vector<CAN_MSG> batch(size_t n, bool shuffled) {
  std::vector<CAN_MSG> v(n);
  for (size_t i = 0; i < n; ++i) {
    v[i].ID = uint32_t(i & 0x7FF);
    v[i].TimeStamp = uint32_t(1000 + i);
    v[i].DataLen = 8;
  }
  if (shuffled) {
    std::mt19937 rng(42);
    std::shuffle(v.begin(), v.end(), rng);
  }
  return v;
}

// One poll's worth of host work: sort the batch, set the port bits, append to the
// application's and the ISO-TP queue (full queues: every append also drops the oldest).
void BM_ReceiveProcessing(benchmark::State& state) {
  setup_once();
  const auto src = batch(size_t(state.range(0)), state.range(1) != 0);
  std::vector<CAN_MSG> work(src.size());
  for (auto _ : state) {
    std::copy(src.begin(), src.end(), work.begin());
    veltrix::can::queue_batch(kSerial, 0, work);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ReceiveProcessing)->Args({2000, 0})->Args({2000, 1})->Args({100, 0});

double thread_cpu_s(pthread_t t) {
  clockid_t id;
  timespec ts{};
  if (pthread_getcpuclockid(t, &id) != 0 || clock_gettime(id, &ts) != 0) return 0;
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

pthread_t reader_thread() {
  auto& slot = veltrix::can::state().slot[*veltrix::can::slot_of(kSerial)];
  std::scoped_lock g(slot.thread_mutex);
  return slot.reader.native_handle();
}

// Sends batches on port 0 and takes them from port 1's queue as fast as they come.
void BM_EndToEnd(benchmark::State& state) {
  setup_once();
  CAN_StartGetMsg(kSerial, 1);
  const pthread_t reader = reader_thread();
  auto tx = batch(size_t(state.range(0)), false);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  const double cpu0 = thread_cpu_s(pthread_self()) + thread_cpu_s(reader);
  int64_t frames = 0;
  for (auto _ : state) {
    if (CAN_SendMsg(kSerial, 0, tx.data(), uint32_t(tx.size())) != int(tx.size())) {
      state.SkipWithError("send failed");
      break;
    }
    for (int got = 0; got < int(tx.size());) {
      int n = CAN_GetMsg(kSerial, 1, rx.data());
      got += std::max(n, 0);
      if (n <= 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    frames += int64_t(tx.size());
    g_model->clear_record();  // the adapter's command log would grow without end
  }
  const double cpu = thread_cpu_s(pthread_self()) + thread_cpu_s(reader) - cpu0;
  CAN_StopGetMsg(kSerial, 1);
  state.SetItemsProcessed(frames);
  state.counters["lib_cpu_ns_per_frame"] = frames ? cpu * 1e9 / double(frames) : 0;
}
BENCHMARK(BM_EndToEnd)->Arg(500)->Arg(2000)->UseRealTime()->Unit(benchmark::kMillisecond);

// A saturated 1 Mbit/s bus on both ports: 8000 frames/s each way, sent in 10 ms batches
// of 80, polled by the receive thread for one second. Reports the library's CPU share
// of one core.
void BM_SaturatedBus(benchmark::State& state) {
  setup_once();
  CAN_StartGetMsg(kSerial, 0);
  CAN_StartGetMsg(kSerial, 1);
  const pthread_t reader = reader_thread();
  auto tx = batch(80, false);
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  double share = 0;
  for (auto _ : state) {
    const double cpu0 = thread_cpu_s(pthread_self()) + thread_cpu_s(reader);
    const auto start = std::chrono::steady_clock::now();
    auto next = start;
    for (int tick = 0; tick < 100; ++tick) {
      CAN_SendMsg(kSerial, 0, tx.data(), 80);
      CAN_SendMsg(kSerial, 1, tx.data(), 80);
      CAN_GetMsg(kSerial, 0, rx.data());
      CAN_GetMsg(kSerial, 1, rx.data());
      g_model->clear_record();
      next += std::chrono::milliseconds(10);
      std::this_thread::sleep_until(next);
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    share = (thread_cpu_s(pthread_self()) + thread_cpu_s(reader) - cpu0) / wall;
  }
  CAN_StopGetMsg(kSerial, 0);
  CAN_StopGetMsg(kSerial, 1);
  state.counters["lib_cpu_percent_of_core"] = share * 100;
}
BENCHMARK(BM_SaturatedBus)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
