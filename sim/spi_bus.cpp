#include "sim/spi_bus.hpp"

#include <algorithm>

#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

using Bytes = std::vector<uint8_t>;

enum : uint8_t { kOk = 0, kNoEvent = 1 };

std::optional<Reply> ack(const Command& c) { return Reply{c.code, {}}; }

SpiChannel& channel_of(SpiBus& bus, const Command& c) { return bus.ch[c.payload[0] & 1]; }

// One chip-select frame: write `out`, then clock `nread` more bytes and return them.
Bytes frame(SpiChannel& ch, const Bytes& out, size_t nread) {
  Bytes mosi(out);
  mosi.resize(out.size() + nread, 0xFF);
  Bytes miso = ch.flash.transfer(mosi);
  Bytes in(miso.begin() + long(out.size()), miso.end());
  for (size_t i = 0; i < in.size() && !ch.miso_script.empty(); ++i) {
    in[i] = ch.miso_script.front();
    ch.miso_script.pop_front();
  }
  return in;
}

Bytes tail(const Command& c, size_t from) {
  return from < c.payload.size() ? Bytes(c.payload.begin() + long(from), c.payload.end()) : Bytes{};
}

uint8_t table(const SpiChannel& ch, size_t at) {
  return at < ch.flash_table.size() ? ch.flash_table[at] : 0;
}

Bytes with_address(uint8_t cmd, uint32_t addr) {
  return {cmd, uint8_t(addr >> 16), uint8_t(addr >> 8), uint8_t(addr)};
}

// Handler guard: commands shorter than their fixed part get no reply.
template <typename F>
Handler need(size_t min_len, F f) {
  return [min_len, f](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() < std::max<size_t>(min_len, 1)) return std::nullopt;
    return f(spi_bus(m), channel_of(spi_bus(m), c), c);
  };
}

std::optional<Reply> flash_write(SpiChannel& ch, const Command& c) {
  uint32_t addr = wire::get_be32(&c.payload[1]);
  Bytes data = tail(c, 5);
  for (size_t at = 0; at < data.size();) {
    const size_t room = NorFlash::kPage - (addr & (NorFlash::kPage - 1));
    const size_t n = std::min(room, data.size() - at);
    frame(ch, {table(ch, 0)}, 0);
    Bytes pp = with_address(table(ch, 4), addr);
    pp.insert(pp.end(), data.begin() + long(at), data.begin() + long(at + n));
    frame(ch, pp, 0);
    ch.flash.finish();
    at += n;
    addr += uint32_t(n);
  }
  return ack(c);
}

std::optional<Reply> flash_read(SpiChannel& ch, const Command& c, bool fast) {
  const uint32_t addr = wire::get_be32(&c.payload[1]);
  Bytes head = with_address(table(ch, fast ? 3 : 2), addr);
  if (fast) head.push_back(0);  // the dummy byte
  return Reply{c.code, frame(ch, head, wire::get_be32(&c.payload[5]))};
}

std::optional<Reply> erase_sectors(SpiChannel& ch, const Command& c) {
  uint32_t addr = wire::get_be32(&c.payload[1]);
  const uint32_t count = wire::get_be32(&c.payload[5]);
  for (uint32_t i = 0; i < count && i < NorFlash::kSize / NorFlash::kSector; ++i) {
    frame(ch, {table(ch, 0)}, 0);
    frame(ch, with_address(table(ch, 5), addr), 0);
    ch.flash.finish();
    addr += NorFlash::kSector;
  }
  return ack(c);
}

// Blocks: `count` frames, each writing `wsize` bytes from `data` and reading `rsize`.
Bytes blocks(SpiChannel& ch, const Bytes& data, size_t wsize, size_t rsize, size_t count) {
  Bytes in;
  for (size_t i = 0; i < count; ++i) {
    Bytes out;
    if (wsize && data.size() >= (i + 1) * wsize)
      out.assign(data.begin() + long(i * wsize), data.begin() + long((i + 1) * wsize));
    Bytes got = frame(ch, out, rsize);
    in.insert(in.end(), got.begin(), got.end());
  }
  return in;
}

// A refused block transfer still comes at full length, its data zero.
std::optional<Reply> status_data(const Command& c, const SpiChannel& ch, const Bytes& in,
                                 bool full_length = false) {
  if (ch.event_never && !full_length) return Reply{c.code, {kNoEvent}};
  if (ch.event_never) {
    Reply r{c.code, Bytes(in.size() + 1, 0)};
    r.payload[0] = kNoEvent;
    return r;
  }
  Reply r{c.code, {kOk}};
  r.payload.insert(r.payload.end(), in.begin(), in.end());
  return r;
}

std::optional<Reply> slave_exchange(SpiChannel& ch, const Command& c) {
  const uint32_t rlen = wire::get_be32(&c.payload[5]);
  Bytes w = tail(c, 9);
  const size_t written = std::min(w.size(), ch.master_read_budget);
  ch.slave_tx.insert(ch.slave_tx.end(), w.begin(), w.end());
  Bytes got = ch.take_stream(rlen);
  Reply r{c.code, Bytes(8, 0)};
  wire::put_be16(&r.payload[2], uint16_t(written));
  wire::put_be16(&r.payload[6], uint16_t(got.size()));
  r.payload.insert(r.payload.end(), got.begin(), got.end());
  return r;
}

}  // namespace

void SpiChannel::master_stream(std::vector<uint8_t> bytes, double rate) {
  stream = std::move(bytes);
  stream_served = 0;
  stream_rate = rate;
  stream_start = std::chrono::steady_clock::now();
}

size_t SpiChannel::clocked() const {
  if (stream_rate <= 0) return stream.size();
  const double s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - stream_start).count();
  return std::min(stream.size(), size_t(s * stream_rate));
}

std::vector<uint8_t> SpiChannel::take_stream(size_t max) {
  const size_t n = std::min(max, clocked() - std::min(clocked(), stream_served));
  Bytes out(stream.begin() + long(stream_served), stream.begin() + long(stream_served + n));
  stream_served += n;
  return out;
}

SpiBus& spi_bus(Model& m) { return m.state<SpiBus>(); }

void install_spi(Model& m) {
  m.on(0x200, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) {
         ch.config = c.payload;
         return ack(c);
       }));
  for (uint32_t code : {0x201u, 0x202u})
    m.on(code, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) {
           frame(ch, tail(c, 1), 0);
           return ack(c);
         }));
  m.on(0x203, need(5, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code, frame(ch, {}, wire::get_be32(&c.payload[1]))};
       }));
  m.on(0x204, need(9, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code, frame(ch, tail(c, 9), wire::get_be32(&c.payload[1]))};
       }));
  m.on(0x205, need(5, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         Bytes w = tail(c, 5);
         ch.slave_tx.insert(ch.slave_tx.end(), w.begin(), w.end());
         Reply r{c.code, Bytes(4)};
         wire::put_be32(r.payload.data(), uint32_t(std::min(w.size(), ch.master_read_budget)));
         return r;
       }));
  m.on(0x207, need(49, [](SpiBus&, SpiChannel& ch, const Command& c) {
         ch.flash_table.assign(c.payload.begin() + 5, c.payload.begin() + 36);
         ch.id_length = c.payload[36] ? c.payload[36] : 1;
         return ack(c);
       }));
  m.on(0x208, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code, frame(ch, {table(ch, 8)}, ch.id_length)};
       }));
  m.on(0x209,
       need(5, [](SpiBus&, SpiChannel& ch, const Command& c) { return flash_write(ch, c); }));
  m.on(0x20A,
       need(9, [](SpiBus&, SpiChannel& ch, const Command& c) { return flash_read(ch, c, false); }));
  m.on(0x20C,
       need(9, [](SpiBus&, SpiChannel& ch, const Command& c) { return flash_read(ch, c, true); }));
  m.on(0x20B,
       need(9, [](SpiBus&, SpiChannel& ch, const Command& c) { return erase_sectors(ch, c); }));
  m.on(0x20D, need(9, [](SpiBus&, SpiChannel& ch, const Command& c) {
         blocks(ch, tail(c, 9), wire::get_be16(&c.payload[1]), 0, wire::get_be16(&c.payload[3]));
         return ack(c);
       }));
  m.on(0x20E, need(9, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code, blocks(ch, {}, 0, wire::get_be16(&c.payload[1]),
                                     wire::get_be16(&c.payload[3]))};
       }));
  m.on(0x20F, need(11, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code, blocks(ch, tail(c, 11), wire::get_be16(&c.payload[1]),
                                     wire::get_be16(&c.payload[3]), wire::get_be16(&c.payload[5]))};
       }));
  m.on(0x210, need(5, [](SpiBus&, SpiChannel& ch, const Command& c) {
         frame(ch, tail(c, 5), 0);
         return ack(c);
       }));
  m.on(0x211, need(5, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code, frame(ch, {}, (size_t(wire::get_be32(&c.payload[1])) + 7) / 8)};
       }));
  m.on(0x212, need(9, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         return Reply{c.code,
                      frame(ch, tail(c, 9), (size_t(wire::get_be32(&c.payload[5])) + 7) / 8)};
       }));
  m.on(0x213, need(10, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         if (ch.event_never) return Reply{c.code, {kNoEvent}};
         frame(ch, tail(c, 10), 0);
         return Reply{c.code, {kOk}};
       }));
  m.on(0x214, need(14, [](SpiBus&, SpiChannel& ch, const Command& c) {
         return status_data(c, ch, frame(ch, {}, wire::get_be32(&c.payload[1])));
       }));
  m.on(0x215, need(18, [](SpiBus&, SpiChannel& ch, const Command& c) {
         return status_data(c, ch, frame(ch, tail(c, 18), wire::get_be32(&c.payload[1])));
       }));
  m.on(0x216, need(14, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         if (ch.event_never) return Reply{c.code, {kNoEvent}};
         blocks(ch, tail(c, 14), wire::get_be16(&c.payload[1]), 0, wire::get_be16(&c.payload[3]));
         return Reply{c.code, {kOk}};
       }));
  m.on(0x217, need(14, [](SpiBus&, SpiChannel& ch, const Command& c) {
         return status_data(
             c, ch, blocks(ch, {}, 0, wire::get_be16(&c.payload[1]), wire::get_be16(&c.payload[3])),
             true);
       }));
  m.on(0x218, need(16, [](SpiBus&, SpiChannel& ch, const Command& c) {
         return status_data(c, ch,
                            blocks(ch, tail(c, 16), wire::get_be16(&c.payload[1]),
                                   wire::get_be16(&c.payload[3]), wire::get_be16(&c.payload[5])),
                            true);
       }));
  for (uint32_t code : {0x222u, 0x224u})
    m.on(code,
         need(9, [](SpiBus&, SpiChannel& ch, const Command& c) { return slave_exchange(ch, c); }));
  m.on(0x223, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) -> std::optional<Reply> {
         ++ch.fetches;
         return Reply{c.code, ch.take_stream(kSpiSlaveChunk)};
       }));
  m.on(0x225, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) {
         ch.continuous = true;
         return ack(c);
       }));
  m.on(0x226, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) {
         ch.continuous = false;
         return ack(c);
       }));
  m.on(0x227, need(1, [](SpiBus&, SpiChannel& ch, const Command& c) {
         Bytes w = tail(c, 1);
         ch.slave_tx.insert(ch.slave_tx.end(), w.begin(), w.end());
         return ack(c);
       }));
}

}  // namespace veltrix::sim
