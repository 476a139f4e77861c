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

// Each way an exchange can fail has its own code; every family maps them onto its public
// codes in one table, whose default branch treats any code it does not list as a failed read.
enum class Transport : int {
  Ok = 0,
  WriteFailed = -2,
  ReadFailed = -3,  // unknown adapter, transfer error, or a header whose length lost framing
  NoMemory = -4,
  WrongCode = -5,   // the reply carries another command's code (its payload is drained)
  ShortReply = -6,  // fewer bytes arrived than the header (or its 8 bytes) announced
  Timeout = -7,     // the reply, or the rest of its payload, did not come in time
};

struct ExchangeResult {
  Transport code = Transport::Ok;
  uint32_t reply_cmd = 0;  // code the adapter answered with (0 if no header came)
  uint32_t reply_len = 0;  // payload length the adapter announced
  size_t copied = 0;       // payload bytes that arrived and were written into the caller's
                           // buffer; a failed exchange may have written some

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
  int send_timeout_ms = 0;        // time-out of the send alone; 0 means timeout_ms
  int canfd_channel = -1;         // >= 0: send on the endpoint of that CAN FD channel
};

// The full exchange under the adapter's lock.
ExchangeResult exchange(uint32_t handle, const Exchange& x);
// The same for a caller that already holds the adapter's lock.
ExchangeResult exchange_locked(uint32_t handle, const Exchange& x);

// Building blocks (the caller holds the adapter's lock).
int send_packet(uint32_t handle, const USB_MSG* msg, int timeout_ms);
int send_canfd_packet(uint32_t handle, uint8_t channel, const USB_MSG* msg, int timeout_ms);

// Reads one reply into msg->data, keeping at most `capacity` payload bytes (the rest of a
// longer reply is read and discarded). msg->cmd is the expected code on entry; on return
// msg->cmd and msg->len hold the header as received (0 and 0 without a full header).
// *copied (may be null) receives the payload bytes that actually landed in msg->data.
Transport read_reply(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms,
                     size_t* copied = nullptr);
// read_reply, and after a failure a one-second pause and a re-connect of the adapter.
Transport get_packet(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms,
                     size_t* copied = nullptr);

}  // namespace veltrix
