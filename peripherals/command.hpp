// What the UART, GPIO, PWM and ADC families share: their result codes are one table
// (0 success, -1 bad argument, -2 not sent, -4 bad or missing reply), and each of their
// operations is one exchange that either wants an empty acknowledgement or a payload.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdint>
#include <span>

#include "device/registry.hpp"
#include "device/transport.hpp"

namespace veltrix::periph {

inline constexpr int kOk = 0;
inline constexpr int kErrParameter = -1;
inline constexpr int kErrSend = -2;
inline constexpr int kErrReply = -4;
inline constexpr int kSlots = 30;

// The transport's result to the families' code. Codes not listed here (the transport may
// grow finer read failures) are read failures too.
inline int code_of(const ExchangeResult& r) {
  switch (r.code) {
    case Transport::Ok:
      return kOk;
    case Transport::WriteFailed:
      return kErrSend;
    default:
      return kErrReply;
  }
}

// The registry slot of a known adapter, or -1.
inline int slot_of(uint32_t handle) {
  int slot = usb_list_get_index(handle);
  return slot >= 0 && slot < kSlots ? slot : -1;
}

// Time-outs computed from caller values are clamped, so a huge product cannot wrap.
inline int clamp_timeout(int64_t ms) { return int(std::clamp<int64_t>(ms, 1, INT_MAX)); }

// One command acknowledged by an empty reply: any payload is a wrong reply.
inline int ack(uint32_t handle, uint32_t cmd, std::span<const uint8_t> payload,
               int timeout_ms = kDefaultTimeoutMs) {
  if (slot_of(handle) < 0) return kErrParameter;
  ExchangeResult r = exchange(handle, {.cmd = cmd, .payload = payload, .timeout_ms = timeout_ms});
  int code = code_of(r);
  return code == kOk && r.reply_len != 0 ? kErrReply : code;
}

// One command answered with data into `reply`. Returns the payload length (0 for an empty
// reply), or a code; a reply longer than `reply` is drained by the transport and is -4.
inline int query(uint32_t handle, uint32_t cmd, std::span<const uint8_t> payload,
                 std::span<uint8_t> reply, int timeout_ms = kDefaultTimeoutMs) {
  if (slot_of(handle) < 0) return kErrParameter;
  ExchangeResult r =
      exchange(handle, {.cmd = cmd, .payload = payload, .reply = reply, .timeout_ms = timeout_ms});
  int code = code_of(r);
  if (code != kOk) return code;
  if (int32_t(r.reply_len) <= 0) return 0;
  return r.reply_len > reply.size() ? kErrReply : int(r.reply_len);
}

}  // namespace veltrix::periph
