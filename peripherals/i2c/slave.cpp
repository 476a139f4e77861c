// Slave mode: the adapter answers a remote bus master with what the host offered and
// collects what the master wrote.
#include <algorithm>
#include <climits>

#include "device/abi.hpp"
#include "peripherals/i2c/commands.hpp"
#include "peripherals/i2c/i2c_state.hpp"

namespace veltrix::i2c {
namespace {

// The adapter waits on the remote master for the caller's time-out before it answers.
int slave_wait_ms(int timeout) {
  return int(std::clamp<int64_t>(int64_t(timeout) + kSlaveReplyMarginMs, 1, INT_MAX));
}

// The two count bytes of the slave replies come in the adapter's own little-endian order.
int count_reply(int handle, uint32_t cmd, std::span<const uint8_t> payload, int wait_ms) {
  uint8_t count[2] = {0, 0};
  ExchangeResult r = exchange(
      uint32_t(handle), {.cmd = cmd, .payload = payload, .reply = count, .timeout_ms = wait_ms});
  if (int code = i2c_code(r.code)) return code;
  return r.reply_len == 2 ? wire::get_le16(count) : IIC_ERR_REPLY;
}

int slave_write(int handle, uint8_t ch, const uint8_t* data, int len, int timeout) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(len, data)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(5 + size_t(len));
  b.u8(ch).be32(uint32_t(timeout)).bytes(data, size_t(len));
  return count_reply(handle, kCmdSlaveWrite, b.span(), slave_wait_ms(timeout));
}

int slave_read(int handle, uint8_t ch, uint8_t* buf, int timeout) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (buf == nullptr) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(5);
  b.u8(ch).be32(uint32_t(timeout));
  // The caller's buffer is as large as the header promises; more is drained unseen.
  ExchangeResult r = exchange(uint32_t(handle), {.cmd = kCmdSlaveRead,
                                                 .payload = b.span(),
                                                 .reply = {buf, IIC_SLAVE_READ_MAX},
                                                 .timeout_ms = slave_wait_ms(timeout)});
  if (int code = i2c_code(r.code)) return code;
  return int(r.copied);
}

int slave_write_remain(int handle, uint8_t ch) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  const uint8_t p[1] = {ch};
  return count_reply(handle, kCmdSlaveWriteRemain, p, kConfigReplyMs);
}

}  // namespace
}  // namespace veltrix::i2c

using namespace veltrix;
using namespace veltrix::i2c;

extern "C" {

VELTRIX_EXPORT(int, IIC_SlaveWriteBytes,
               (int h, unsigned char ch, unsigned char* data, int len, int timeout), IIC_ERR_REPLY,
               { return slave_write(h, ch, data, len, timeout); })

VELTRIX_EXPORT(int, IIC_SlaveReadBytes, (int h, unsigned char ch, unsigned char* buf, int timeout),
               IIC_ERR_REPLY, { return slave_read(h, ch, buf, timeout); })

VELTRIX_EXPORT(int, IIC_SlaveWriteRemain, (int h, unsigned char ch), IIC_ERR_REPLY,
               { return slave_write_remain(h, ch); })

}  // extern "C"
