// What the classic and the CAN FD controller models of the adapter have in common: how the
// firmware answers and refuses commands, the error counters and state flags, the device
// clock frames are stamped with, the log of frames put on the bus, and the progress report
// of the last transmit batch. Each model keeps its own port record; these work on any that
// has the fields they name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr size_t kCanPorts = 2;
inline constexpr size_t kSentLog = 65536;  // frames of a port's `sent` log

namespace can_ctl {

inline constexpr uint8_t kRefusal = 0x01;  // status byte of a refused command
inline constexpr uint8_t kLecForm = 2;     // last error codes
inline constexpr uint8_t kLecAck = 3;
inline constexpr uint8_t kErrorPassive = 128;  // error counter thresholds
inline constexpr uint8_t kWarning = 96;
inline constexpr uint64_t kTimeMask = 0xFFFFFFFFFFull;  // frame times are 40 bits wide

using Bytes = std::vector<uint8_t>;

inline std::optional<Reply> ack(const Command& c) { return Reply{c.code, {}}; }
inline std::optional<Reply> refuse(const Command& c) { return Reply{c.code, {kRefusal}}; }

// The payload has a byte at `at` and it names a port of the adapter.
inline bool port_ok(const Command& c, size_t at) {
  return c.payload.size() > at && c.payload[at] < kCanPorts;
}

// The device counter in steps of `unit_us` since the host last zeroed it.
uint64_t device_time(Model& m, uint64_t unit_us);

// A frame nobody acknowledged, or one that broke: an error passive transmitter's counter
// no longer grows.
template <typename Port>
void count_tx_error(Port& tx, uint8_t lec) {
  tx.last_error = lec;
  if (tx.tec < kErrorPassive) tx.tec = uint8_t(tx.tec + 8);
}

// A frame that went out: the counter recovers by one and the frame is logged.
template <typename Port, typename Frame>
void count_tx_success(Port& tx, const Frame& f) {
  if (tx.tec) --tx.tec;
  tx.last_error = 0;
  tx.sent.push_back(f);
  if (tx.sent.size() > kSentLog) tx.sent.pop_front();
}

//   state flags: 2 bus-off | 1 error passive | 0 error warning
template <typename Port>
uint8_t state_flags(const Port& p) {
  uint8_t s = p.bus_off ? 4 : 0;
  if (p.tec >= kErrorPassive || p.rec >= kErrorPassive) s |= 2;
  if (p.tec >= kWarning || p.rec >= kWarning) s |= 1;
  return s;
}

// A start clears the error state, the receive FIFO and the last batch's progress.
template <typename Port>
void clear_on_start(Port& p) {
  p.tec = p.rec = 0;
  p.last_error = 0;
  p.bus_off = false;
  p.rx.clear();
  p.queued = p.delivered = 0;
  p.aborted = false;
}

template <typename Port>
void begin_batch(Port& tx, size_t frames) {
  tx.queued = uint32_t(frames);
  tx.delivered = 0;
  tx.aborted = false;
}

// The last batch's progress: queued, 0, delivered, aborted, one byte per count (the
// adapter reports them modulo 256). A malformed request gets an empty reply.
template <typename Ports>
std::optional<Reply> tx_info(const Command& c, const Ports& ports) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  const auto& p = ports[c.payload[0]];
  return Reply{c.code, {uint8_t(p.queued), 0, uint8_t(p.delivered), uint8_t(p.aborted ? 1 : 0)}};
}

// Stops the port and empties its receive FIFO.
template <typename Ports>
std::optional<Reply> stop(const Command& c, Ports& ports) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return refuse(c);
  auto& p = ports[c.payload[0]];
  p.running = false;
  p.rx.clear();
  return ack(c);
}

}  // namespace can_ctl
}  // namespace veltrix::sim
