#include "sim/schedule_runner.hpp"

#include "device/wire.hpp"
#include "sim/device_services.hpp"

namespace veltrix::sim {
namespace {

using Bytes = std::vector<uint8_t>;

struct Kind {
  bool fd;
  uint32_t load, start, stop, relay;
};
constexpr Kind kClassic{false, 0x0C08, 0x0C05, 0x0C06, 0x0C07};
constexpr Kind kFd{true, 0x400B, 0x4006, 0x4007, 0x4008};

constexpr uint32_t kImageMagic = 0x9A21538B;
constexpr size_t kImageHeader = 784;
constexpr size_t kRecord = 20;
constexpr uint8_t kOk = 0;
constexpr uint8_t kRefused = 1;

std::optional<Reply> status(const Command& c, uint8_t s) { return Reply{c.code, {s}}; }

// Parses `count` frames of the port's kind from p[0..n); false when they do not fit.
bool parse_frames(bool fd, const uint8_t* p, size_t n, size_t count,
                  std::vector<ScheduleFrame>& out) {
  size_t at = 0;
  for (size_t i = 0; i < count; ++i) {
    ScheduleFrame f;
    f.fd = fd;
    if (fd) {
      size_t used = fd_decode_element(p + at, n - at, f.frame);
      if (used == 0) return false;
      f.period_ms = wire::get_le32(p + at + 8);
      at += used;
    } else {
      if (n - at < kRecord) return false;
      f.classic = can_decode_record(p + at);
      f.period_ms = wire::get_le32(p + at + 4);
      at += kRecord;
    }
    out.push_back(f);
  }
  return true;
}

// Splits the frames into tables by their counts.
bool build_tables(bool fd, const uint8_t* counts, const uint8_t* params, size_t tables,
                  const uint8_t* frames, size_t n, std::vector<ScheduleTable>& out) {
  size_t total = 0;
  for (size_t t = 0; t < tables; ++t) total += counts[t];
  std::vector<ScheduleFrame> all;
  if (!parse_frames(fd, frames, n, total, all)) return false;
  size_t at = 0;
  out.clear();
  for (size_t t = 0; t < tables; ++t) {
    ScheduleTable tab;
    tab.params = {params[2 * t], params[2 * t + 1]};
    tab.frames.assign(all.begin() + long(at), all.begin() + long(at + counts[t]));
    at += counts[t];
    out.push_back(std::move(tab));
  }
  return true;
}

std::optional<Reply> on_load(Model& m, const Command& c, const Kind& k) {
  const Bytes& p = c.payload;
  if (p.size() < 2 || p[0] >= kCanPorts) return status(c, kRefused);
  const size_t tables = p[1];
  if (p.size() < 2 + 3 * tables) return status(c, kRefused);
  std::vector<ScheduleTable> parsed;
  const uint8_t* frames = p.data() + 2 + 3 * tables;
  const size_t n = p.size() - 2 - 3 * tables;
  if (!build_tables(k.fd, p.data() + 2, p.data() + 2 + tables, tables, frames, n, parsed))
    return status(c, kRefused);
  PortSchedule& s = schedules(m).ports[p[0]];
  s = PortSchedule{};
  s.tables = std::move(parsed);
  return status(c, kOk);
}

// The port's schedule image in the flash, if one is there and consistent.
bool load_image(Model& m, unsigned port, bool fd, PortSchedule& s) {
  const DeviceServices& d = device_services(m);
  const size_t base = size_t(port) * kSchSectorSize;
  if (base + kImageHeader > d.sch_data.size()) return false;
  const uint8_t* img = d.sch_data.data() + base;
  if (wire::get_le32(img) != kImageMagic) return false;
  const uint32_t tables = wire::get_le32(img + 4);
  if (tables > 255) return false;
  std::vector<ScheduleTable> parsed;
  if (!build_tables(fd, img + 8, img + 264, tables, img + kImageHeader,
                    kSchSectorSize - kImageHeader, parsed))
    return false;
  s.tables = std::move(parsed);
  s.from_flash = true;
  return true;
}

std::optional<Reply> on_start(Model& m, const Command& c, const Kind& k) {
  const Bytes& p = c.payload;
  if (p.size() != 4 || p[0] >= kCanPorts) return status(c, kRefused);
  PortSchedule& s = schedules(m).ports[p[0]];
  if (s.tables.empty() && !load_image(m, p[0], k.fd, s)) return status(c, kRefused);
  if (p[1] != 0xFF && p[1] >= s.tables.size()) return status(c, kRefused);
  s.running = true;
  s.selected = p[1];
  s.options = {p[1], p[2], p[3]};
  s.start_us = device_services(m).clock_us();
  for (ScheduleTable& t : s.tables)
    for (ScheduleFrame& f : t.frames) f.sent = 0;
  return status(c, kOk);
}

std::optional<Reply> on_stop(Model& m, const Command& c) {
  if (c.payload.size() != 1 || c.payload[0] >= kCanPorts) return status(c, kRefused);
  schedules(m).ports[c.payload[0]].running = false;
  return status(c, kOk);
}

std::optional<Reply> on_relay(Model& m, const Command& c) {
  if (c.payload.size() != 1) return Reply{c.code, {}};
  schedules(m).relay_mode = c.payload[0];
  return Reply{c.code, {c.payload[0]}};
}

void install_kind(Model& m, const Kind& k) {
  m.on(k.load, [k](Model& mm, const Command& c) { return on_load(mm, c, k); });
  m.on(k.start, [k](Model& mm, const Command& c) { return on_start(mm, c, k); });
  m.on(k.stop, on_stop);
  m.on(k.relay, on_relay);
}

}  // namespace

ScheduleState& schedules(Model& m) { return m.state<ScheduleState>(); }

bool relay_forwards(Model& m, unsigned port) {
  return port < kCanPorts && (schedules(m).relay_mode >> port) & 1;
}

void run_schedules(Model& m) {
  ScheduleState& st = schedules(m);
  const uint64_t now = device_services(m).clock_us();
  for (unsigned port = 0; port < kCanPorts; ++port) {
    PortSchedule& s = st.ports[port];
    if (!s.running) continue;
    const uint64_t elapsed_ms = (now - s.start_us) / 1000;
    for (size_t t = 0; t < s.tables.size(); ++t) {
      if (s.selected != 0xFF && s.selected != t) continue;
      for (ScheduleFrame& f : s.tables[t].frames) {
        const uint64_t due = f.period_ms ? elapsed_ms / f.period_ms + 1 : 1;
        // A frame nobody acknowledges is lost, not retried: the table keeps its pace.
        for (uint64_t burst = 0; f.sent < due && burst < kScheduleBurst; ++burst, ++f.sent) {
          if (f.fd)
            canfd_put_on_bus(m, port, f.frame);
          else
            can_put_on_bus(m, port, f.classic);
        }
        f.sent = due;
      }
    }
  }
}

void install_schedules(Model& m) {
  install_kind(m, kClassic);
  if (m.model_code() >> 4 == 0x5) install_kind(m, kFd);
}

}  // namespace veltrix::sim
