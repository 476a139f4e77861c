// The record chain in the adapter's parameter memory: look-up, write and erase by
// identifier.
#include "device/param_store.hpp"

#include <array>
#include <bitset>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "device/abi.hpp"
#include "device/crc16.hpp"
#include "device/wire.hpp"
#include "veltrix/device.h"

namespace veltrix::param {
namespace {

constexpr size_t kOffId = 0;
constexpr size_t kOffLength = 4;
constexpr size_t kOffCrc = 8;
constexpr size_t kOffNext = 10;

constexpr uint16_t kSmallSlot = 12 + 32;
constexpr uint16_t kLargeSlot = 12 + 1280;

// The adapter's parameter memory needs a breather between the steps of a chain update.
constexpr auto kStepPause = std::chrono::milliseconds(10);

Header decode(const std::array<uint8_t, kHeaderSize>& raw) {
  return {wire::get_le32(raw.data() + kOffId), wire::get_le32(raw.data() + kOffLength),
          wire::get_le16(raw.data() + kOffCrc), wire::get_le16(raw.data() + kOffNext)};
}

std::array<uint8_t, kHeaderSize> encode(const Header& h) {
  std::array<uint8_t, kHeaderSize> raw{};
  wire::put_le32(raw.data() + kOffId, h.id);
  wire::put_le32(raw.data() + kOffLength, h.length);
  wire::put_le16(raw.data() + kOffCrc, h.crc);
  wire::put_le16(raw.data() + kOffNext, h.next);
  return raw;
}

bool ends_chain(uint16_t next) { return next == 0 || next == kEndOfChain; }

// Walks the chain one header at a time. A chain that comes back to an address it has
// already visited is corrupt; the walk stops there instead of looping for ever.
class ChainWalk {
 public:
  ChainWalk(uint32_t handle, bool pause) : handle_(handle), pause_(pause) {}

  // Reads the header at addr; returns 0 or an ARG_ERR_ code.
  int visit(uint16_t addr, Header* out) {
    if (seen_.test(addr)) return ARG_ERR_CORRUPT;
    seen_.set(addr);
    if (pause_) std::this_thread::sleep_for(kStepPause);
    std::array<uint8_t, kHeaderSize> raw{};
    int rc = read(handle_, addr, raw);
    if (rc == ARG_SUCCESS) *out = decode(raw);
    return rc;
  }

 private:
  uint32_t handle_;
  bool pause_;
  std::bitset<0x10000> seen_;
};

int paused_write(uint32_t h, uint16_t addr, std::span<const uint8_t> data) {
  std::this_thread::sleep_for(kStepPause);
  return write(h, addr, data);
}

// Header first, then the data behind it.
int store_record(uint32_t h, uint16_t addr, const Header& hdr, std::span<const uint8_t> data) {
  int rc = paused_write(h, addr, encode(hdr));
  if (rc != ARG_SUCCESS || data.empty()) return rc;
  return paused_write(h, uint16_t(addr + kHeaderSize), data);
}

int read_arg_data(uint32_t h, uint32_t id, uint8_t* out) {
  ChainWalk walk(h, false);
  uint16_t addr = kChainStart;
  for (;;) {
    Header hdr;
    if (int rc = walk.visit(addr, &hdr); rc != ARG_SUCCESS) return rc;
    if (hdr.id == id) {
      // The caller's buffer holds the largest slot; a longer length is not a record this
      // store wrote.
      if (hdr.length > ARG_MAX_DATA) return ARG_ERR_REPLY;
      if (hdr.length == 0) return 0;
      std::vector<uint8_t> data(hdr.length);
      if (int rc = read(h, uint16_t(addr + kHeaderSize), data); rc != ARG_SUCCESS) return rc;
      if (crc16_xmodem(data) != hdr.crc) return ARG_ERR_CRC;
      std::memcpy(out, data.data(), data.size());
      return int(hdr.length);
    }
    if (ends_chain(hdr.next)) return ARG_ERR_NOT_FOUND;
    addr = hdr.next;
  }
}

int write_arg_data(uint32_t h, uint32_t id, std::span<const uint8_t> data) {
  const Header fresh{id, uint32_t(data.size()), crc16_xmodem(data), kEndOfChain};
  ChainWalk walk(h, true);
  uint16_t addr = kChainStart;
  for (;;) {
    Header hdr;
    if (int rc = walk.visit(addr, &hdr); rc != ARG_SUCCESS) return rc;
    if (hdr.id == id) {
      // Rewritten in place, keeping its link; the slot's size is not checked.
      Header updated = fresh;
      updated.next = hdr.next;
      return store_record(h, addr, updated, data);
    }
    if (!in_use(hdr.id)) return store_record(h, addr, fresh, data);  // free memory
    if (!ends_chain(hdr.next)) {
      addr = hdr.next;
      continue;
    }
    // A link of 0 marks a place that may be taken over; 0xFFFF is the real end, behind
    // which a new slot sized for the last record's identifier is appended.
    if (hdr.next == 0) return store_record(h, addr, fresh, data);
    std::optional<uint16_t> slot = slot_size(hdr.id);
    if (!slot) return ARG_ERR_CORRUPT;
    const uint16_t at = uint16_t(addr + *slot);
    Header linked = hdr;
    linked.next = at;
    if (int rc = paused_write(h, addr, encode(linked)); rc != ARG_SUCCESS) return rc;
    return store_record(h, at, fresh, data);
  }
}

int erase_arg_data(uint32_t h, uint32_t id) {
  ChainWalk walk(h, true);
  uint16_t addr = kChainStart;
  for (;;) {
    Header hdr;
    if (int rc = walk.visit(addr, &hdr); rc != ARG_SUCCESS) return rc;
    if (hdr.id == id) {
      // Length 0, CRC and link 0xFFFF: the record ends the chain from now on.
      return paused_write(h, addr, encode({id, 0, 0xFFFF, kEndOfChain}));
    }
    if (!in_use(hdr.id)) return ARG_ERR_CORRUPT;
    if (ends_chain(hdr.next)) return ARG_ERR_NOT_FOUND;
    addr = hdr.next;
  }
}

}  // namespace

std::optional<uint16_t> slot_size(uint32_t id) {
  switch (id) {
    case 0x55AA0001: case 0x55AA0002: case 0x55AA0005: case 0x55AA0008: case 0x55AA0009:
      return kSmallSlot;
    case 0x55AA0003: case 0x55AA0004: case 0x55AA0006: case 0x55AA0007:
    case 0x55AA000A: case 0x55AA000B: case 0x55AA000C: case 0x55AA000D:
      return kLargeSlot;
    default:
      return std::nullopt;
  }
}

}  // namespace veltrix::param

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, ARG_ReadArgData, (unsigned int h, unsigned int id, unsigned char* out),
               ARG_ERR_REPLY, {
                 if (out == nullptr) return ARG_ERR_PARAMETER;
                 return param::read_arg_data(h, id, out);
               })

VELTRIX_EXPORT(int, ARG_WriteArgData,
               (unsigned int h, unsigned int id, const unsigned char* data, int len), ARG_ERR_REPLY,
               {
                 if (len < 0 || len > ARG_MAX_DATA || (data == nullptr && len > 0))
                   return ARG_ERR_PARAMETER;
                 return param::write_arg_data(h, id, {data, size_t(len)});
               })

VELTRIX_EXPORT(int, ARG_EraseArgData, (unsigned int h, unsigned int id), ARG_ERR_REPLY,
               { return param::erase_arg_data(h, id); })

}  // extern "C"
