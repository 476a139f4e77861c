// The adapter's identity record, function string and hardware record.
#include <algorithm>
#include <array>
#include <cstring>

#include "device/abi.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "veltrix/device.h"

namespace veltrix {
namespace {

constexpr uint32_t kCmdDeviceInfo = 0x100;
constexpr uint32_t kCmdFunctionString = 0x106;
constexpr uint32_t kCmdHardwareInfo = 0x10D;

// One time-out serves both directions of an exchange; each command uses the longer of
// its send and receive limits (bulk reads never wait less than a second anyway).
constexpr int kInfoTimeoutMs = 200;
constexpr int kFunctionStringTimeoutMs = 1000;
constexpr int kHardwareTimeoutMs = 100;

// Identity record offsets; everything else is passed through as the firmware sent it.
constexpr size_t kOffName = 0;
constexpr size_t kOffBuildDate = 32;
constexpr size_t kOffHardwareVersion = 64;
constexpr size_t kOffFirmwareVersion = 68;
constexpr size_t kOffBootMarker = 72;
constexpr size_t kOffSerial = 80;
constexpr size_t kOffReserved = 84;

void decode_device_info(const std::array<uint8_t, DEV_INFO_SIZE>& raw, DEVICE_INFO* out) {
  std::memcpy(out->FirmwareName, raw.data() + kOffName, sizeof out->FirmwareName);
  std::memcpy(out->BuildDate, raw.data() + kOffBuildDate, sizeof out->BuildDate);
  out->HardwareVersion = wire::get_le32(raw.data() + kOffHardwareVersion);
  out->FirmwareVersion = wire::get_le32(raw.data() + kOffFirmwareVersion);
  out->BootMarker[0] = wire::get_le32(raw.data() + kOffBootMarker);
  out->BootMarker[1] = wire::get_le32(raw.data() + kOffBootMarker + 4);
  out->SerialNumber = wire::get_le32(raw.data() + kOffSerial);
  out->Reserved = wire::get_le32(raw.data() + kOffReserved);
}

int get_device_info(uint32_t h, DEVICE_INFO* info, char* function_str) {
  if (info == nullptr) return 0;
  std::array<uint8_t, DEV_INFO_SIZE> raw{};
  ExchangeResult r = exchange(h, {.cmd = kCmdDeviceInfo, .reply = raw,
                                  .timeout_ms = kInfoTimeoutMs});
  if (!r.ok() || r.reply_len == 0) return 0;
  decode_device_info(raw, info);
  if (function_str == nullptr) return 1;

  std::array<uint8_t, DEV_FUNCTION_STR_MAX> text{};
  r = exchange(h, {.cmd = kCmdFunctionString, .reply = text,
                   .timeout_ms = kFunctionStringTimeoutMs});
  if (!r.ok() || r.reply_len > DEV_FUNCTION_STR_MAX) return 0;
  std::memcpy(function_str, text.data(), r.copied);
  function_str[r.copied] = '\0';
  return 1;
}

int get_hardware_info(uint32_t h, unsigned char* out) {
  if (out == nullptr) return 0;
  std::array<uint8_t, DEV_HARDWARE_INFO_SIZE> raw{};
  ExchangeResult r = exchange(h, {.cmd = kCmdHardwareInfo, .reply = raw,
                                  .timeout_ms = kHardwareTimeoutMs});
  if (!r.ok() || r.reply_len != DEV_HARDWARE_INFO_SIZE) return 0;
  std::memcpy(out, raw.data(), raw.size());
  // 0 and 0xFF are what blank or erased memory reads as: the record was never written.
  return raw[0] != 0x00 && raw[0] != 0xFF ? 1 : 0;
}

}  // namespace
}  // namespace veltrix

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, DEV_GetDeviceInfo, (unsigned int h, DEVICE_INFO* info, char* function_str), 0,
               { return get_device_info(h, info, function_str); })

VELTRIX_EXPORT(int, DEV_GetHardwareInfo, (unsigned int h, unsigned char* out), 0,
               { return get_hardware_info(h, out); })

}  // extern "C"
