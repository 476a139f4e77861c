#include "peripherals/i2c/i2c_state.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

#include "device/registry.hpp"
#include "peripherals/i2c/commands.hpp"

namespace veltrix::i2c {

I2cState& state() {
  // Never destroyed: an exchange may still be running on another thread at exit.
  static I2cState* s = new I2cState;
  return *s;
}

Target check_target(int handle, uint8_t channel) {
  Target t;
  t.slot = usb_list_get_index(uint32_t(handle));
  if (t.slot < 0 || t.slot >= kSlots) {
    t.code = IIC_ERR_SEND;
  } else if (channel >= IIC_MAX_CHANNELS) {
    t.code = IIC_ERR_PARAMETER;
  }
  return t;
}

int i2c_code(Transport t) {
  switch (t) {
    case Transport::Ok:
      return IIC_SUCCESS;
    case Transport::WriteFailed:
      return IIC_ERR_SEND;
    default:
      return IIC_ERR_REPLY;
  }
}

int block_code(Transport t) {
  switch (t) {
    case Transport::Ok:
      return IIC_SUCCESS;
    case Transport::WriteFailed:
      return IIC_ERR_SEND;
    case Transport::NoMemory:
      return IIC_ERR_REPLY;
    default:
      return IIC_ERR_READ;
  }
}

int status_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload) {
  uint8_t status = 0;
  ExchangeResult r = exchange(
      uint32_t(handle),
      {.cmd = cmd, .payload = payload, .reply = {&status, 1}, .timeout_ms = kMasterReplyMs});
  if (int code = i2c_code(r.code)) return code;
  return r.reply_len == 1 ? status : IIC_ERR_REPLY;
}

int read_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload, uint8_t* out,
                  uint32_t n) {
  // Zero-filled, so an answer of the status alone hands out zeros, never stale memory.
  std::vector<uint8_t> reply(size_t(n) + 1, 0);
  ExchangeResult r =
      exchange(uint32_t(handle),
               {.cmd = cmd, .payload = payload, .reply = reply, .timeout_ms = kMasterReplyMs});
  if (int code = i2c_code(r.code)) return code;
  if (r.reply_len != n + 1 && r.reply_len != 1) return IIC_ERR_REPLY;
  if (reply[0] == 0 && n > 0) std::memcpy(out, reply.data() + 1, n);
  return reply[0];
}

bool valid_length(int len, const void* data) {
  if (len < 0 || uint32_t(len) > IIC_MAX_TRANSFER) return false;
  return len == 0 || data != nullptr;
}

}  // namespace veltrix::i2c
