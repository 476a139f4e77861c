#include "sim/canfd_bus.hpp"

#include <algorithm>

#include "device/wire.hpp"
#include "sim/schedule_runner.hpp"

namespace veltrix::sim {
namespace {

using namespace can_ctl;

constexpr uint32_t kCmdInit = 0x4000;
constexpr uint32_t kCmdFilter = 0x4001;
constexpr uint32_t kCmdSend = 0x4002;
constexpr uint32_t kCmdRead = 0x4003;
constexpr uint32_t kCmdDiagnostic = 0x4004;
constexpr uint32_t kCmdBusError = 0x4005;
constexpr uint32_t kCmdEvents = 0x4009;
constexpr uint32_t kCmdTxInfo = 0x400A;
constexpr uint32_t kCmdStop = 0x400C;

constexpr uint32_t kClockHz = 40000000;
constexpr size_t kHeader = 12;
constexpr size_t kSendHeader = 12;
constexpr size_t kConfig = 20;
constexpr size_t kRule = 12;

uint64_t now_10us(Model& m) { return device_time(m, 10); }

uint8_t len_of(unsigned code) {
  static constexpr uint8_t kLen[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  return kLen[code & 15];
}
uint8_t code_of(unsigned len) {
  uint8_t c = 0;
  while (c < 15 && len_of(c) < len) ++c;
  return c;
}

uint32_t rate(uint32_t prescaler, uint32_t seg1, uint32_t seg2) {
  return prescaler ? kClockHz / (prescaler * (1 + seg1 + seg2)) : 0;
}

bool accepts(const CanFdPortModel& p, const FdFrame& f) {
  const uint32_t word = f.id | (f.rtr ? 0x40000000u : 0) | (f.ext ? 0x80000000u : 0);
  bool any = false;
  for (const FdFilter& r : p.filters) {
    if (!r.enabled) continue;
    any = true;
    if (((word ^ r.id) & r.mask) == 0) return true;
  }
  return !any;
}

void receive(CanFdPortModel& p, const FdFrame& f) {
  if (!accepts(p, f)) return;
  if (p.rx.size() >= kFdRxFifoDepth) {
    ++p.rx_overruns;
    p.rx.pop_front();
  }
  p.rx.push_back(f);
}

CanFrame to_classic(const FdFrame& f) {
  CanFrame c;
  c.id = f.id;
  c.ext = f.ext;
  c.rtr = f.rtr;
  c.len = std::min<uint8_t>(f.len, 8);
  std::copy_n(f.data.begin(), c.len, c.data.begin());
  c.time = (f.time / 10) & kTimeMask;
  return c;
}

// One frame from FD port `from` onto the cable; false when nobody took it.
bool deliver(Model& m, unsigned from, FdFrame& f) {
  CanFdState& fd = canfd_bus(m);
  CanFdPortModel& tx = fd.ports[from];
  const unsigned to = from ^ 1;
  CanFdPortModel& peer = fd.ports[to];
  if (tx.nominal_rate == 0) {
    count_tx_error(tx, kLecAck);
    return false;
  }
  f.time = now_10us(m);
  bool acked = false;
  if (can_bus(m).cable) {
    if (peer.running && peer.nominal_rate == tx.nominal_rate &&
        (!f.brs || peer.data_rate == tx.data_rate)) {
      receive(peer, f);
      acked = true;
    } else {
      ClassicOffer o = can_offer_from_fd(m, to, to_classic(f), f.fdf, tx.nominal_rate);
      if (o == ClassicOffer::FormError) {
        count_tx_error(tx, kLecForm);
        return false;
      }
      acked = o == ClassicOffer::Taken;
    }
  }
  // Other nodes on the bus (a diagnostic server) acknowledge while present and see every
  // frame that was sent.
  for (const FdNode& node : fd.nodes) acked = acked || node.present(m);
  if (!acked) {
    count_tx_error(tx, kLecAck);
    return false;
  }
  count_tx_success(tx, f);
  if (!tx.drop_events) tx.events.push_back(f);
  for (const FdNode& node : fd.nodes) node.on_frame(m, from, f);
  return true;
}

void transmit(Model& m, unsigned from, std::vector<FdFrame> frames) {
  CanFdPortModel& tx = canfd_bus(m).ports[from];
  begin_batch(tx, frames.size());
  int abort_after = -1;
  if (tx.abort_skip > 0) {
    --tx.abort_skip;
  } else {
    abort_after = tx.abort_after;
    tx.abort_after = -1;
  }
  for (FdFrame& f : frames) {
    if (abort_after >= 0 && tx.delivered >= uint32_t(abort_after)) {
      tx.aborted = true;
      return;
    }
    if (!deliver(m, from, f)) {
      // With retransmission the controller keeps retrying this frame and the rest waits;
      // without it the frame is given up, and with it the batch.
      tx.aborted = !tx.auto_retransmit;
      return;
    }
    ++tx.delivered;
  }
}

std::optional<Reply> on_init(Model& m, const Command& c) {
  if (c.payload.size() != 1 + kConfig || !port_ok(c, 0)) return refuse(c);
  const uint8_t* p = c.payload.data() + 1;
  CanFdPortModel& port = canfd_bus(m).ports[c.payload[0]];
  port.running = true;
  port.mode = p[0];
  port.auto_retransmit = p[2] != 0;
  port.nominal_rate = rate(p[4], p[5], p[6]);
  port.data_rate = rate(p[8], p[9], p[10]);
  clear_on_start(port);
  port.events.clear();
  return ack(c);
}

std::optional<Reply> on_filter(Model& m, const Command& c) {
  if (!port_ok(c, 0) || (c.payload.size() - 1) % kRule != 0) return refuse(c);
  CanFdPortModel& port = canfd_bus(m).ports[c.payload[0]];
  port.filters.clear();
  for (size_t at = 1; at < c.payload.size(); at += kRule) {
    const uint8_t* r = c.payload.data() + at;
    port.filters.push_back({r[0] != 0, wire::get_le32(r + 4), wire::get_le32(r + 8)});
  }
  return ack(c);
}

std::optional<Reply> on_send(Model& m, const Command& c) {
  if (!port_ok(c, 10) || c.payload.size() < kSendHeader) return refuse(c);
  const unsigned port = c.payload[10];
  const size_t count = c.payload[11];
  std::vector<FdFrame> frames;
  size_t at = kSendHeader;
  for (size_t i = 0; i < count; ++i) {
    FdFrame f;
    size_t used = fd_decode_element(c.payload.data() + at, c.payload.size() - at, f);
    if (used == 0) return refuse(c);
    frames.push_back(f);
    at += used;
  }
  if (at != c.payload.size()) return refuse(c);
  CanFdPortModel& tx = canfd_bus(m).ports[port];
  if (!tx.running) return refuse(c);
  transmit(m, port, std::move(frames));
  return Reply{c.code, {0}};
}

std::optional<Reply> on_read(Model& m, const Command& c) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  run_schedules(m);
  CanFdPortModel& port = canfd_bus(m).ports[c.payload[0]];
  Bytes out;
  size_t n = 0;
  for (; n < port.rx.size(); ++n) {
    if (out.size() + kHeader + port.rx[n].len > kFdReadReplyMax) break;
    fd_encode_element(port.rx[n], false, out);
  }
  port.rx.erase(port.rx.begin(), port.rx.begin() + long(n));
  return Reply{c.code, std::move(out)};
}

std::optional<Reply> on_diagnostic(Model& m, const Command& c) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  const CanFdPortModel& p = canfd_bus(m).ports[c.payload[0]];
  Bytes out = {p.tec, p.rec, p.last_error, state_flags(p), 0, 0, 0, 0};
  wire::put_le32(out.data() + 4, p.rx_overruns);
  return Reply{c.code, std::move(out)};
}

std::optional<Reply> on_bus_error(Model& m, const Command& c) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  const CanFdPortModel& p = canfd_bus(m).ports[c.payload[0]];
  return Reply{c.code, {p.tec, p.rec, p.last_error, state_flags(p)}};
}

std::optional<Reply> on_events(Model& m, const Command& c) {
  if (c.payload.size() != 1 || !port_ok(c, 0)) return ack(c);
  CanFdPortModel& p = canfd_bus(m).ports[c.payload[0]];
  Bytes out;
  for (const FdFrame& f : p.events) {
    fd_encode_element(f, true, out);
    out.resize(out.size() - f.len);  // an event is the header alone
  }
  p.events.clear();
  return Reply{c.code, std::move(out)};
}

std::optional<Reply> on_tx_info(Model& m, const Command& c) {
  return tx_info(c, canfd_bus(m).ports);
}

std::optional<Reply> on_stop(Model& m, const Command& c) { return stop(c, canfd_bus(m).ports); }

}  // namespace

CanFdState& canfd_bus(Model& m) { return m.state<CanFdState>(); }

size_t fd_decode_element(const uint8_t* p, size_t n, FdFrame& f) {
  if (n < kHeader) return 0;
  const uint8_t len = len_of(p[4]);
  if (n - kHeader < len) return 0;
  const uint32_t w = wire::get_le32(p);
  f.ext = p[4] & 0x10;
  f.rtr = p[4] & 0x20;
  f.fdf = p[4] & 0x40;
  f.brs = p[4] & 0x80;
  f.esi = p[5] & 1;
  f.id = f.ext ? ((w & 0x7FF) << 18) | ((w >> 11) & 0x3FFFF) : (w & 0x7FF) | ((w >> 18) & 0x800);
  f.len = len;
  std::copy_n(p + kHeader, len, f.data.begin());
  f.time = uint64_t(p[6]) << 32 | wire::get_le32(p + 8);
  return kHeader + len;
}

void fd_encode_element(const FdFrame& f, bool echo, std::vector<uint8_t>& out) {
  const size_t at = out.size();
  out.resize(at + kHeader + f.len);
  uint8_t* p = out.data() + at;
  const uint32_t w = f.ext ? ((f.id & 0x3FFFF) << 11) | ((f.id >> 18) & 0x7FF)
                           : (f.id & 0x7FF) | ((f.id & 0x800) << 18);
  wire::put_le32(p, w);
  p[4] = uint8_t(code_of(f.len) | (f.ext ? 0x10 : 0) | (f.rtr ? 0x20 : 0) | (f.fdf ? 0x40 : 0) |
                 (f.brs ? 0x80 : 0));
  p[5] = f.esi ? 1 : 0;
  p[6] = uint8_t(f.time >> 32);
  p[7] = echo ? 1 : 0;
  wire::put_le32(p + 8, uint32_t(f.time));
  std::copy_n(f.data.begin(), f.len, p + kHeader);
}

bool canfd_offer_classic(Model& m, unsigned port, const CanFrame& c, uint32_t rate) {
  if (m.model_code() >> 4 != 0x5 || port >= kCanPorts) return false;
  CanFdPortModel& p = canfd_bus(m).ports[port];
  if (!p.running || p.nominal_rate != rate || rate == 0) return false;
  FdFrame f;
  f.id = c.id;
  f.ext = c.ext;
  f.rtr = c.rtr;
  f.len = c.len;
  std::copy_n(c.data.begin(), 8, f.data.begin());
  f.time = now_10us(m);
  receive(p, f);
  return true;
}

bool canfd_put_on_bus(Model& m, unsigned from, FdFrame f) {
  if (from >= kCanPorts || !canfd_bus(m).ports[from].running) return false;
  return deliver(m, from, f);
}

void canfd_deliver(Model& m, unsigned port, FdFrame f) {
  CanFdPortModel& p = canfd_bus(m).ports.at(port);
  if (!p.running) return;
  f.time = now_10us(m);
  receive(p, f);
}

void canfd_abort_next_batch(Model& m, unsigned port, int n, int skip) {
  std::scoped_lock g(sim_mutex());
  canfd_bus(m).ports.at(port).abort_after = n;
  canfd_bus(m).ports.at(port).abort_skip = skip;
}

void canfd_drop_events(Model& m, unsigned port, bool drop) {
  std::scoped_lock g(sim_mutex());
  canfd_bus(m).ports.at(port).drop_events = drop;
}

void install_canfd(Model& m) {
  // Only the 40 MHz models carry CAN FD controllers.
  if (m.model_code() >> 4 != 0x5) return;
  m.on(kCmdInit, on_init);
  m.on(kCmdFilter, on_filter);
  m.on(kCmdSend, on_send);
  m.on(kCmdRead, on_read);
  m.on(kCmdDiagnostic, on_diagnostic);
  m.on(kCmdBusError, on_bus_error);
  m.on(kCmdEvents, on_events);
  m.on(kCmdTxInfo, on_tx_info);
  m.on(kCmdStop, on_stop);
}

}  // namespace veltrix::sim
