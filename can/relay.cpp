// Relaying between the adapter's two ports: the relay mode (0x0C07, CAN FD ports 0x4008)
// and the relay rule set the adapter keeps in its user-data area (little-endian):
//
//   offset 0   magic 0x7BB0F5C0
//          4   format word 0x00030003
//          8   length: 48 + 168 x rule count
//          12  the 48-byte relay configuration (its last word is the rule count)
//          60  the rules, 168 bytes each
//
// Both models keep the rule set the same way, so the CAN FD calls use this path directly.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "can/can_state.hpp"
#include "device/abi.hpp"
#include "device/wire.hpp"
#include "veltrix/canfd.h"
#include "veltrix/device.h"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdRelayClassic = 0x0C07;
constexpr uint32_t kCmdRelayFd = 0x4008;

constexpr uint32_t kRelayMagic = 0x7BB0F5C0;
constexpr uint32_t kRelayFormat = 0x00030003;
constexpr size_t kOffMagic = 0;
constexpr size_t kOffFormat = 4;
constexpr size_t kOffLength = 8;
constexpr size_t kOffConfig = 12;
constexpr size_t kOffRules = kOffConfig + sizeof(CAN_RELAY_CONFIG);
constexpr size_t kRelayReadBytes = kOffRules + CAN_RELAY_RULES_MAX * sizeof(CAN_RELAY_RULE);
// A stored length below this holds no rule set.
constexpr uint32_t kMinStoredLength = 61;
static_assert(kOffRules == 60 && kRelayReadBytes == 10812);

int set_relay(uint32_t h, uint8_t mode, uint32_t cmd) {
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  const uint8_t payload[1] = {mode};
  std::array<uint8_t, 1> echo{};
  ExchangeResult r = exchange(h, {.cmd = cmd, .payload = payload, .reply = echo});
  if (!r.ok()) return map_result(r);
  // The adapter confirms by echoing the mode it switched to.
  return r.reply_len == 1 && echo[0] == mode ? CAN_SUCCESS : CAN_ERR_USB_READ_FAIL;
}

int set_data(uint32_t h, const CAN_RELAY_CONFIG* config, const CAN_RELAY_RULE* rules) {
  if (config == nullptr) return CAN_ERR_PARAMETER;
  const uint32_t count = config->RuleCount;
  if (count > CAN_RELAY_RULES_MAX || (count > 0 && rules == nullptr)) return CAN_ERR_PARAMETER;
  const size_t length = sizeof(CAN_RELAY_CONFIG) + count * sizeof(CAN_RELAY_RULE);
  std::vector<uint8_t> image(kOffConfig + length);
  wire::put_le32(image.data() + kOffMagic, kRelayMagic);
  wire::put_le32(image.data() + kOffFormat, kRelayFormat);
  wire::put_le32(image.data() + kOffLength, uint32_t(length));
  // The records are opaque to the host: stored byte for byte as the caller gave them.
  std::memcpy(image.data() + kOffConfig, config, sizeof *config);
  if (count) std::memcpy(image.data() + kOffRules, rules, count * sizeof(CAN_RELAY_RULE));

  const int n = int(image.size());
  if (!DEV_EraseUserData(h) || !DEV_WriteUserData(h, 0, image.data(), n))
    return CAN_ERR_USB_READ_FAIL;
  std::vector<uint8_t> back(image.size());
  if (!DEV_ReadUserData(h, 0, back.data(), n)) return CAN_ERR_USB_READ_FAIL;
  return back == image ? CAN_SUCCESS : CAN_ERR_USB_READ_FAIL;
}

int get_data(uint32_t h, CAN_RELAY_CONFIG* config, CAN_RELAY_RULE* rules) {
  if (config == nullptr || rules == nullptr) return CAN_ERR_PARAMETER;
  std::vector<uint8_t> image(kRelayReadBytes);
  if (!DEV_ReadUserData(h, 0, image.data(), int(image.size()))) return CAN_ERR_USB_READ_FAIL;
  const uint32_t length = wire::get_le32(image.data() + kOffLength);
  // An erased or foreign area holds no rule set; the caller's records stay as they were.
  if (wire::get_le32(image.data() + kOffMagic) != kRelayMagic ||
      wire::get_le32(image.data() + kOffFormat) != kRelayFormat || length < kMinStoredLength)
    return CAN_SUCCESS;
  std::memcpy(config, image.data() + kOffConfig, sizeof *config);
  // The stored count is trusted only as far as the stored length and the caller's room
  // (CAN_RELAY_RULES_MAX rules) reach.
  const size_t stored = (length - sizeof(CAN_RELAY_CONFIG)) / sizeof(CAN_RELAY_RULE);
  const size_t count = std::min<size_t>({config->RuleCount, stored, CAN_RELAY_RULES_MAX});
  std::memcpy(rules, image.data() + kOffRules, count * sizeof(CAN_RELAY_RULE));
  return CAN_SUCCESS;
}

}  // namespace
}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CAN_SetRelay, (unsigned int h, unsigned char mode), CAN_ERR_USB_READ_FAIL, {
  return can::set_relay(h, mode, can::is_canfd_model(h) ? can::kCmdRelayFd : can::kCmdRelayClassic);
})

VELTRIX_EXPORT(int, CANFD_SetRelay, (unsigned int h, unsigned char mode), CANFD_ERR_USB_READ_FAIL,
               { return can::set_relay(h, mode, can::kCmdRelayFd); })

VELTRIX_EXPORT(int, CAN_SetRelayData,
               (unsigned int h, CAN_RELAY_CONFIG* config, CAN_RELAY_RULE* rules),
               CAN_ERR_USB_READ_FAIL, { return can::set_data(h, config, rules); })

VELTRIX_EXPORT(int, CANFD_SetRelayData,
               (unsigned int h, CAN_RELAY_CONFIG* config, CAN_RELAY_RULE* rules),
               CANFD_ERR_USB_READ_FAIL, { return can::set_data(h, config, rules); })

VELTRIX_EXPORT(int, CAN_GetRelayData,
               (unsigned int h, CAN_RELAY_CONFIG* config, CAN_RELAY_RULE* rules),
               CAN_ERR_USB_READ_FAIL, { return can::get_data(h, config, rules); })

VELTRIX_EXPORT(int, CANFD_GetRelayData,
               (unsigned int h, CAN_RELAY_CONFIG* config, CAN_RELAY_RULE* rules),
               CANFD_ERR_USB_READ_FAIL, { return can::get_data(h, config, rules); })

}  // extern "C"
