// Process-wide host state of the classic CAN family: one object, 30 adapter slots of two
// ports each, indexed by the registry position of the adapter.
//
// Lock order: the adapter lock (inside veltrix::exchange) is never held while a channel
// data lock (LockFamily::CanData, handle, port) is taken: a poll finishes its exchange
// before it queues. CanSlot::thread_mutex only serialises starting and stopping the
// receive thread; the thread itself never takes it, so a stop may join while holding it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include "device/ring_buffer.hpp"
#include "device/transport.hpp"
#include "veltrix/can.h"

namespace veltrix::can {

inline constexpr int kSlots = 30;
inline constexpr int kPorts = 2;
inline constexpr size_t kQueueCapacity = CAN_MSG_QUEUE_SIZE;
inline constexpr size_t kReadMax = CAN_READ_MSG_MAX;
inline constexpr int kPollPeriodMs = 10;

struct CanPort {
  RingBuffer<CAN_MSG> rx{kQueueCapacity};   // guarded by the port's CanData lock
  RingBuffer<CAN_MSG> uds{kQueueCapacity};  // guarded by the port's CanData lock
  std::atomic<uint8_t> run{0};              // polled by the receive thread
  uint32_t starts = 0;                      // guarded by the slot's flag_mutex
  std::atomic<uint32_t> baud_rate{0};       // bit/s as stored by CAN_Init
};

struct CanSlot {
  CanPort port[kPorts];
  std::atomic<uint32_t> timestamp_error{0};  // adapter counter at CAN_Init, 100 us units
  std::atomic<uint64_t> time_start{0};       // host milliseconds at CAN_Init
  std::atomic<uint32_t> handle{0};           // the handle the receive thread serves
  std::atomic<uint64_t> clamped_records{0};  // received records whose DataLen was above 8
  std::mutex thread_mutex;
  // Makes a start and a failed poll's clearing of a port's flag exclusive. A leaf lock:
  // held for a few instructions, never across I/O or a join.
  std::mutex flag_mutex;
  std::thread reader;  // guarded by thread_mutex; not joinable: the slot has no thread
};

struct CanState {
  CanSlot slot[kSlots];
};

// The family's state; created on first use and never destroyed, so a receive thread that
// outlives main() never touches a destroyed object.
CanState& state();

// The adapter's slot, or nothing for a handle that is not in the registry.
std::optional<int> slot_of(uint32_t handle);
// The port's host state, or null for a port without one (above 1).
CanPort* port_state(int slot, unsigned port);

// Top byte 0x53 or 0x54: the CAN FD model.
inline bool is_canfd_model(uint32_t handle) {
  return (handle & 0xFF000000u) - 0x53000000u < 0x02000000u;
}

// Counts received records whose length had to be cut to the 8 bytes a record holds.
void count_clamped(uint32_t handle, size_t n);
// The count so far for an adapter (0 for a handle not in the registry).
uint64_t clamped_records(uint32_t handle);

// Frame time made by the host: the adapter's counter at CAN_Init plus the host time
// elapsed since, both in 100 us units (wraps with the 32-bit counter).
uint32_t host_timestamp(int slot);

// The one table from transport results to the family's codes. The public table has one
// code for every reply fault (none, late, short, wrong code, lost framing).
inline int map_result(const ExchangeResult& r) {
  switch (r.code) {
    case Transport::Ok: return CAN_SUCCESS;
    case Transport::WriteFailed: return CAN_ERR_USB_WRITE_FAIL;
    default:
      return CAN_ERR_USB_READ_FAIL;
  }
}

// Commands acknowledged by an empty reply: a reply carrying payload is a refusal.
inline int map_ack(const ExchangeResult& r) {
  if (!r.ok()) return map_result(r);
  return r.reply_len > 0 ? CAN_ERR_USB_READ_FAIL : CAN_SUCCESS;
}

// Frame flags set on sent frames and on received ones.
inline uint8_t port_bits(unsigned port) { return uint8_t((port << 5) & CAN_MSG_FLAG_PORT_MASK); }

}  // namespace veltrix::can
