// CAN FD reception: the direct read (0x4003), the poll that feeds the two queues of a
// port, the one receive thread per adapter, the queue accessors and stopping a port.
#include "can/fd_receive.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>

#include "can/fd_element.hpp"
#include "can/fd_state.hpp"
#include "device/abi.hpp"
#include "device/locks.hpp"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdRead = 0x4003;
constexpr uint32_t kCmdStop = 0x400C;

// Reads into the slot's own reply buffer; the caller holds the slot's read_mutex.
int read_locked(uint32_t h, FdSlot& s, uint8_t port, std::span<CANFD_MSG> out) {
  if (!s.reply) s.reply = std::make_unique<uint8_t[]>(kFdReplyBytes);
  // The adapter has one receive FIFO per port and knows only ports 0 and 1.
  const uint8_t payload[1] = {uint8_t(port % 2)};
  ExchangeResult r =
      exchange(h, {.cmd = kCmdRead, .payload = payload, .reply = {s.reply.get(), kFdReplyBytes}});
  if (!r.ok()) return fd_map_result(r);
  // A reply longer than the buffer was cut by the transport; decode what arrived.
  return int(decode_elements({s.reply.get(), r.copied}, port, out));
}

// One poll of the port: read into the slot's scratch records, queue. Returns 0 or the
// read's negative code.
int poll_port(uint32_t h, int slot, unsigned port) {
  FdSlot& s = fd_state().slot[slot];
  std::scoped_lock g(s.read_mutex);
  if (!s.scratch) s.scratch = std::make_unique<CANFD_MSG[]>(kFdReadMax);
  int n = read_locked(h, s, uint8_t(port), {s.scratch.get(), kFdReadMax});
  if (n < 0) return n;
  queue_fd_batch(h, port, {s.scratch.get(), size_t(n)});
  return 0;
}

// The poll behind CANFD_ReadMsgToBuffer: a failed read also ends the thread's polling of
// the port, so a vanished adapter is not polled forever.
int read_to_buffer(uint32_t h, unsigned port) {
  auto slot = fd_slot_of(h);
  if (!slot) return 0;
  FdPort* ps = fd_port_state(*slot, port);
  if (ps == nullptr) return 0;
  int r = poll_port(h, *slot, port);
  if (r < 0) ps->run.store(0);
  return r;
}

void reader_loop(uint32_t h, int slot) {
  FdSlot& s = fd_state().slot[slot];
  for (;;) {
    if (!s.port[0].run.load() && !s.port[1].run.load()) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(kFdPollPeriodMs));
    for (unsigned p = 0; p < unsigned(kFdPorts); ++p)
      if (s.port[p].run.load()) read_to_buffer(h, p);
  }
}

}  // namespace

size_t decode_elements(std::span<const uint8_t> reply, unsigned port, std::span<CANFD_MSG> out) {
  size_t n = 0, at = 0;
  while (at < reply.size() && n < out.size()) {
    size_t used = decode_element(reply.subspan(at), port, out[n]);
    if (used == 0) break;
    at += used;
    ++n;
  }
  return n;
}

void queue_fd_batch(uint32_t h, unsigned port, std::span<const CANFD_MSG> batch) {
  auto slot = fd_slot_of(h);
  if (!slot) return;
  FdPort* ps = fd_port_state(*slot, port);
  if (ps == nullptr) return;
  ChannelLock g(LockFamily::CanData, h, int(port));
  ps->rx.push_all(batch);
  ps->uds.push_all(batch);
}

int fd_read(uint32_t h, uint8_t port, std::span<CANFD_MSG> out) {
  auto slot = fd_slot_of(h);
  if (!slot) return CANFD_ERR_USB_WRITE_FAIL;
  FdSlot& s = fd_state().slot[*slot];
  std::scoped_lock g(s.read_mutex);
  return read_locked(h, s, port, out);
}

int fd_start_get_port(uint32_t h, uint8_t port_arg) {
  auto slot = fd_slot_of(h);
  if (!slot) return CANFD_ERR_USB_WRITE_FAIL;
  const unsigned port = port_arg & 1;
  FdSlot& s = fd_state().slot[*slot];
  s.handle.store(h);
  {
    // Reception starts from an empty queue: frames left from before are not news.
    ChannelLock g(LockFamily::CanData, h, int(port));
    s.port[port].rx.clear();
  }
  std::scoped_lock g(s.thread_mutex);
  if (s.port[0].run.load() || s.port[1].run.load()) {
    s.port[port].run.store(1);
    return CANFD_SUCCESS;
  }
  // A thread that ended by itself (every port's poll failed) is collected first.
  if (s.reader.joinable()) s.reader.join();
  s.port[port].run.store(1);
  try {
    s.reader = std::thread(reader_loop, h, *slot);
  } catch (const std::system_error&) {
    s.port[port].run.store(0);  // no thread polls it
    return CANFD_ERR_USB_READ_FAIL;
  }
  return CANFD_SUCCESS;
}

int fd_stop_get_port(uint32_t h, uint8_t port_arg) {
  auto slot = fd_slot_of(h);
  if (!slot) return CANFD_ERR_USB_WRITE_FAIL;
  const unsigned port = port_arg & 1;
  FdSlot& s = fd_state().slot[*slot];
  std::scoped_lock g(s.thread_mutex);
  s.port[port].run.store(0);
  if (s.port[port ^ 1].run.load()) return CANFD_SUCCESS;
  if (!s.reader.joinable()) return CANFD_ERR_USB_READ_FAIL;
  // The thread sees both flags clear at its next turn; it never takes thread_mutex.
  s.reader.join();
  return CANFD_SUCCESS;
}

namespace {

// Moves up to `capacity` frames of one queue of the port, polling once first when the
// thread does not poll the port. Returns the count, or the poll's code when poll_errors.
int take(uint32_t h, unsigned port, CANFD_MSG* out, int capacity, bool uds, bool poll_errors) {
  if (capacity < 1) return 0;
  if (out == nullptr) return CANFD_ERR_PARAMETER;
  auto slot = fd_slot_of(h);
  if (!slot) return 0;
  FdPort* ps = fd_port_state(*slot, port);
  if (ps == nullptr) return 0;
  if (!ps->run.load()) {
    int r = read_to_buffer(h, port);
    if (poll_errors && r < 0) return r;
  }
  ChannelLock g(LockFamily::CanData, h, int(port));
  return int((uds ? ps->uds : ps->rx).drain({out, size_t(capacity)}));
}

}  // namespace

int fd_get_msgs(uint32_t h, uint8_t port, CANFD_MSG* out, int capacity) {
  return take(h, port, out, capacity, false, true);
}

int fd_clear_port(uint32_t h, uint8_t port) {
  auto slot = fd_slot_of(h);
  if (!slot) return CANFD_SUCCESS;
  FdPort* ps = fd_port_state(*slot, port);
  if (ps == nullptr) return CANFD_SUCCESS;
  if (!ps->run.load()) {
    // Fetch what the adapter holds so it is discarded with the queue.
    int r = read_to_buffer(h, port);
    if (r < 0) return r;
  }
  ChannelLock g(LockFamily::CanData, h, int(port));
  ps->rx.clear();
  return CANFD_SUCCESS;
}

int fd_stop(uint32_t h, uint8_t port) {
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  fd_stop_get_port(h, port);  // "no thread" is no reason not to stop the port
  const uint8_t payload[1] = {port};
  int r = fd_map_ack(exchange(h, {.cmd = kCmdStop, .payload = payload}));
  if (r != CANFD_SUCCESS) return r;
  fd_clear_port(h, port);
  return CANFD_SUCCESS;
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CANFD_ReadMsg, (unsigned int h, unsigned char port, CANFD_MSG* out),
               CANFD_ERR_USB_READ_FAIL, {
                 if (out == nullptr) return CANFD_ERR_PARAMETER;
                 return can::fd_read(h, port, {out, can::kFdReadMax});
               })

VELTRIX_EXPORT(int, CANFD_ReadMsgToBuffer, (unsigned int h, unsigned char port), 0,
               { return can::read_to_buffer(h, port); })

VELTRIX_EXPORT(int, CANFD_StartGetMsg, (unsigned int h, unsigned char port),
               CANFD_ERR_USB_READ_FAIL, { return can::fd_start_get_port(h, port); })

VELTRIX_EXPORT(int, CANFD_StopGetMsg, (unsigned int h, unsigned char port), CANFD_ERR_USB_READ_FAIL,
               { return can::fd_stop_get_port(h, port); })

VELTRIX_EXPORT(int, CANFD_GetMsg, (unsigned int h, unsigned char port, CANFD_MSG* out, int n),
               CANFD_ERR_USB_READ_FAIL, { return can::fd_get_msgs(h, port, out, n); })

VELTRIX_EXPORT(int, CANFD_ClearMsg, (unsigned int h, unsigned char port), CANFD_ERR_USB_READ_FAIL,
               { return can::fd_clear_port(h, port); })

VELTRIX_EXPORT(int, CANFD_Stop, (unsigned int h, unsigned char port), CANFD_ERR_USB_READ_FAIL,
               { return can::fd_stop(h, port); })

VELTRIX_EXPORT(int, CANFD_SetCANMsgToBuffer,
               (unsigned int h, unsigned char port, CANFD_MSG* frames, int count), 0, {
                 if (count < 1) return CANFD_SUCCESS;
                 if (frames == nullptr) return CANFD_ERR_PARAMETER;
                 auto slot = can::fd_slot_of(h);
                 if (!slot) return CANFD_SUCCESS;
                 can::FdPort* ps = can::fd_port_state(*slot, port & 1u);
                 ChannelLock g(LockFamily::CanData, h, int(port & 1u));
                 ps->rx.push_all({frames, size_t(count)});
                 return CANFD_SUCCESS;
               })

VELTRIX_EXPORT(int, CANFD_GetCANMsgFromUDSBuffer,
               (unsigned int h, unsigned char port, CANFD_MSG* out, int n), 0,
               { return can::take(h, port, out, n, true, false); })

VELTRIX_EXPORT(int, CANFD_ClearCANMsgFromUDSBuffer, (unsigned int h, unsigned char port), 0, {
  auto slot = can::fd_slot_of(h);
  if (!slot) return CANFD_SUCCESS;
  can::FdPort* ps = can::fd_port_state(*slot, port);
  if (ps == nullptr) return CANFD_SUCCESS;
  ChannelLock g(LockFamily::CanData, h, int(port));
  ps->uds.clear();
  return CANFD_SUCCESS;
})

}  // extern "C"
