// The adapter's user-data and schedule-data flash areas.
#include <algorithm>
#include <cstddef>
#include <span>

#include "device/abi.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "veltrix/device.h"

namespace veltrix {
namespace {

constexpr uint32_t kCmdWriteUserData = 0x107;
constexpr uint32_t kCmdReadUserData = 0x108;
constexpr uint32_t kCmdEraseUserData = 0x109;
constexpr uint32_t kCmdWriteSchData = 0x10A;
constexpr uint32_t kCmdReadSchData = 0x10B;
constexpr uint32_t kCmdEraseSchData = 0x10C;
constexpr uint32_t kCmdEraseUserSector = 0x10E;

// Erasing and programming flash takes the adapter a while; reads are quick.
constexpr int kEraseTimeoutMs = 5000;
constexpr int kSchEraseTimeoutMs = 10000;
constexpr int kWriteTimeoutMs = 5000;
constexpr int kReadTimeoutMs = 1000;

// The adapter programs user data in 32-bit words.
constexpr uint32_t kUserDataAlign = 4;

// A command the adapter acknowledges with an empty reply; any payload is its refusal.
int acknowledged(uint32_t h, uint32_t cmd, std::span<const uint8_t> payload, int timeout_ms) {
  ExchangeResult r = exchange(h, {.cmd = cmd, .payload = payload, .timeout_ms = timeout_ms});
  return r.ok() && r.reply_len == 0 ? 1 : 0;
}

int erase_user_sector(uint32_t h, uint32_t addr) {
  wire::PayloadBuilder p(4);
  p.be32(addr);
  return acknowledged(h, kCmdEraseUserSector, p.span(), kEraseTimeoutMs);
}

int write_user_data(uint32_t h, uint32_t addr, const uint8_t* data, int len) {
  if (addr % kUserDataAlign != 0 || len < 0 || len > DEV_USER_DATA_MAX_WRITE) return 0;
  if (data == nullptr && len > 0) return 0;
  wire::PayloadBuilder p(4 + size_t(len));
  p.be32(addr).bytes(data, size_t(len));
  return acknowledged(h, kCmdWriteUserData, p.span(), kWriteTimeoutMs);
}

int read_user_data(uint32_t h, uint32_t addr, uint8_t* out, int len) {
  if (addr % kUserDataAlign != 0 || len < 0) return 0;
  if (out == nullptr && len > 0) return 0;
  wire::PayloadBuilder p(8);
  p.be32(addr).be32(uint32_t(len));
  ExchangeResult r = exchange(h, {.cmd = kCmdReadUserData, .payload = p.span(),
                                  .reply = {out, size_t(len)}, .timeout_ms = kReadTimeoutMs});
  return r.ok() && r.reply_len == uint32_t(len) ? 1 : 0;
}

int erase_sch_data(uint32_t h, uint32_t addr) {
  wire::PayloadBuilder p(4);
  p.be32(addr);
  return acknowledged(h, kCmdEraseSchData, p.span(), kSchEraseTimeoutMs);
}

// Every chunk carries the caller's address unchanged; the adapter appends successive
// chunks of one transfer itself.
int write_sch_data(uint32_t h, uint32_t addr, const uint8_t* data, int len) {
  if (len <= 0) return 1;
  if (data == nullptr) return 0;
  for (int done = 0; done < len; done += DEV_SCH_CHUNK) {
    size_t chunk = size_t(std::min(DEV_SCH_CHUNK, len - done));
    wire::PayloadBuilder p(4 + chunk);
    p.be32(addr).bytes(data + done, chunk);
    if (!acknowledged(h, kCmdWriteSchData, p.span(), kWriteTimeoutMs)) return 0;
  }
  return 1;
}

// Full chunks ask for DEV_SCH_CHUNK bytes. A final partial chunk asks for
// DEV_SCH_CHUNK % len (not len % DEV_SCH_CHUNK): programs depend on exactly these
// requests, so the arithmetic stays. What the adapter sends beyond the caller's buffer is
// drained by the exchange, never stored.
int read_sch_data(uint32_t h, uint32_t addr, uint8_t* out, int len) {
  if (len <= 0) return 1;
  if (out == nullptr) return 0;
  const int full_chunks = len / DEV_SCH_CHUNK;
  const int rest = len % DEV_SCH_CHUNK;
  for (int k = 0; k < full_chunks + (rest ? 1 : 0); ++k) {
    const bool last_partial = k == full_chunks;
    const uint32_t ask = last_partial ? uint32_t(DEV_SCH_CHUNK % len) : uint32_t(DEV_SCH_CHUNK);
    const size_t room = last_partial ? size_t(rest) : size_t(DEV_SCH_CHUNK);
    wire::PayloadBuilder p(8);
    p.be32(addr).be32(ask);
    ExchangeResult r = exchange(h, {.cmd = kCmdReadSchData, .payload = p.span(),
                                    .reply = {out + size_t(k) * DEV_SCH_CHUNK, room},
                                    .timeout_ms = kReadTimeoutMs});
    if (!r.ok() || r.reply_len != ask) return 0;
  }
  return 1;
}

}  // namespace
}  // namespace veltrix

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, DEV_EraseUserData, (unsigned int h), 0,
               { return acknowledged(h, kCmdEraseUserData, {}, kEraseTimeoutMs); })

VELTRIX_EXPORT(int, DEV_EraseUserDataSector, (unsigned int h, unsigned int addr), 0,
               { return erase_user_sector(h, addr); })

VELTRIX_EXPORT(int, DEV_WriteUserData,
               (unsigned int h, unsigned int addr, const unsigned char* data, int len), 0,
               { return write_user_data(h, addr, data, len); })

VELTRIX_EXPORT(int, DEV_ReadUserData,
               (unsigned int h, unsigned int addr, unsigned char* out, int len), 0,
               { return read_user_data(h, addr, out, len); })

VELTRIX_EXPORT(int, DEV_EraseSchData, (unsigned int h, unsigned int addr), 0,
               { return erase_sch_data(h, addr); })

VELTRIX_EXPORT(int, DEV_WriteSchData,
               (unsigned int h, unsigned int addr, const unsigned char* data, int len), 0,
               { return write_sch_data(h, addr, data, len); })

VELTRIX_EXPORT(int, DEV_ReadSchData,
               (unsigned int h, unsigned int addr, unsigned char* out, int len), 0,
               { return read_sch_data(h, addr, out, len); })

}  // extern "C"
