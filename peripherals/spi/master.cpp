// Channel set-up and the plain and block master transfers.
#include "peripherals/spi/master.hpp"

#include "device/abi.hpp"
#include "peripherals/spi/commands.hpp"
#include "peripherals/spi/spi_state.hpp"

namespace veltrix::spi {
namespace {

int init(int handle, uint8_t ch, const SPI_CONFIG* c) {
  if (c == nullptr) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(11);
  b.u8(ch).u8(c->Mode).u8(c->Master).u8(c->CPOL).u8(c->CPHA).u8(c->LSBFirst);
  b.u8(c->SelPolarity).be32(c->ClockSpeedHz);
  return ack_exchange(handle, kCmdInit, b.span(), kReplyMs);
}

int write(int handle, uint8_t ch, uint32_t cmd, const uint8_t* data, int len) {
  if (!valid_length(len, data)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(1 + size_t(len));
  b.u8(ch).bytes(data, size_t(len));
  return ack_exchange(handle, cmd, b.span(), kLongReplyMs);
}

int read(int handle, uint8_t ch, uint8_t* buf, int len) {
  if (!valid_length(len, buf)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(5);
  b.u8(ch).be32(uint32_t(len));
  return data_exchange(handle, kCmdRead, b.span(), {buf, size_t(len)}, kLongReplyMs);
}

int write_read(int handle, uint8_t ch, const uint8_t* wdata, int wlen, uint8_t* rbuf, int rlen,
               int interval) {
  if (!valid_length(wlen, wdata) || !valid_length(rlen, rbuf)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(9 + size_t(wlen));
  b.u8(ch).be32(uint32_t(rlen)).be32(uint32_t(interval)).bytes(wdata, size_t(wlen));
  return data_exchange(handle, kCmdWriteRead, b.span(), {rbuf, size_t(rlen)}, kLongReplyMs);
}

// The adapter paces the blocks itself: wait for all the intervals, then a second more.
int blocks_wait_ms(int interval_us, int count) {
  return plus_ms(int64_t(interval_us) * count / 1000, kReplyMs);
}

int block_write(int handle, uint8_t ch, const uint8_t* data, int size, int count, int interval) {
  if (!valid_blocks(size, count) || !valid_length(int64_t(size) * count, data))
    return SPI_ERR_PARAMETER;
  const size_t n = size_t(size) * size_t(count);
  wire::PayloadBuilder b(9 + n);
  b.u8(ch).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(interval)).bytes(data, n);
  return ack_exchange(handle, kCmdBlockWrite, b.span(), kReplyMs);
}

int block_read(int handle, uint8_t ch, uint8_t* buf, int size, int count, int interval) {
  if (!valid_blocks(size, count) || !valid_length(int64_t(size) * count, buf))
    return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(9);
  b.u8(ch).be16(uint16_t(size)).be16(uint16_t(count)).be32(uint32_t(interval));
  return data_exchange(handle, kCmdBlockRead, b.span(), {buf, size_t(size) * size_t(count)},
                       blocks_wait_ms(interval, count));
}

int block_write_read(int handle, uint8_t ch, const uint8_t* wdata, int wsize, uint8_t* rbuf,
                     int rsize, int count, int interval) {
  if (!valid_blocks(wsize, count) || !valid_blocks(rsize, count) ||
      !valid_length(int64_t(wsize) * count, wdata) || !valid_length(int64_t(rsize) * count, rbuf))
    return SPI_ERR_PARAMETER;
  const size_t wn = size_t(wsize) * size_t(count);
  wire::PayloadBuilder b(11 + wn);
  b.u8(ch).be16(uint16_t(wsize)).be16(uint16_t(rsize)).be16(uint16_t(count));
  b.be32(uint32_t(interval)).bytes(wdata, wn);
  return data_exchange(handle, kCmdBlockWriteRead, b.span(), {rbuf, size_t(rsize) * size_t(count)},
                       blocks_wait_ms(interval, count));
}

}  // namespace

int master_write_read(int handle, uint8_t ch, const uint8_t* wdata, int wlen, uint8_t* rbuf,
                      int rlen, int interval) {
  return write_read(handle, ch, wdata, wlen, rbuf, rlen, interval);
}
int master_write(int handle, uint8_t ch, const uint8_t* data, int len) {
  return write(handle, ch, kCmdWrite, data, len);
}

}  // namespace veltrix::spi

using namespace veltrix;
using namespace veltrix::spi;

extern "C" {

VELTRIX_EXPORT(int, SPI_Init, (int h, unsigned char ch, SPI_CONFIG* c), SPI_ERR_REPLY,
               { return init(h, ch, c); })

VELTRIX_EXPORT(int, SPI_WriteBytes, (int h, unsigned char ch, unsigned char* data, int len),
               SPI_ERR_REPLY, { return write(h, ch, kCmdWrite, data, len); })

VELTRIX_EXPORT(int, SPI_WriteBytesAsync, (int h, unsigned char ch, unsigned char* data, int len),
               SPI_ERR_REPLY, { return write(h, ch, kCmdWriteAsync, data, len); })

VELTRIX_EXPORT(int, SPI_ReadBytes, (int h, unsigned char ch, unsigned char* buf, int len),
               SPI_ERR_REPLY, { return read(h, ch, buf, len); })

VELTRIX_EXPORT(int, SPI_WriteReadBytes,
               (int h, unsigned char ch, unsigned char* wdata, int wlen, unsigned char* rbuf,
                int rlen, int interval),
               SPI_ERR_REPLY, { return write_read(h, ch, wdata, wlen, rbuf, rlen, interval); })

VELTRIX_EXPORT(int, SPI_BlockWriteBytes,
               (int h, unsigned char ch, unsigned char* data, int size, int count, int interval),
               SPI_ERR_REPLY, { return block_write(h, ch, data, size, count, interval); })

VELTRIX_EXPORT(int, SPI_BlockReadBytes,
               (int h, unsigned char ch, unsigned char* buf, int size, int count, int interval),
               SPI_ERR_REPLY, { return block_read(h, ch, buf, size, count, interval); })

VELTRIX_EXPORT(int, SPI_BlockWriteReadBytes,
               (int h, unsigned char ch, unsigned char* wdata, int wsize, unsigned char* rbuf,
                int rsize, int count, int interval),
               SPI_ERR_REPLY,
               { return block_write_read(h, ch, wdata, wsize, rbuf, rsize, count, interval); })

}  // extern "C"
