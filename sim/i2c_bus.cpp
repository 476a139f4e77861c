#include "sim/i2c_bus.hpp"

#include <algorithm>
#include <span>

#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

using Bytes = std::vector<uint8_t>;

enum : uint8_t { kOk = 0, kAddrNack = 1, kDataNack = 2, kPecError = 3, kEventTimeout = 4 };

std::optional<Reply> status(const Command& c, uint8_t s) { return Reply{c.code, {s}}; }

// One bus transaction: write `out` (if any), then with a repeated start read `n` bytes
// (if any). A transaction with neither is an address-only probe in the direction `read`.
// With `pec` the adapter appends its PEC to a write-only transaction and checks the one
// that follows a read.
struct Transaction {
  Bytes out;
  size_t n = 0;
  bool read = false;
  bool pec = false;
  // SMBus blocks: the first byte read is the count of the bytes that follow.
  bool counted = false;
};

uint8_t run(I2cChannel& ch, uint16_t addr, const Transaction& t, Bytes& in) {
  auto it = ch.targets.find(addr);
  I2cTarget* dev = it == ch.targets.end() ? nullptr : it->second.get();
  const uint8_t wbyte = uint8_t(addr << 1), rbyte = uint8_t(addr << 1 | 1);
  const bool writes = !t.out.empty() || (!t.read && t.n == 0 && !t.counted);
  const bool reads = t.n > 0 || t.counted || (t.read && t.out.empty());
  uint8_t crc = 0;
  if (writes) {
    if (dev == nullptr || !dev->start(wbyte)) return kAddrNack;
    crc = smbus_crc8(crc, wbyte);
    for (uint8_t b : t.out) {
      if (!dev->write_byte(b)) {
        dev->stop();
        return kDataNack;
      }
      crc = smbus_crc8(crc, b);
    }
    if (t.pec && !reads && !t.out.empty()) {
      uint8_t p = uint8_t(crc + (ch.corrupt_host_pec ? 1 : 0));
      if (!dev->write_byte(p)) {
        dev->stop();
        return kPecError;
      }
    }
  }
  if (reads) {
    if (dev == nullptr || !dev->start(rbyte)) {
      if (dev) dev->stop();
      return kAddrNack;
    }
    crc = smbus_crc8(crc, rbyte);
    size_t n = t.n;
    if (t.counted) {
      uint8_t count = dev->read_byte();
      crc = smbus_crc8(crc, count);
      n = count;
    }
    for (size_t i = 0; i < n; ++i) {
      uint8_t b = dev->read_byte();
      crc = smbus_crc8(crc, b);
      in.push_back(b);
    }
    if (t.pec && dev->read_byte() != crc) {
      dev->stop();
      return kPecError;
    }
  }
  dev->stop();
  return kOk;
}

I2cChannel* channel_of(I2cBus& bus, const Command& c) {
  if (c.payload.empty() || c.payload[0] >= kI2cChannels) return nullptr;
  return &bus.ch[c.payload[0]];
}

std::optional<Reply> data_reply(const Command& c, uint8_t s, const Bytes& in) {
  Reply r{c.code, {s}};
  if (s == kOk) r.payload.insert(r.payload.end(), in.begin(), in.end());
  return r;
}

std::optional<Reply> init(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() != 11) return status(c, kDataNack);
  ch->config = c.payload;
  return Reply{c.code, {}};
}

// [0] ch [1..2] addr [3..6] timeout [7] pec [8..] data
std::optional<Reply> write(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < 8) return status(c, kDataNack);
  Transaction t{.out = Bytes(c.payload.begin() + 8, c.payload.end()), .pec = c.payload[7] != 0};
  Bytes in;
  return status(c, run(*ch, wire::get_be16(&c.payload[1]), t, in));
}

// [0] ch [1..2] addr [3..6] timeout [7..10] len [11] pec [12..] write data (0x703)
std::optional<Reply> read(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < 12) return status(c, kDataNack);
  Transaction t{.out = Bytes(c.payload.begin() + 12, c.payload.end()),
                .n = wire::get_be32(&c.payload[7]),
                .read = true,
                .pec = c.payload[11] != 0};
  Bytes in;
  return data_reply(c, run(*ch, wire::get_be16(&c.payload[1]), t, in), in);
}

// [0] ch [1..2] addr [3..6] 10 [7] command [8] pec [9..] data
std::optional<Reply> smb_block(Model& m, const Command& c, bool write_block, bool read_block) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < 9) return status(c, kDataNack);
  Transaction t{
      .out = {c.payload[7]}, .read = read_block, .pec = c.payload[8] != 0, .counted = read_block};
  if (write_block) {
    t.out.push_back(uint8_t(c.payload.size() - 9));
    t.out.insert(t.out.end(), c.payload.begin() + 9, c.payload.end());
  }
  Bytes in;
  uint8_t s = run(*ch, wire::get_be16(&c.payload[1]), t, in);
  return read_block ? data_reply(c, s, in) : status(c, s);
}

// 0x70A: [0] ch [1..2] addr [3..6] pin [7] type [8..11] timeout [12..] data
std::optional<Reply> write_of_event(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < 12) return status(c, kDataNack);
  if (ch->event_never) return status(c, kEventTimeout);
  Transaction t{.out = Bytes(c.payload.begin() + 12, c.payload.end())};
  Bytes in;
  return status(c, run(*ch, wire::get_be16(&c.payload[1]), t, in));
}

// 0x70B: [0] ch [1..2] addr [3..6] len [7..10] pin [11] type [12..14] timeout
// 0x70C: [0] ch [1..2] addr [3..6] len [7..10] pin [11] type [12..15] timeout [16..] data
std::optional<Reply> read_of_event(Model& m, const Command& c, size_t data_at) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < data_at) return status(c, kDataNack);
  if (ch->event_never) return status(c, kEventTimeout);
  Transaction t{.out = Bytes(c.payload.begin() + long(data_at), c.payload.end()),
                .n = wire::get_be32(&c.payload[3]),
                .read = true};
  Bytes in;
  return data_reply(c, run(*ch, wire::get_be16(&c.payload[1]), t, in), in);
}

// 0x70D/0x70E: [0] ch [1..2] addr [3..6] size [7..10] count [11..14] interval [15..] data
std::optional<Reply> blocks(Model& m, const Command& c, bool reading) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < 15) return status(c, kDataNack);
  const uint32_t size = wire::get_be32(&c.payload[3]), count = wire::get_be32(&c.payload[7]);
  if (!reading && uint64_t(size) * count != c.payload.size() - 15) return status(c, kDataNack);
  const uint16_t addr = wire::get_be16(&c.payload[1]);
  // The firmware's block table has room for 65535 entries; more is refused.
  if (count > 0xFFFF) return status(c, kDataNack);
  Bytes in;
  for (uint32_t i = 0; i < count; ++i) {
    Transaction t;
    if (reading) {
      t.n = size;
      t.read = true;
    } else {
      auto at = c.payload.begin() + 15 + long(size_t(i) * size);
      t.out.assign(at, at + size);
    }
    if (uint8_t s = run(*ch, addr, t, in)) return status(c, s);
  }
  return reading ? data_reply(c, kOk, in) : status(c, kOk);
}

std::optional<Reply> count_reply(const Command& c, size_t n) {
  Reply r{c.code, Bytes(2)};
  wire::put_le16(r.payload.data(), uint16_t(std::min<size_t>(n, 0xFFFF)));
  return r;
}

// [0] ch [1..4] timeout [5..] data: the remote master reads what it was set up to read.
std::optional<Reply> slave_write(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr || c.payload.size() < 5) return std::nullopt;
  ch->slave_tx.insert(ch->slave_tx.end(), c.payload.begin() + 5, c.payload.end());
  size_t n = std::min(ch->master_read_budget, ch->slave_tx.size());
  for (size_t i = 0; i < n; ++i) {
    ch->master_got.push_back(ch->slave_tx.front());
    ch->slave_tx.pop_front();
  }
  ch->master_read_budget -= n;
  return count_reply(c, n);
}

std::optional<Reply> slave_read(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr) return std::nullopt;
  Reply r{c.code, std::move(ch->slave_rx)};
  ch->slave_rx.clear();
  return r;
}

std::optional<Reply> slave_remain(Model& m, const Command& c) {
  I2cChannel* ch = channel_of(i2c_bus(m), c);
  if (ch == nullptr) return std::nullopt;
  return count_reply(c, ch->slave_tx.size());
}

}  // namespace

I2cChannel::I2cChannel() {
  targets[kEepromAddr] = std::make_shared<Eeprom24>();
  targets[kSensorAddr] = std::make_shared<SmbusSensor>();
}

Eeprom24& I2cChannel::eeprom() { return static_cast<Eeprom24&>(*targets.at(kEepromAddr)); }
SmbusSensor& I2cChannel::sensor() { return static_cast<SmbusSensor&>(*targets.at(kSensorAddr)); }

I2cBus& i2c_bus(Model& m) { return m.state<I2cBus>(); }

void install_i2c(Model& m) {
  m.on(0x700, [](Model& m, const Command& c) { return init(m, c); });
  m.on(0x701, [](Model& m, const Command& c) { return write(m, c); });
  m.on(0x702, [](Model& m, const Command& c) { return read(m, c); });
  m.on(0x703, [](Model& m, const Command& c) { return read(m, c); });
  m.on(0x704, [](Model& m, const Command& c) { return slave_write(m, c); });
  m.on(0x705, [](Model& m, const Command& c) { return slave_read(m, c); });
  m.on(0x706, [](Model& m, const Command& c) { return slave_remain(m, c); });
  m.on(0x707, [](Model& m, const Command& c) { return smb_block(m, c, true, false); });
  m.on(0x708, [](Model& m, const Command& c) { return smb_block(m, c, false, true); });
  m.on(0x709, [](Model& m, const Command& c) { return smb_block(m, c, true, true); });
  m.on(0x70A, [](Model& m, const Command& c) { return write_of_event(m, c); });
  m.on(0x70B, [](Model& m, const Command& c) { return read_of_event(m, c, 15); });
  m.on(0x70C, [](Model& m, const Command& c) { return read_of_event(m, c, 16); });
  m.on(0x70D, [](Model& m, const Command& c) { return blocks(m, c, false); });
  m.on(0x70E, [](Model& m, const Command& c) { return blocks(m, c, true); });
}

}  // namespace veltrix::sim
