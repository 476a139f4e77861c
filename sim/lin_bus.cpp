#include "sim/lin_bus.hpp"

#include <algorithm>
#include <chrono>

#include "device/wire.hpp"
#include "sim/device_services.hpp"

namespace veltrix::sim {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kNewSetFirmware = 0x0105001E;
constexpr size_t kRecord = 20;
constexpr size_t kOldFrame = 11;
constexpr uint8_t kRefusal = 0x01;

enum : uint8_t { kWrite = 1, kRead = 2, kSlaveWrite = 3, kSlaveRead = 4, kBreak = 5,
                 kGotDataCheck = 8, kGotCheck = 9 };

std::optional<Reply> ack(const Command& c) { return Reply{c.code, {}}; }
std::optional<Reply> refuse(const Command& c) { return Reply{c.code, {kRefusal}}; }

LinRecord decode(const uint8_t* p) {
  LinRecord r;
  r.timestamp = wire::get_le32(p);
  r.type = p[4];
  r.check_type = p[5];
  r.len = p[6];
  r.sync = p[7];
  r.pid = p[8];
  std::copy(p + 9, p + 17, r.data.begin());
  r.check = p[17];
  r.break_bits = p[18];
  r.reserved = p[19];
  return r;
}

void encode(Bytes& out, const LinRecord& r) {
  wire::PayloadBuilder b(kRecord);
  b.le32(r.timestamp).u8(r.type).u8(r.check_type).u8(r.len).u8(r.sync).u8(r.pid);
  b.bytes(r.data.data(), r.data.size()).u8(r.check).u8(r.break_bits).u8(r.reserved);
  out.insert(out.end(), b.vec().begin(), b.vec().end());
}

std::vector<LinRecord> records_after(const Command& c, size_t skip) {
  std::vector<LinRecord> v;
  for (size_t at = skip; at + kRecord <= c.payload.size(); at += kRecord)
    v.push_back(decode(c.payload.data() + at));
  return v;
}

bool new_set(Model& m) { return device_services(m).firmware_version >= kNewSetFirmware; }

// Handler for one command set only: the other firmware generation does not know it.
template <typename F>
Handler only(bool newer, F f) {
  return [newer, f](Model& m, const Command& c) -> std::optional<Reply> {
    if (new_set(m) != newer) return std::nullopt;
    return f(m, lin_bus(m), c);
  };
}

// The channel named by the first payload byte, or null.
LinChannel* channel_at(LinBus& bus, const Command& c, size_t at, int limit) {
  if (c.payload.size() <= at || c.payload[at] >= limit) return nullptr;
  return &bus.ch[c.payload[at]];
}

uint8_t frame_checksum(uint8_t pid, const uint8_t* data, size_t n, bool enhanced) {
  return lin_checksum(enhanced ? pid : 0, data, n);
}

// A slave node's answer to a read header; a silent or absent node leaves the header alone.
LinRecord answer_read(LinBus& bus, LinChannel& ch, const LinRecord& req) {
  const uint8_t id = req.pid & 0x3F;
  LinRecord r;
  r.timestamp = bus.now_ms();
  r.type = kGotCheck;
  r.pid = lin_pid(id);
  r.sync = 0x55;
  r.break_bits = req.break_bits;
  if (id == kDiagResponseId) {
    if (auto f = ch.diag.next_response_frame()) {
      r.len = 8;
      std::copy(f->begin(), f->begin() + 8, r.data.begin());
      r.check = frame_checksum(r.pid, r.data.data(), 8, ch.diag.check_type == 1);
    }
    return r;
  }
  auto it = ch.nodes.find(id);
  if (it == ch.nodes.end() || it->second.silent) return r;
  const LinSlaveNode& node = it->second;
  const size_t n = std::min<size_t>(node.data.size(), 8);
  std::copy_n(node.data.begin(), n, r.data.begin());
  r.check = frame_checksum(r.pid, r.data.data(), n, node.check_type == 1);
  if (node.corrupt_checksum) r.check ^= 0x5A;
  r.len = uint8_t(n);
  if (node.checksum_as_data && n < 8) {
    r.type = kGotDataCheck;
    r.data[n] = r.check;
    r.len = uint8_t(n + 1);
    r.check = 0;
  }
  return r;
}

// A frame the master writes: it is on the bus as sent, and reaches the diagnostic slave.
LinRecord echo_write(LinBus& bus, LinChannel& ch, const LinRecord& req) {
  LinRecord r = req;
  r.timestamp = bus.now_ms();
  r.type = kGotCheck;
  r.len = std::min<uint8_t>(req.len, 8);
  r.check_type = 0;
  if ((req.pid & 0x3F) == kDiagRequestId && r.len == 8) ch.diag.on_request_frame(r.data.data());
  return r;
}

void capture(LinChannel& ch, const LinRecord& r) {
  if (ch.capture.size() >= kLinCaptureMax) ch.capture.pop_front();
  ch.capture.push_back(r);
}

// ---- Newer command set --------------------------------------------------------------

std::optional<Reply> init(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  if (!ch || c.payload.size() != 6) return refuse(c);
  ch->baud = wire::get_be32(c.payload.data() + 1);
  ch->mode = c.payload[5];
  ch->initialised = true;
  return ack(c);
}

std::optional<Reply> master_sync(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  Bytes out;
  // Only a channel configured as master runs frames; anything else answers no record.
  if (!ch || !ch->initialised || ch->mode != 1) return Reply{c.code, out};
  for (const LinRecord& req : records_after(c, 1)) {
    LinRecord r;
    switch (req.type) {
      case kWrite:
      case kSlaveWrite: r = echo_write(bus, *ch, req); break;
      case kRead: r = answer_read(bus, *ch, req); break;
      default:
        r = req;
        r.timestamp = bus.now_ms();
        r.len = 0;
        break;
    }
    encode(out, r);
  }
  return Reply{c.code, out};
}

std::optional<Reply> slave_set(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  if (!ch) return refuse(c);
  ch->slave_table = records_after(c, 1);
  return ack(c);
}

std::optional<Reply> slave_get_data(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  Bytes out;
  if (!ch) return Reply{c.code, out};
  for (const LinRecord& r : ch->capture) encode(out, r);
  ch->capture.clear();
  return Reply{c.code, out};
}

std::optional<Reply> slave_get_table(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  Bytes out;
  if (ch)
    for (const LinRecord& r : ch->slave_table) encode(out, r);
  return Reply{c.code, out};
}

std::optional<Reply> power_out(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 1, kLinChannels);
  if (!ch || c.payload.size() != 2) return refuse(c);
  ch->power = c.payload[0];
  return ack(c);
}

std::optional<Reply> vbat(Model&, LinBus& bus, const Command& c) {
  Bytes out(2);
  wire::put_be16(out.data(), bus.vbat);
  return Reply{c.code, out};
}

std::optional<Reply> start_schedule(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  if (!ch) return refuse(c);
  ch->schedule = records_after(c, 1);
  ch->schedule_running = !ch->schedule.empty();
  ch->schedule_runs = 0;
  return ack(c);
}

std::optional<Reply> stop_schedule(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  if (!ch || c.payload.size() != 1) return refuse(c);
  ch->schedule_running = false;
  return ack(c);
}

std::optional<Reply> get_schedule(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  Bytes out;
  if (!ch) return Reply{c.code, out};
  for (LinRecord r : ch->schedule) {
    // Read frames carry what their slave answered last.
    if (r.type == kRead) {
      LinRecord got = answer_read(bus, *ch, r);
      if (got.type == kGotDataCheck && got.len > 0) {
        got.len = uint8_t(got.len - 1);
        got.check = got.data[got.len];
      }
      r.len = got.len;
      r.data = got.data;
      r.check = got.check;
    }
    encode(out, r);
  }
  return Reply{c.code, out};
}

std::optional<Reply> set_run_times(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinChannels);
  if (!ch || c.payload.size() != 5) return refuse(c);
  ch->run_times = wire::get_be32(c.payload.data() + 1);
  return ack(c);
}

// ---- Older command set --------------------------------------------------------------

std::optional<Reply> old_init(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinOldChannels);
  if (!ch || c.payload.size() != 8) return refuse(c);
  ch->baud = wire::get_be32(c.payload.data() + 1);
  ch->old_flags = c.payload[5];
  ch->mode = c.payload[6];
  ch->initialised = true;
  return ack(c);
}

std::optional<Reply> old_write(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinOldChannels);
  if (!ch || (c.payload.size() - 1) % kOldFrame != 0) return refuse(c);
  for (size_t at = 1; at + kOldFrame <= c.payload.size(); at += kOldFrame) {
    LinRecord r;
    r.pid = c.payload[at];
    r.len = std::min<uint8_t>(c.payload[at + 1], 8);
    std::copy_n(c.payload.begin() + long(at) + 2, 8, r.data.begin());
    echo_write(bus, *ch, r);
  }
  return ack(c);
}

std::optional<Reply> old_read(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinOldChannels);
  Bytes out;
  if (!ch) return Reply{c.code, out};
  for (size_t at = 1; at < c.payload.size(); ++at) {
    LinRecord req;
    req.type = kRead;
    req.pid = c.payload[at];
    LinRecord got = answer_read(bus, *ch, req);
    if (got.type == kGotDataCheck && got.len > 0) {
      got.len = uint8_t(got.len - 1);
      got.check = got.data[got.len];
    }
    Bytes f(kOldFrame, 0);
    f[0] = got.pid;
    f[1] = got.len ? uint8_t(got.len + 1) : 0;  // this set counts the checksum byte
    std::copy(got.data.begin(), got.data.end(), f.begin() + 2);
    if (got.len < 8) f[2 + got.len] = got.check;
    f[10] = got.check;
    out.insert(out.end(), f.begin(), f.end());
  }
  return Reply{c.code, out};
}

std::optional<Reply> old_slave_set(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinOldChannels);
  if (!ch || c.payload.size() < 2 || (c.payload.size() - 2) % kOldFrame != 0) return refuse(c);
  ch->old_slave_table.clear();
  for (size_t at = 2; at + kOldFrame <= c.payload.size(); at += kOldFrame)
    ch->old_slave_table.emplace_back(c.payload.begin() + long(at),
                                     c.payload.begin() + long(at + kOldFrame));
  return ack(c);
}

std::optional<Reply> old_slave_get(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinOldChannels);
  Bytes out;
  if (!ch) return Reply{c.code, out};
  for (const LinRecord& r : ch->capture) {
    Bytes f(kOldFrame, 0);
    f[0] = r.pid;
    f[1] = r.len ? uint8_t(r.len + 1) : 0;
    std::copy(r.data.begin(), r.data.end(), f.begin() + 2);
    f[10] = r.check;
    out.insert(out.end(), f.begin(), f.end());
  }
  ch->capture.clear();
  return Reply{c.code, out};
}

std::optional<Reply> old_break(Model&, LinBus& bus, const Command& c) {
  LinChannel* ch = channel_at(bus, c, 0, kLinOldChannels);
  if (!ch || c.payload.size() != 1) return refuse(c);
  ++ch->breaks_sent;
  return ack(c);
}

uint64_t steady_ms() {
  return uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
}

}  // namespace

uint8_t lin_pid(uint8_t id) {
  auto b = [id](int n) { return (id >> n) & 1; };
  const int p0 = b(0) ^ b(1) ^ b(2) ^ b(4);
  const int p1 = !(b(1) ^ b(3) ^ b(4) ^ b(5));
  return uint8_t((id & 0x3F) | p0 << 6 | p1 << 7);
}

uint8_t lin_checksum(uint8_t seed, const uint8_t* data, size_t n) {
  unsigned sum = seed;
  for (size_t i = 0; i < n; ++i) {
    sum += data[i];
    if (sum > 0xFF) sum -= 0xFF;
  }
  return uint8_t(~sum);
}

LinBus::LinBus() : clock_origin_ms(steady_ms()) {
  // Every bus starts with two nodes, so that a read works out of the box.
  for (LinChannel& c : ch) {
    c.nodes[0x10] = LinSlaveNode{{0x11, 0x22, 0x33, 0x44}, 1};
    c.nodes[0x11] = LinSlaveNode{{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}, 0};
  }
}

uint32_t LinBus::now_ms() const { return uint32_t(steady_ms() - clock_origin_ms); }

void LinBus::master_break(int channel, uint8_t bits) {
  LinRecord r;
  r.timestamp = now_ms();
  r.type = kBreak;
  r.break_bits = bits;
  capture(ch.at(size_t(channel)), r);
}

void LinBus::master_header(int channel, uint8_t id) {
  LinChannel& c = ch.at(size_t(channel));
  for (const LinRecord& e : c.slave_table) {
    if ((e.pid & 0x3F) != (id & 0x3F)) continue;
    LinRecord r = e;
    r.timestamp = now_ms();
    r.type = kGotCheck;
    r.check_type = 0;
    capture(c, r);
    return;
  }
}

void LinBus::master_write(int channel, uint8_t id, const std::vector<uint8_t>& data,
                          bool enhanced) {
  LinRecord r;
  r.timestamp = now_ms();
  r.pid = lin_pid(id);
  r.sync = 0x55;
  const size_t n = std::min<size_t>(data.size(), 8);
  std::copy_n(data.begin(), n, r.data.begin());
  const uint8_t check = frame_checksum(r.pid, r.data.data(), n, enhanced);
  if (n < 8) {  // shorter frames arrive with the checksum as their last data byte
    r.type = kGotDataCheck;
    r.data[n] = check;
    r.len = uint8_t(n + 1);
  } else {
    r.type = kGotCheck;
    r.len = 8;
    r.check = check;
  }
  capture(ch.at(size_t(channel)), r);
}

void LinBus::run_schedule(int channel, uint32_t runs) {
  LinChannel& c = ch.at(size_t(channel));
  if (!c.schedule_running) return;
  c.schedule_runs += runs;
  if (c.run_times > 0 && c.schedule_runs >= c.run_times) {
    c.schedule_runs = c.run_times;
    c.schedule_running = false;
  }
}

LinBus& lin_bus(Model& m) { return m.state<LinBus>(); }

void install_lin(Model& m) {
  m.on(0x0F06, only(true, init));
  m.on(0x0F07, only(true, master_sync));
  m.on(0x0F08, only(true, slave_set));
  m.on(0x0F09, only(true, slave_get_data));
  m.on(0x0F0A, only(true, power_out));
  m.on(0x0F0B, only(true, vbat));
  m.on(0x0F0C, only(true, start_schedule));
  m.on(0x0F0D, only(true, stop_schedule));
  m.on(0x0F0E, only(true, get_schedule));
  m.on(0x0F0F, only(true, slave_get_table));
  m.on(0x0F10, only(true, set_run_times));

  m.on(0x0F00, only(false, old_init));
  m.on(0x0F01, only(false, old_write));
  m.on(0x0F02, only(false, old_read));
  m.on(0x0F03, only(false, old_slave_set));
  m.on(0x0F04, only(false, old_slave_get));
  m.on(0x0F05, only(false, old_break));
}

}  // namespace veltrix::sim
