// The one exchange helper every family goes through: lock the adapter, send a command
// with the retry policy, read the reply into a buffer of known capacity, unlock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "veltrix/usb_device.h"

namespace veltrix {

// No reply is ever longer than this; a header announcing more means the stream lost its
// framing.
inline constexpr uint32_t kMaxReplyBytes = 16u << 20;
inline constexpr int kDefaultTimeoutMs = 1000;

enum class Transport : int {
  Ok = 0,
  WriteFailed = -2,
  ReadFailed = -3,  // short header, unknown adapter or unexpected reply code
  NoMemory = -4,
};

struct ExchangeResult {
  Transport code = Transport::Ok;
  uint32_t reply_cmd = 0;  // code the adapter answered with (0 if no header came)
  uint32_t reply_len = 0;  // payload length the adapter announced
  size_t copied = 0;       // payload bytes written into the caller's buffer

  bool ok() const { return code == Transport::Ok; }
  int value() const { return static_cast<int>(code); }
};

enum class Reply { Expected, None };

struct Exchange {
  uint32_t cmd = 0;
  std::span<const uint8_t> payload{};
  std::span<uint8_t> reply{};     // receive buffer; its size is the capacity
  Reply want = Reply::Expected;   // None: the command has no reply
  uint32_t reply_cmd = 0;         // expected reply code; 0 means the same as cmd
  int timeout_ms = kDefaultTimeoutMs;
  int canfd_channel = -1;         // >= 0: send on the endpoint of that CAN FD channel
};

// The full exchange under the adapter's lock.
ExchangeResult exchange(uint32_t handle, const Exchange& x);
// The same for a caller that already holds the adapter's lock.
ExchangeResult exchange_locked(uint32_t handle, const Exchange& x);

// Building blocks (the caller holds the adapter's lock).
int send_packet(uint32_t handle, const USB_MSG* msg, int timeout_ms);
int send_canfd_packet(uint32_t handle, uint8_t channel, const USB_MSG* msg, int timeout_ms);
int read_reply(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms);
int get_packet(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms);

}  // namespace veltrix
