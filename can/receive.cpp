// Reception: the direct read (0x0C03), the poll that feeds the two queues of a port (the
// application's and the ISO-TP layer's), the one receive thread per adapter, and the
// queue accessors.
#include "can/receive.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "can/can_state.hpp"
#include "can/fd_bridge.hpp"
#include "can/frame_codec.hpp"
#include "device/abi.hpp"
#include "device/locks.hpp"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdRead = 0x0C03;
constexpr uint32_t kCmdStop = 0x0C09;

uint32_t time_of(const CAN_MSG& m) { return m.TimeStamp; }

// Sorting by the 32-bit time only (the high byte is ignored, as the batch spans far less
// than one wrap of the low word).
void sort_batch(std::span<CAN_MSG> batch) {
  auto earlier = [](const CAN_MSG& a, const CAN_MSG& b) { return time_of(a) < time_of(b); };
  // Adapters nearly always deliver in time order; checking is cheaper than sorting, and a
  // stable sort keeps frames of equal time in the order the adapter gave them.
  if (!std::is_sorted(batch.begin(), batch.end(), earlier))
    std::stable_sort(batch.begin(), batch.end(), earlier);
}

// One poll of the port: read, sort, queue. Returns 0 or the read's negative code.
int poll_port(uint32_t h, unsigned port) {
  thread_local std::unique_ptr<CAN_MSG[]> room;  // one allocation per polling thread
  if (!room) room = std::make_unique<CAN_MSG[]>(kReadMax);
  int n = read_frames(h, uint8_t(port), {room.get(), kReadMax});
  if (n < 0) return n;
  queue_batch(h, port, {room.get(), size_t(n)});
  return 0;
}

void reader_loop(uint32_t h, int slot) {
  CanSlot& s = state().slot[slot];
  for (;;) {
    if (!s.port[0].run.load() && !s.port[1].run.load()) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollPeriodMs));
    // A port whose read fails is no longer polled; the application sees that only as
    // frames ceasing to arrive. A start made while the poll ran (the application starting
    // again once a vanished adapter is back) keeps the port polled.
    for (unsigned p = 0; p < unsigned(kPorts); ++p) {
      uint32_t starts;
      {
        std::scoped_lock g(s.flag_mutex);
        if (!s.port[p].run.load()) continue;
        starts = s.port[p].starts;
      }
      if (poll_port(h, p) >= 0) continue;
      std::scoped_lock g(s.flag_mutex);
      if (s.port[p].starts == starts) s.port[p].run.store(0);
    }
  }
}

void mark_polled(CanSlot& s, CanPort& ps) {
  std::scoped_lock g(s.flag_mutex);
  ++ps.starts;
  ps.run.store(1);
}

int start_get(uint32_t h, uint8_t port_arg) {
  auto slot = slot_of(h);
  if (!slot) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_start_get(h, port_arg);
  const unsigned port = port_arg & 1;
  CanSlot& s = state().slot[*slot];
  std::scoped_lock g(s.thread_mutex);
  s.handle.store(h);
  CanPort& ps = s.port[port];
  if (s.port[0].run.load() || s.port[1].run.load()) {
    mark_polled(s, ps);
    return CAN_SUCCESS;
  }
  // A thread that ended by itself (every port's poll failed) is collected first.
  if (s.reader.joinable()) s.reader.join();
  mark_polled(s, ps);
  try {
    s.reader = std::thread(reader_loop, h, *slot);
  } catch (const std::system_error&) {
    return CAN_ERR_USB_READ_FAIL;  // the port stays marked as polled
  }
  return CAN_SUCCESS;
}

int stop_get(uint32_t h, uint8_t port_arg) {
  auto slot = slot_of(h);
  if (!slot) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_stop_get(h, port_arg);
  const unsigned port = port_arg & 1;
  CanSlot& s = state().slot[*slot];
  std::scoped_lock g(s.thread_mutex);
  s.port[port].run.store(0);
  if (s.port[port ^ 1].run.load()) return CAN_SUCCESS;
  if (!s.reader.joinable()) return CAN_ERR_USB_READ_FAIL;
  // The thread sees both flags clear at its next turn; it never takes thread_mutex.
  s.reader.join();
  return CAN_SUCCESS;
}

// Moves up to out.size() frames of a queue of the port, polling once first when the
// thread does not poll it. Returns the count, or the poll's code when poll_errors.
int take(uint32_t h, unsigned port, std::span<CAN_MSG> out, bool uds, bool poll_errors) {
  auto slot = slot_of(h);
  if (!slot) return 0;
  CanPort* ps = port_state(*slot, port);
  if (ps == nullptr) return 0;
  if (!ps->run.load()) {
    int r = poll_port(h, port);
    if (poll_errors && r < 0) return r;
  }
  ChannelLock g(LockFamily::CanData, h, int(port));
  return int((uds ? ps->uds : ps->rx).drain(out));
}

int clear(uint32_t h, uint8_t port) {
  auto slot = slot_of(h);
  if (!slot) return CAN_SUCCESS;
  if (is_canfd_model(h)) return fd_clear(h, port);
  CanPort* ps = port_state(*slot, port & 1u);
  // Not polled: fetch what the adapter holds so it is discarded with the queue.
  if (!ps->run.load() && port < unsigned(kPorts)) poll_port(h, port);
  ChannelLock g(LockFamily::CanData, h, int(port & 1u));
  ps->rx.release();
  return CAN_SUCCESS;
}

int stop(uint32_t h, uint8_t port) {
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_stop_port(h, port);
  stop_get(h, port);  // "no thread" is no reason not to stop the port
  const uint8_t payload[1] = {port};
  int r = map_ack(exchange(h, {.cmd = kCmdStop, .payload = payload}));
  if (r != CAN_SUCCESS) return r;
  clear(h, port);
  return CAN_SUCCESS;
}

int set_to_buffer(uint32_t h, uint8_t port, const CAN_MSG* frames, int count) {
  if (count < 1) return CAN_SUCCESS;
  if (frames == nullptr) return CAN_ERR_PARAMETER;
  auto slot = slot_of(h);
  if (!slot) return CAN_SUCCESS;
  CanPort* ps = port_state(*slot, port & 1u);
  ChannelLock g(LockFamily::CanData, h, int(port & 1u));
  ps->rx.push_all({frames, size_t(count)});
  return CAN_SUCCESS;
}

int clear_uds(uint32_t h, uint8_t port) {
  auto slot = slot_of(h);
  if (!slot) return CAN_SUCCESS;
  CanPort* ps = port_state(*slot, port);
  if (ps == nullptr) return CAN_SUCCESS;
  ChannelLock g(LockFamily::CanData, h, int(port));
  ps->uds.clear();
  return CAN_SUCCESS;
}

}  // namespace

int read_frames(uint32_t h, uint8_t port, std::span<CAN_MSG> out) {
  const uint8_t payload[1] = {port};
  std::vector<uint8_t> raw(out.size() * kRecordSize);
  ExchangeResult r = exchange(h, {.cmd = kCmdRead, .payload = payload, .reply = raw});
  if (!r.ok()) return map_result(r);
  // A reply longer than the room was cut by the transport; a partial record is ignored.
  const size_t n = r.copied / kRecordSize;
  size_t clamped = 0;
  for (size_t i = 0; i < n; ++i) {
    out[i] = decode_frame(raw.data() + i * kRecordSize);
    // Applications copy DataLen bytes out of Data: never hand on more than it holds.
    if (out[i].DataLen > sizeof out[i].Data) {
      out[i].DataLen = sizeof out[i].Data;
      ++clamped;
    }
  }
  if (clamped) count_clamped(h, clamped);
  return int(n);
}

void queue_batch(uint32_t h, unsigned port, std::span<CAN_MSG> batch) {
  sort_batch(batch);
  const uint8_t bits = port_bits(port);
  for (CAN_MSG& m : batch) m.FrameFlags |= bits;
  auto slot = slot_of(h);
  if (!slot) return;
  CanPort* ps = port_state(*slot, port);
  if (ps == nullptr) return;
  ChannelLock g(LockFamily::CanData, h, int(port));
  ps->rx.push_all(batch);
  ps->uds.push_all(batch);
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CAN_ReadMsg, (unsigned int h, unsigned char port, CAN_MSG* out),
               CAN_ERR_USB_READ_FAIL, {
                 if (out == nullptr) return CAN_ERR_PARAMETER;
                 if (!can::slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
                 if (can::is_canfd_model(h)) return can::fd_get(h, port, out, int(can::kReadMax));
                 return can::read_frames(h, port, {out, can::kReadMax});
               })

VELTRIX_EXPORT_VOID(CAN_QuickSort, (CAN_MSG * a, int low, int high, int unused), {
  (void)unused;
  if (a == nullptr || low < 0) return;
  // Pivot: the first element; a hole moves between the two scans. The smaller part is
  // sorted by recursion and the larger by the loop, so the depth stays logarithmic.
  while (high > low) {
    const CAN_MSG pivot = a[low];
    int i = low, j = high;
    while (i < j) {
      while (i < j && a[j].TimeStamp >= pivot.TimeStamp) --j;
      a[i] = a[j];
      while (i < j && a[i].TimeStamp <= pivot.TimeStamp) ++i;
      a[j] = a[i];
    }
    a[i] = pivot;
    if (i - low < high - i) {
      CAN_QuickSort(a, low, i - 1, 0);
      low = i + 1;
    } else {
      CAN_QuickSort(a, i + 1, high, 0);
      high = i - 1;
    }
  }
})

VELTRIX_EXPORT(int, CAN_ReadMsgToBuffer, (unsigned int h, unsigned char port), 0, {
  if (!can::slot_of(h)) return 0;
  return can::poll_port(h, port);
})

VELTRIX_EXPORT(int, CAN_StartGetMsg, (unsigned int h, unsigned char port), CAN_ERR_USB_READ_FAIL,
               { return can::start_get(h, port); })

VELTRIX_EXPORT(int, CAN_StopGetMsg, (unsigned int h, unsigned char port), CAN_ERR_USB_READ_FAIL,
               { return can::stop_get(h, port); })

VELTRIX_EXPORT(int, CAN_GetMsg, (unsigned int h, unsigned char port, CAN_MSG* out), 0, {
  if (out == nullptr) return CAN_ERR_PARAMETER;
  if (can::is_canfd_model(h) && can::slot_of(h))
    return can::fd_get(h, port, out, int(can::kReadMax));
  return can::take(h, port, {out, can::kQueueCapacity}, false, false);
})

VELTRIX_EXPORT(int, CAN_GetMsgWithSize,
               (unsigned int h, unsigned char port, CAN_MSG* out, int size), 0, {
                 if (size >= 1 && out == nullptr) return CAN_ERR_PARAMETER;
                 if (can::is_canfd_model(h) && can::slot_of(h))
                   return can::fd_get(h, port, out, size);
                 // Without a receive thread the poll happens whatever the room: a batch the
                 // adapter holds is queued now instead of being left behind.
                 return can::take(h, port & 1u, {out, size_t(std::max(size, 0))}, false, true);
               })

VELTRIX_EXPORT(int, CAN_ClearMsg, (unsigned int h, unsigned char port), 0,
               { return can::clear(h, port); })

VELTRIX_EXPORT(int, CAN_Stop, (unsigned int h, unsigned char port), CAN_ERR_USB_READ_FAIL,
               { return can::stop(h, port); })

VELTRIX_EXPORT(int, CAN_SetCANMsgToBuffer,
               (unsigned int h, unsigned char port, CAN_MSG* frames, int count), 0,
               { return can::set_to_buffer(h, port, frames, count); })

VELTRIX_EXPORT(int, CAN_GetCANMsgFromUDSBuffer,
               (unsigned int h, unsigned char port, CAN_MSG* out, int size), 0, {
                 if (size >= 1 && out == nullptr) return CAN_ERR_PARAMETER;
                 return can::take(h, port, {out, size_t(std::max(size, 0))}, true, false);
               })

VELTRIX_EXPORT(int, CAN_ClearCANMsgFromUDSBuffer, (unsigned int h, unsigned char port), 0,
               { return can::clear_uds(h, port); })

}  // extern "C"
