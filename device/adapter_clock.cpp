// The adapter's timestamp counter and its power level setting.
#include "device/adapter_clock.hpp"

#include <algorithm>
#include <array>

#include "device/abi.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "veltrix/device.h"

namespace veltrix {
namespace {

constexpr uint32_t kCmdPowerLevel = 0x10;
constexpr uint32_t kCmdGetTimestamp = 0x11;
constexpr uint32_t kCmdResetTimestamp = 0x12;
constexpr size_t kTimestampBytes = 4;  // little-endian, the adapter's own order

int set_power_level(uint32_t h, uint8_t level) {
  const uint8_t payload[1] = {level};
  // Whatever the reply carries is of no interest: its arrival is the acknowledgement.
  ExchangeResult r = exchange(h, {.cmd = kCmdPowerLevel, .payload = payload});
  return r.ok() ? 1 : 0;
}

}  // namespace

int read_timestamp(uint32_t h, uint8_t selector, unsigned int* out) {
  if (out == nullptr) return -1;
  const uint8_t payload[1] = {selector};
  std::array<uint8_t, kTimestampBytes> raw{};
  ExchangeResult r = exchange(h, {.cmd = kCmdGetTimestamp, .payload = payload, .reply = raw});
  if (!r.ok()) return -1;
  // The reply bytes overlay the result in the adapter's byte order; a shorter reply updates
  // only the low bytes, a longer one gives its first four.
  std::array<uint8_t, kTimestampBytes> merged;
  wire::put_le32(merged.data(), *out);
  std::copy_n(raw.begin(), r.copied, merged.begin());
  *out = wire::get_le32(merged.data());
  return int(r.copied);
}

namespace {

int reset_timestamp(uint32_t h) {
  ExchangeResult r = exchange(h, {.cmd = kCmdResetTimestamp});
  return r.ok() && r.reply_len == 0 ? 1 : 0;
}

}  // namespace
}  // namespace veltrix

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, DEV_SetPowerLevel, (unsigned int h, unsigned char level), 0,
               { return set_power_level(h, level); })

VELTRIX_EXPORT(int, DEV_GetTimestamp, (unsigned int h, unsigned char selector, unsigned int* out),
               0, { return read_timestamp(h, selector, out) >= 0 ? 1 : 0; })

VELTRIX_EXPORT(int, DEV_ResetTimestamp, (unsigned int h), 0, { return reset_timestamp(h); })

}  // extern "C"
