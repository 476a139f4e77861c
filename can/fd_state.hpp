// Process-wide host state of the CAN FD family: 30 adapter slots of two ports each,
// indexed by the registry position of the adapter.
//
// Lock order: FdSlot::read_mutex, then the adapter lock (inside veltrix::exchange), which
// is released before the port's data lock (LockFamily::CanData, handle, port) is taken;
// an adapter lock and a data lock are never held together. FdSlot::thread_mutex only
// serialises starting and stopping the receive thread; the thread never takes it, so a
// stop may join while holding it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "device/ring_buffer.hpp"
#include "device/transport.hpp"
#include "veltrix/canfd.h"

namespace veltrix::can {

inline constexpr int kFdSlots = 30;
inline constexpr int kFdPorts = 2;
inline constexpr size_t kFdQueueCapacity = CANFD_MSG_QUEUE_SIZE;
inline constexpr size_t kFdReadMax = CANFD_READ_MSG_MAX;
inline constexpr size_t kFdReplyBytes = 20480;
inline constexpr int kFdPollPeriodMs = 10;

struct FdPort {
  RingBuffer<CANFD_MSG> rx{kFdQueueCapacity};   // guarded by the port's CanData lock
  RingBuffer<CANFD_MSG> uds{kFdQueueCapacity};  // guarded by the port's CanData lock
  std::atomic<uint8_t> run{0};                  // polled by the receive thread
};

struct FdSlot {
  FdPort port[kFdPorts];
  std::atomic<uint32_t> handle{0};  // the handle the receive thread serves
  std::mutex thread_mutex;
  std::thread reader;  // guarded by thread_mutex; not joinable: the slot has no thread
  // Each adapter has its own reply buffer and scratch records, so two adapters polled at
  // once never share one. Allocated on the slot's first read.
  std::mutex read_mutex;
  std::unique_ptr<uint8_t[]> reply;      // guarded by read_mutex; kFdReplyBytes
  std::unique_ptr<CANFD_MSG[]> scratch;  // guarded by read_mutex; kFdReadMax records
};

struct FdState {
  FdSlot slot[kFdSlots];
};

// Created on first use and never destroyed: a receive thread that outlives main() never
// touches a destroyed object.
FdState& fd_state();

// The adapter's slot, or nothing for a handle that is not in the registry.
std::optional<int> fd_slot_of(uint32_t handle);
// The port's host state, or null for a port above 1.
FdPort* fd_port_state(int slot, unsigned port);

// The one table from transport results to the family's codes. Failures it does not name
// are read failures: the command went out, no usable answer came back.
inline int fd_map_result(const ExchangeResult& r) {
  switch (r.code) {
    case Transport::Ok:
      return CANFD_SUCCESS;
    case Transport::WriteFailed:
      return CANFD_ERR_USB_WRITE_FAIL;
    default:
      return CANFD_ERR_USB_READ_FAIL;
  }
}

// Commands acknowledged by an empty reply: a reply carrying payload is a refusal.
inline int fd_map_ack(const ExchangeResult& r) {
  if (!r.ok()) return fd_map_result(r);
  return r.reply_len > 0 ? CANFD_ERR_USB_READ_FAIL : CANFD_SUCCESS;
}

}  // namespace veltrix::can
