// Slave-mode requests: the adapter answers a remote master with what the host offered
// and hands over what the master clocked in.
#include "peripherals/spi/slave.hpp"

#include <algorithm>
#include <climits>
#include <vector>

#include "device/abi.hpp"
#include "peripherals/spi/commands.hpp"
#include "peripherals/spi/spi_state.hpp"

namespace veltrix::spi {
namespace {

// Reply of 0x222 / 0x224:  [0..1] -  [2..3] written (BE)  [4..5] -  [6..7] read (BE)  [8..] data
constexpr size_t kExchangeHeader = 8;

int slave_wait_ms(int timeout, int margin) {
  return timeout < 1 ? kDefaultTimeoutMs : plus_ms(timeout, margin);
}

int slave_write(int handle, uint8_t ch, const uint8_t* data, int len, int timeout) {
  if (!valid_length(len, data)) return SPI_ERR_PARAMETER;
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  wire::PayloadBuilder b(5 + size_t(len));
  b.u8(ch).be32(uint32_t(timeout)).bytes(data, size_t(len));
  uint8_t count[4];
  ExchangeResult r =
      exchange(uint32_t(handle), {.cmd = kCmdSlaveWrite,
                                  .payload = b.span(),
                                  .reply = count,
                                  .timeout_ms = slave_wait_ms(timeout, kSlaveMarginMs)});
  if (int code = spi_code(r.code)) return code;
  if (r.reply_len != 4) return SPI_ERR_REPLY;
  // A count beyond INT_MAX would read as an error code: no adapter offers that much.
  const uint32_t n = wire::get_be32(count);
  return n <= uint32_t(INT_MAX) ? int(n) : SPI_ERR_REPLY;
}

int slave_exchange(int handle, uint8_t ch, uint32_t cmd, const uint8_t* wdata, int wlen,
                   uint8_t* rbuf, int rlen, int timeout) {
  if (wlen > SPI_SLAVE_WRITE_MAX || !valid_length(wlen, wdata) || !valid_length(rlen, rbuf))
    return SPI_ERR_PARAMETER;
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  wire::PayloadBuilder b(9 + size_t(wlen));
  b.u8(ch).be32(uint32_t(timeout)).be32(uint32_t(rlen)).bytes(wdata, size_t(wlen));
  std::vector<uint8_t> reply(kExchangeHeader + size_t(rlen));
  ExchangeResult r =
      exchange(uint32_t(handle), {.cmd = cmd,
                                  .payload = b.span(),
                                  .reply = reply,
                                  .timeout_ms = slave_wait_ms(timeout, kSlaveMarginMs)});
  if (int code = spi_code(r.code)) return code;
  if (r.copied < kExchangeHeader) return SPI_ERR_REPLY;
  const uint16_t written = wire::get_be16(&reply[2]);
  const uint16_t got = wire::get_be16(&reply[6]);
  // The count is the adapter's word: it must fit the caller's buffer and the bytes that came.
  if (got > uint32_t(rlen) || kExchangeHeader + got > r.copied) return SPI_ERR_REPLY;
  std::copy_n(reply.begin() + kExchangeHeader, got, rbuf);
  return int(uint32_t(written) << 16 | got);
}

int continue_write(int handle, uint8_t ch, const uint8_t* data, int len) {
  if (!valid_length(len, data)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(1 + size_t(len));
  b.u8(ch).bytes(data, size_t(len));
  return ack_exchange(handle, kCmdSlaveContinueWrite, b.span(), kReplyMs);
}

}  // namespace

int read_from_buffer(int handle, uint8_t ch, uint8_t* buf, int timeout) {
  if (buf == nullptr) return SPI_ERR_PARAMETER;
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  const uint8_t p[1] = {uint8_t(ch & 1)};
  ExchangeResult r =
      exchange(uint32_t(handle), {.cmd = kCmdSlaveReadBuffer,
                                  .payload = p,
                                  .reply = {buf, SPI_SLAVE_READ_MAX},
                                  .timeout_ms = slave_wait_ms(timeout, kSlaveBufferMarginMs)});
  if (int code = spi_code(r.code)) return code;
  return int(r.copied);
}

int continuous_command(int handle, uint8_t ch, uint32_t cmd) {
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  const uint8_t p[1] = {uint8_t(ch & 1)};
  ExchangeResult r = exchange(uint32_t(handle), {.cmd = cmd, .payload = p, .timeout_ms = kReplyMs});
  return spi_code(r.code);
}

}  // namespace veltrix::spi

using namespace veltrix;
using namespace veltrix::spi;

extern "C" {

VELTRIX_EXPORT(int, SPI_SlaveWriteBytes,
               (int h, unsigned char ch, unsigned char* data, int len, int timeout), SPI_ERR_REPLY,
               { return slave_write(h, ch, data, len, timeout); })

VELTRIX_EXPORT(int, SPI_SlaveWriteReadBytes,
               (int h, unsigned char ch, unsigned char* wdata, int wlen, unsigned char* rbuf,
                int rlen, int timeout),
               SPI_ERR_REPLY, {
                 return slave_exchange(h, ch, kCmdSlaveWriteRead, wdata, wlen, rbuf, rlen, timeout);
               })

VELTRIX_EXPORT(int, SPI_SlaveReadWriteBytes,
               (int h, unsigned char ch, unsigned char* rbuf, int rlen, unsigned char* wdata,
                int wlen, int timeout),
               SPI_ERR_REPLY, {
                 return slave_exchange(h, ch, kCmdSlaveReadWrite, wdata, wlen, rbuf, rlen, timeout);
               })

VELTRIX_EXPORT(int, SPI_SlaveReadBytesFromBuffer,
               (int h, unsigned char ch, unsigned char* buf, int timeout), SPI_ERR_REPLY,
               { return read_from_buffer(h, ch, buf, timeout); })

VELTRIX_EXPORT(int, SPI_SlaveStartContinueRead, (int h, unsigned char ch), SPI_ERR_REPLY,
               { return continuous_command(h, ch, kCmdSlaveStartContinue); })

VELTRIX_EXPORT(int, SPI_SlaveStopContinueRead, (int h, unsigned char ch), SPI_ERR_REPLY,
               { return continuous_command(h, ch, kCmdSlaveStopContinue); })

VELTRIX_EXPORT(int, SPI_SlaveContinueWrite, (int h, unsigned char ch, unsigned char* data, int len),
               SPI_ERR_REPLY, { return continue_write(h, ch, data, len); })

}  // extern "C"
