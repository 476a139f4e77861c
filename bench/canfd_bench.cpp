// CAN FD reception: the host-side processing of one polled reply (element decode and
// both queues of the port), and end to end through the virtual adapter: 64-byte frames
// with the bit rate switch sent on port 0 cross the cable and are polled from port 1 by
// the receive thread. The end-to-end figures count the CPU time of the library's own
// threads (the caller's and the receive thread); the virtual adapter's are not included.
// Every benchmark checks what it timed and aborts when the result is wrong.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "bench/virtual_adapter.hpp"
#include "can/fd_receive.hpp"
#include "can/fd_state.hpp"
#include "device/locks.hpp"
#include "device/wire.hpp"
#include "sim/testbed.hpp"
#include "veltrix/canfd.h"
#include "veltrix/usb_device.h"

namespace {

constexpr uint32_t kSerial = 0x53000001;
constexpr size_t kElement = 12 + 64;

std::shared_ptr<veltrix::sim::Model> g_model;

using veltrix::bench::fail;

void setup_once() {
  g_model = veltrix::bench::open_virtual_adapter(kSerial, [](veltrix::sim::Model&) {
    CANFD_CHANNEL_CONFIG c{};
    return CANFD_GetCANSpeedArg(kSerial, &c, 1000000, 5000000) == 0 &&
           CANFD_Init(kSerial, 0, &c) == 0 && CANFD_Init(kSerial, 1, &c) == 0;
  });
}

// A read reply of n 64-byte FD frames with BRS, identifiers 0..n-1, built by hand from
// the element layout (independently of the library's codec).
std::vector<uint8_t> reply_of(size_t n) {
  std::vector<uint8_t> r(n * kElement);
  for (size_t i = 0; i < n; ++i) {
    uint8_t* e = r.data() + i * kElement;
    veltrix::wire::put_le32(e, uint32_t(i & 0x7FF));
    e[4] = 0x80 | 0x40 | 15;
    veltrix::wire::put_le32(e + 8, uint32_t(1000 + i));
    for (size_t b = 0; b < 64; ++b) e[12 + b] = uint8_t(i + b);
  }
  return r;
}

veltrix::can::FdPort& port_state(unsigned port) {
  return veltrix::can::fd_state().slot[*veltrix::can::fd_slot_of(kSerial)].port[port];
}

size_t queued(unsigned port) {
  veltrix::ChannelLock g(veltrix::LockFamily::CanData, kSerial, int(port));
  return port_state(port).rx.size() + port_state(port).uds.size();
}

void empty_queues(unsigned port) {
  veltrix::ChannelLock g(veltrix::LockFamily::CanData, kSerial, int(port));
  port_state(port).rx.clear();
  port_state(port).uds.clear();
}

// One poll's worth of host work: decode the elements, append them to the application's
// and the ISO-TP queue (full queues: every append also drops the oldest).
void BM_FdReceiveProcessing(benchmark::State& state) {
  setup_once();
  const size_t n = size_t(state.range(0));
  const auto reply = reply_of(n);
  std::vector<CANFD_MSG> out(n);
  empty_queues(0);
  for (auto _ : state) {
    size_t got = veltrix::can::decode_elements(reply, 0, out);
    veltrix::can::queue_fd_batch(kSerial, 0, {out.data(), got});
    if (got != n) fail("decode lost frames");
  }
  // The last batch decoded as built.
  const CANFD_MSG& last = out[n - 1];
  if (last.ID != uint32_t((n - 1) & 0x7FF) || last.DLC != 64 || last.Flags != 0x05 ||
      last.Data[63] != uint8_t(n - 1 + 63) || last.TimeStamp != uint32_t(1000 + n - 1))
    fail("decoded frame differs from the reply");
  if (queued(0) != 2 * std::min<size_t>(CANFD_MSG_QUEUE_SIZE, n * size_t(state.iterations())))
    fail("queues hold the wrong number of frames");
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(n));
}
// 269 frames: one full 20480-byte reply of 64-byte frames.
BENCHMARK(BM_FdReceiveProcessing)->Arg(269)->Arg(2000);

double thread_cpu_s(pthread_t t) {
  clockid_t id;
  timespec ts{};
  if (pthread_getcpuclockid(t, &id) != 0 || clock_gettime(id, &ts) != 0) return 0;
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

pthread_t reader_thread() {
  auto& slot = veltrix::can::fd_state().slot[*veltrix::can::fd_slot_of(kSerial)];
  std::scoped_lock g(slot.thread_mutex);
  return slot.reader.native_handle();
}

// Sends batches on port 0 and takes them from port 1's queue as fast as they come.
void BM_FdEndToEnd(benchmark::State& state) {
  setup_once();
  if (CANFD_StartGetMsg(kSerial, 1) != 0) fail("receive thread did not start");
  const pthread_t reader = reader_thread();
  const size_t n = size_t(state.range(0));
  std::vector<CANFD_MSG> tx(n), rx(CANFD_MSG_QUEUE_SIZE);
  const double cpu0 = thread_cpu_s(pthread_self()) + thread_cpu_s(reader);
  int64_t frames = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) {
      tx[i] = CANFD_MSG{};
      tx[i].ID = uint32_t(i & 0x7FF);
      tx[i].DLC = 64;
      tx[i].Flags = CANFD_MSG_FLAG_FDF;
      tx[i].Data[0] = uint8_t(i);
    }
    if (CANFD_SendMsg(kSerial, 0, tx.data(), uint32_t(n)) != int(n)) fail("send failed");
    for (size_t got = 0; got < n;) {
      int k = CANFD_GetMsg(kSerial, 1, rx.data() + got, int(rx.size() - got));
      if (k < 0) fail("receive failed");
      got += size_t(k);
      if (k == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const CANFD_MSG& last = rx[n - 1];
    if (last.ID != uint32_t((n - 1) & 0x7FF) || last.DLC != 64 ||
        last.Flags != (CANFD_MSG_FLAG_FDF | CANFD_MSG_FLAG_BRS | CANFD_MSG_FLAG_PORT) ||
        last.Data[0] != uint8_t(n - 1))
      fail("received frame differs from the one sent");
    frames += int64_t(n);
    g_model->clear_record();  // the adapter's command log would grow without end
  }
  const double cpu = thread_cpu_s(pthread_self()) + thread_cpu_s(reader) - cpu0;
  CANFD_StopGetMsg(kSerial, 1);
  state.SetItemsProcessed(frames);
  state.counters["lib_cpu_ns_per_frame"] = frames ? cpu * 1e9 / double(frames) : 0;
}
BENCHMARK(BM_FdEndToEnd)->Arg(128)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
