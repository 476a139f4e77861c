#include "sim/can_bus.hpp"

#include <algorithm>

#include "device/wire.hpp"
#include "sim/canfd_bus.hpp"
#include "sim/schedule_runner.hpp"

namespace veltrix::sim {
namespace {

using namespace can_ctl;

constexpr uint32_t kCmdInit = 0x0C00;
constexpr uint32_t kCmdFilter = 0x0C01;
constexpr uint32_t kCmdSend = 0x0C02;
constexpr uint32_t kCmdRead = 0x0C03;
constexpr uint32_t kCmdStatus = 0x0C04;
constexpr uint32_t kCmdStop = 0x0C09;
constexpr uint32_t kCmdSendSync = 0x0C0A;
constexpr uint32_t kCmdTxInfo = 0x0C0B;

constexpr size_t kRecord = 20;
constexpr size_t kSyncHeader = 12;

uint64_t now_100us(Model& m) { return device_time(m, 100); }

// Record layout (little-endian): ID, time low, flags (bit 0 RTR), ext, length, data[8],
// time high.
CanFrame decode(const uint8_t* p) {
  CanFrame f;
  f.id = wire::get_le32(p);
  f.rtr = p[8] & 1;
  f.ext = p[9] & 1;
  f.id &= f.ext ? 0x1FFFFFFFu : 0x7FFu;
  f.len = std::min<uint8_t>(p[10], 8);
  std::copy_n(p + 11, 8, f.data.begin());
  return f;
}

void encode(const CanFrame& f, uint8_t* p) {
  wire::put_le32(p, f.id);
  wire::put_le32(p + 4, uint32_t(f.time));
  p[8] = f.rtr ? 1 : 0;
  p[9] = f.ext ? 1 : 0;
  p[10] = f.len;
  std::copy_n(f.data.begin(), 8, p + 11);
  p[19] = uint8_t(f.time >> 32);
}

// The frame in the filter register form: standard id in bits 31..21, extended id in
// bits 31..3, IDE bit 2, RTR bit 1.
uint32_t register_form(const CanFrame& f) {
  uint32_t flags = (f.ext ? 4u : 0u) | (f.rtr ? 2u : 0u);
  return (f.ext ? f.id << 3 : f.id << 21) | flags;
}

bool accepts(const CanPortModel& p, const CanFrame& f) {
  bool any = false;
  const uint32_t r = register_form(f);
  for (const CanFilterBank& b : p.banks) {
    if (!b.enabled) continue;
    any = true;
    if (b.list_mode ? (r == b.id || r == b.mask) : ((r ^ b.id) & b.mask) == 0) return true;
  }
  return !any;
}

void receive(CanPortModel& p, const CanFrame& f) {
  if (p.rx.size() >= kRxFifoDepth) {
    ++p.rx_overruns;
    if (p.rx_fifo_locked) return;
    p.rx.pop_front();
  }
  p.rx.push_back(f);
}

// One frame from port `from` onto the cable, to the other port's classic controller or,
// on the CAN FD models, its CAN FD controller. False when nobody acknowledged it.
bool reaches_peer(Model& m, CanBusState& bus, unsigned from, CanFrame& f) {
  CanPortModel& tx = bus.ports[from];
  if (tx.bit_rate == 0) return false;
  f.time = now_100us(m);
  bool acked = false;
  if (bus.cable) {
    CanPortModel& peer = bus.ports[from ^ 1];
    if (peer.running && peer.bit_rate == tx.bit_rate) {
      if (accepts(peer, f)) receive(peer, f);
      acked = true;
    } else {
      acked = canfd_offer_classic(m, from ^ 1, f, tx.bit_rate);
    }
  }
  // Other nodes on the bus (a diagnostic server) acknowledge while present and see every
  // frame that was sent.
  for (const CanNode& node : bus.nodes) acked = acked || node.present(m);
  if (!acked) return false;
  for (const CanNode& node : bus.nodes) node.on_frame(m, from, f);
  count_tx_success(tx, f);
  return true;
}

// Puts a batch on the bus from port `from`.
void transmit(Model& m, CanBusState& bus, unsigned from, std::vector<CanFrame> frames) {
  CanPortModel& tx = bus.ports[from];
  begin_batch(tx, frames.size());
  const int abort_after = tx.abort_after;
  tx.abort_after = -1;
  if (tx.bus_off && tx.auto_bus_off_recovery) {
    tx.bus_off = false;
    tx.tec = tx.rec = 0;
  }
  for (CanFrame& f : frames) {
    if (abort_after >= 0 && tx.delivered >= uint32_t(abort_after)) {
      tx.aborted = true;
      return;
    }
    if (tx.bus_off) return;  // stays queued
    if (!reaches_peer(m, bus, from, f)) {
      count_tx_error(tx, kLecAck);
      // Without retransmission the frame is given up, and the adapter gives up the
      // batch; with it the controller keeps retrying this frame and the rest waits.
      tx.aborted = tx.no_auto_retransmit;
      return;
    }
    ++tx.delivered;
  }
}

std::vector<CanFrame> decode_records(const uint8_t* p, size_t n) {
  std::vector<CanFrame> out;
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) out.push_back(decode(p + i * kRecord));
  return out;
}

std::optional<Reply> on_init(Model& m, const Command& c) {
  if (c.payload.size() != 13 || !port_ok(c, 0)) return refuse(c);
  const uint8_t* p = c.payload.data();
  CanPortModel& port = can_bus(m).ports[p[0]];
  // Ports 0 and 1 take register values: each segment minus one.
  const uint32_t seg1 = p[9] + 1u, seg2 = p[10] + 1u;
  const uint32_t prescaler = wire::get_be16(p + 11);
  port.running = true;
  port.auto_bus_off_recovery = p[2] & 1;
  port.no_auto_retransmit = p[4] & 1;
  port.rx_fifo_locked = p[5] & 1;
  port.tx_fifo_order = p[6] & 1;
  port.mode = p[7];
  port.bit_rate = prescaler ? can_clock_hz(m) / (prescaler * (1 + seg1 + seg2)) : 0;
  clear_on_start(port);
  return ack(c);
}

std::optional<Reply> on_filter(Model& m, const Command& c) {
  if (c.payload.size() != 14 || !port_ok(c, 0)) return refuse(c);
  const uint8_t* p = c.payload.data();
  const unsigned bank = p[1];
  if (bank / kCanBanks != p[0]) return refuse(c);  // banks 0-13 port 0, 14-27 port 1
  CanFilterBank& b = can_bus(m).ports[p[0]].banks[bank % kCanBanks];
  b.list_mode = p[2] != 0;
  b.id = uint32_t(wire::get_be16(p + 4)) << 16 | wire::get_be16(p + 6);
  b.mask = uint32_t(wire::get_be16(p + 8)) << 16 | wire::get_be16(p + 10);
  b.enabled = p[13] != 0;
  return ack(c);
}

std::optional<Reply> on_send(Model& m, const Command& c) {
  Bytes count(4, 0);
  if (!port_ok(c, 0) || (c.payload.size() - 1) % kRecord != 0) return Reply{c.code, count};
  CanBusState& bus = can_bus(m);
  const unsigned port = c.payload[0];
  if (!bus.ports[port].running) return Reply{c.code, count};
  const size_t n = (c.payload.size() - 1) / kRecord;
  transmit(m, bus, port, decode_records(c.payload.data() + 1, n));
  wire::put_le32(count.data(), uint32_t(n));
  return Reply{c.code, count};
}

std::optional<Reply> on_send_sync(Model& m, const Command& c) {
  if (!port_ok(c, 10) || c.payload.size() < kSyncHeader) return refuse(c);
  const size_t n = c.payload[11];
  if (c.payload.size() != kSyncHeader + n * kRecord) return refuse(c);
  CanBusState& bus = can_bus(m);
  const unsigned port = c.payload[10];
  if (!bus.ports[port].running) return refuse(c);
  transmit(m, bus, port, decode_records(c.payload.data() + kSyncHeader, n));
  return ack(c);
}

std::optional<Reply> on_read(Model& m, const Command& c) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  run_schedules(m);
  CanPortModel& port = can_bus(m).ports[c.payload[0]];
  const size_t n = std::min(port.rx.size(), kReadBatchMax);
  Bytes out(n * kRecord);
  for (size_t i = 0; i < n; ++i) encode(port.rx[i], out.data() + i * kRecord);
  port.rx.erase(port.rx.begin(), port.rx.begin() + long(n));
  return Reply{c.code, std::move(out)};
}

std::optional<Reply> on_status(Model& m, const Command& c) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  const CanPortModel& p = can_bus(m).ports[c.payload[0]];
  //   error status word: 31..24 REC | 23..16 TEC | 6..4 last error | 2 bus-off |
  //                      1 error passive | 0 error warning
  uint32_t e = uint32_t(p.rec) << 24 | uint32_t(p.tec) << 16 | uint32_t(p.last_error & 7) << 4 |
               state_flags(p);
  Bytes out(8);
  wire::put_le32(out.data(), p.running ? 1u : 0u);  // status word: bit 0 port started
  wire::put_le32(out.data() + 4, e);
  return Reply{c.code, std::move(out)};
}

std::optional<Reply> on_stop(Model& m, const Command& c) { return stop(c, can_bus(m).ports); }

std::optional<Reply> on_tx_info(Model& m, const Command& c) { return tx_info(c, can_bus(m).ports); }

}  // namespace

CanBusState& can_bus(Model& m) { return m.state<CanBusState>(); }

uint32_t can_clock_hz(const Model& m) {
  switch (m.model_code() >> 4) {
    case 0x4: return 42000000;
    case 0x5: return 40000000;
    default: return 100000000;
  }
}

void can_inject_rx(Model& m, unsigned port, const std::vector<CanFrame>& frames) {
  std::scoped_lock g(sim_mutex());
  CanBusState& bus = can_bus(m);
  CanPortModel& p = bus.ports.at(port);
  CanPortModel& other = bus.ports[port ^ 1];
  // With the cable unplugged the ports sit on two buses; the relay carries frames over.
  const bool relay = !bus.cable && relay_forwards(m, port) && other.running;
  for (const CanFrame& f : frames) {
    receive(p, f);
    if (relay) {
      other.sent.push_back(f);
      if (other.sent.size() > kSentLog) other.sent.pop_front();
    }
  }
}

void can_force_bus_off(Model& m, unsigned port) {
  std::scoped_lock g(sim_mutex());
  CanPortModel& p = can_bus(m).ports.at(port);
  p.bus_off = true;
  p.tec = 255;
}

void can_abort_next_batch(Model& m, unsigned port, int n) {
  std::scoped_lock g(sim_mutex());
  can_bus(m).ports.at(port).abort_after = n;
}

void can_deliver(Model& m, unsigned port, CanFrame f) {
  CanPortModel& p = can_bus(m).ports.at(port);
  if (!p.running) return;
  f.time = now_100us(m);
  if (accepts(p, f)) receive(p, f);
}

CanFrame can_decode_record(const uint8_t* p) { return decode(p); }

ClassicOffer can_offer_from_fd(Model& m, unsigned port, const CanFrame& f, bool fd_format,
                               uint32_t rate) {
  if (port >= kCanPorts) return ClassicOffer::NotThere;
  CanPortModel& p = can_bus(m).ports[port];
  if (!p.running || p.bit_rate != rate || rate == 0) return ClassicOffer::NotThere;
  if (fd_format) {
    // A classic controller cannot follow the FD frame format: it flags a form error.
    p.last_error = kLecForm;
    if (p.rec < kErrorPassive - 1) ++p.rec;
    return ClassicOffer::FormError;
  }
  if (accepts(p, f)) receive(p, f);
  return ClassicOffer::Taken;
}

bool can_put_on_bus(Model& m, unsigned from, CanFrame f) {
  CanBusState& bus = can_bus(m);
  if (from >= kCanPorts || !bus.ports[from].running || bus.ports[from].bus_off) return false;
  return reaches_peer(m, bus, from, f);
}

void install_can(Model& m) {
  m.on(kCmdInit, on_init);
  m.on(kCmdFilter, on_filter);
  m.on(kCmdSend, on_send);
  m.on(kCmdRead, on_read);
  m.on(kCmdStatus, on_status);
  m.on(kCmdStop, on_stop);
  m.on(kCmdSendSync, on_send_sync);
  m.on(kCmdTxInfo, on_tx_info);
}

}  // namespace veltrix::sim
