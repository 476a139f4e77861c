// Master transfers the adapter starts when an event pin changes. The reply leads with the
// adapter's status byte; anything but 0 means the event never came.
#include <cstring>
#include <new>
#include <vector>

#include "device/abi.hpp"
#include "peripherals/spi/commands.hpp"
#include "peripherals/spi/spi_state.hpp"

namespace veltrix::spi {
namespace {

int event_wait_ms(int timeout) { return plus_ms(timeout, kEventMarginMs); }
int block_event_wait_ms(int timeout, int count) {
  return plus_ms(int64_t(count) * timeout, kReplyMs);
}

// A reply of exactly the status byte.
int status_exchange(int handle, uint32_t cmd, const wire::PayloadBuilder& b, int wait_ms) {
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  uint8_t status = 0;
  ExchangeResult r =
      exchange(uint32_t(handle),
               {.cmd = cmd, .payload = b.span(), .reply = {&status, 1}, .timeout_ms = wait_ms});
  if (int code = spi_code(r.code)) return code;
  if (r.reply_len != 1) return SPI_ERR_REPLY;
  return status == 0 ? SPI_SUCCESS : SPI_ERR_STATUS;
}

// Status then n bytes; `status_alone` also accepts a lone non-zero status.
int status_data_exchange(int handle, uint32_t cmd, const wire::PayloadBuilder& b, uint8_t* out,
                         size_t n, int wait_ms, bool status_alone) {
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  std::vector<uint8_t> reply;
  try {
    reply.resize(n + 1);
  } catch (const std::bad_alloc&) {
    return SPI_ERR_PARAMETER;
  }
  ExchangeResult r = exchange(
      uint32_t(handle), {.cmd = cmd, .payload = b.span(), .reply = reply, .timeout_ms = wait_ms});
  if (int code = spi_code(r.code)) return code;
  if (status_alone && r.reply_len == 1 && reply[0] != 0) return SPI_ERR_STATUS;
  if (r.reply_len != n + 1) return SPI_ERR_REPLY;
  if (reply[0] != 0) return SPI_ERR_STATUS;
  if (n) std::memcpy(out, reply.data() + 1, n);
  return SPI_SUCCESS;
}

int write_of_event(int handle, uint8_t ch, const uint8_t* data, int len, int pin, uint8_t type,
                   int timeout) {
  if (!valid_length(len, data)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(10 + size_t(len));
  b.u8(ch).be32(uint32_t(pin)).u8(type).be32(uint32_t(timeout)).bytes(data, size_t(len));
  return status_exchange(handle, kCmdWriteOfEvent, b, event_wait_ms(timeout));
}

int read_of_event(int handle, uint8_t ch, uint8_t* buf, int len, int pin, uint8_t type,
                  int timeout) {
  if (!valid_length(len, buf)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(14);
  b.u8(ch).be32(uint32_t(len)).be32(uint32_t(pin)).u8(type).be32(uint32_t(timeout));
  return status_data_exchange(handle, kCmdReadOfEvent, b, buf, size_t(len), event_wait_ms(timeout),
                              true);
}

int write_read_of_event(int handle, uint8_t ch, const uint8_t* wdata, int wlen, uint8_t* rbuf,
                        int rlen, int interval, int pin, uint8_t type, int timeout) {
  if (!valid_length(wlen, wdata) || !valid_length(rlen, rbuf)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(18 + size_t(wlen));
  b.u8(ch).be32(uint32_t(rlen)).be32(uint32_t(interval)).be32(uint32_t(pin)).u8(type);
  b.be32(uint32_t(timeout)).bytes(wdata, size_t(wlen));
  return status_data_exchange(handle, kCmdWriteReadOfEvent, b, rbuf, size_t(rlen),
                              event_wait_ms(timeout), true);
}

int block_write_of_event(int handle, uint8_t ch, const uint8_t* data, int size, int count, int pin,
                         uint8_t type, int timeout) {
  if (!valid_blocks(size, count) || !valid_length(int64_t(size) * count, data))
    return SPI_ERR_PARAMETER;
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  const size_t n = size_t(size) * size_t(count);
  wire::PayloadBuilder b(14 + n);
  b.u8(ch).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(pin)).u8(type);
  b.be32(uint32_t(timeout)).bytes(data, n);
  uint8_t status = 0;
  ExchangeResult r =
      exchange(uint32_t(handle), {.cmd = kCmdBlockWriteOfEvent,
                                  .payload = b.span(),
                                  .reply = {&status, 1},
                                  .timeout_ms = block_event_wait_ms(timeout, count)});
  if (int code = spi_code(r.code)) return code;
  // The adapter may acknowledge with an empty reply; only a status byte other than 0 fails.
  return (r.reply_len == 1 && status != 0) ? SPI_ERR_STATUS : SPI_SUCCESS;
}

int block_read_of_event(int handle, uint8_t ch, uint8_t* buf, int size, int count, int pin,
                        uint8_t type, int timeout) {
  if (!valid_blocks(size, count) || !valid_length(int64_t(size) * count, buf))
    return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(14);
  b.u8(ch).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(pin)).u8(type);
  b.be32(uint32_t(timeout));
  return status_data_exchange(handle, kCmdBlockReadOfEvent, b, buf, size_t(size) * size_t(count),
                              block_event_wait_ms(timeout, count), false);
}

int block_write_read_of_event(int handle, uint8_t ch, const uint8_t* wdata, int wsize,
                              uint8_t* rbuf, int rsize, int count, int pin, uint8_t type,
                              int timeout) {
  if (!valid_blocks(wsize, count) || !valid_blocks(rsize, count) ||
      !valid_length(int64_t(wsize) * count, wdata) || !valid_length(int64_t(rsize) * count, rbuf))
    return SPI_ERR_PARAMETER;
  const size_t wn = size_t(wsize) * size_t(count);
  wire::PayloadBuilder b(16 + wn);
  b.u8(ch).be16(uint16_t(wsize)).be16(uint16_t(rsize)).be16(uint16_t(count));
  b.be32(uint32_t(pin)).u8(type).be32(uint32_t(timeout)).bytes(wdata, wn);
  return status_data_exchange(handle, kCmdBlockWriteReadOfEvent, b, rbuf,
                              size_t(rsize) * size_t(count), block_event_wait_ms(timeout, count),
                              false);
}

}  // namespace
}  // namespace veltrix::spi

using namespace veltrix;
using namespace veltrix::spi;

extern "C" {

VELTRIX_EXPORT(int, SPI_WriteBytesOfEvent,
               (int h, unsigned char ch, unsigned char* data, int len, int pin, unsigned char type,
                int timeout),
               SPI_ERR_REPLY, { return write_of_event(h, ch, data, len, pin, type, timeout); })

VELTRIX_EXPORT(int, SPI_ReadBytesOfEvent,
               (int h, unsigned char ch, unsigned char* buf, int len, int pin, unsigned char type,
                int timeout),
               SPI_ERR_PARAMETER, { return read_of_event(h, ch, buf, len, pin, type, timeout); })

VELTRIX_EXPORT(int, SPI_WriteReadBytesOfEvent,
               (int h, unsigned char ch, unsigned char* wdata, int wlen, unsigned char* rbuf,
                int rlen, int interval, int pin, unsigned char type, int timeout),
               SPI_ERR_PARAMETER, {
                 return write_read_of_event(h, ch, wdata, wlen, rbuf, rlen, interval, pin, type,
                                            timeout);
               })

VELTRIX_EXPORT(int, SPI_BlockWriteBytesOfEvent,
               (int h, unsigned char ch, unsigned char* data, int size, int count, int pin,
                unsigned char type, int timeout),
               SPI_ERR_REPLY,
               { return block_write_of_event(h, ch, data, size, count, pin, type, timeout); })

VELTRIX_EXPORT(int, SPI_BlockReadBytesOfEvent,
               (int h, unsigned char ch, unsigned char* buf, int size, int count, int pin,
                unsigned char type, int timeout),
               SPI_ERR_PARAMETER,
               { return block_read_of_event(h, ch, buf, size, count, pin, type, timeout); })

VELTRIX_EXPORT(int, SPI_BlockWriteReadBytesOfEvent,
               (int h, unsigned char ch, unsigned char* wdata, int wsize, unsigned char* rbuf,
                int rsize, int count, int pin, unsigned char type, int timeout),
               SPI_ERR_PARAMETER, {
                 return block_write_read_of_event(h, ch, wdata, wsize, rbuf, rsize, count, pin,
                                                  type, timeout);
               })

}  // extern "C"
