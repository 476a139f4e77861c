// Channel set-up, the master transfers (plain, event-triggered, blocks) and the address
// scan.
#include "peripherals/i2c/master.hpp"

#include "device/abi.hpp"
#include "peripherals/i2c/commands.hpp"
#include "peripherals/i2c/i2c_state.hpp"

namespace veltrix::i2c {
namespace {

constexpr int kScanTimeout = 5;
constexpr uint32_t kScan7Bit = 128;
constexpr uint32_t kScan10Bit = 1024;

// Only the three high-order bytes of the event time-out fit the read request: the
// adapter takes them as they come (its payload is 15 bytes long).
void put_high_three(wire::PayloadBuilder& b, uint32_t v) {
  uint8_t be[4];
  wire::put_be32(be, v);
  b.bytes(be, 3);
}

int write_of_event(int handle, uint8_t ch, uint16_t addr, const uint8_t* data, int len,
                   uint32_t pin, uint8_t type, int timeout) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(len, data)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(12 + size_t(len));
  b.u8(ch).be16(addr).be32(pin).u8(type).be32(uint32_t(timeout)).bytes(data, size_t(len));
  return status_exchange(handle, kCmdWriteOfEvent, b.span());
}

int read_of_event(int handle, uint8_t ch, uint16_t addr, uint8_t* buf, int len, uint32_t pin,
                  uint8_t type, int timeout) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(len, buf)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(15);
  b.u8(ch).be16(addr).be32(uint32_t(len)).be32(pin).u8(type);
  put_high_three(b, uint32_t(timeout));
  return read_exchange(handle, kCmdReadOfEvent, b.span(), buf, uint32_t(len));
}

int write_read_of_event(int handle, uint8_t ch, uint16_t addr, const uint8_t* wdata, int wlen,
                        uint8_t* rbuf, int rlen, uint32_t pin, uint8_t type, int timeout) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(wlen, wdata) || !valid_length(rlen, rbuf)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(16 + size_t(wlen));
  b.u8(ch).be16(addr).be32(uint32_t(rlen)).be32(pin).u8(type).be32(uint32_t(timeout));
  b.bytes(wdata, size_t(wlen));
  return read_exchange(handle, kCmdWriteReadOfEvent, b.span(), rbuf, uint32_t(rlen));
}

// Block size x count, or -1 when either is negative or the product is too large.
int64_t block_bytes(int size, int count) {
  if (size < 0 || count < 0) return -1;
  int64_t n = int64_t(size) * int64_t(count);
  return n > int64_t(IIC_MAX_TRANSFER) ? -1 : n;
}

int block_write(int handle, uint8_t ch, uint16_t addr, const uint8_t* data, int size, int count,
                int interval) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  const int64_t n = block_bytes(size, count);
  if (n < 0 || (n > 0 && data == nullptr)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(15 + size_t(n));
  b.u8(ch).be16(addr).be32(uint32_t(size)).be32(uint32_t(count)).be32(uint32_t(interval));
  b.bytes(data, size_t(n));
  return status_exchange(handle, kCmdBlockWrite, b.span());
}

int block_read(int handle, uint8_t ch, uint16_t addr, uint8_t* buf, int size, int count,
               int interval) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  const int64_t n = block_bytes(size, count);
  if (n < 0 || (n > 0 && buf == nullptr)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(15);
  b.u8(ch).be16(addr).be32(uint32_t(size)).be32(uint32_t(count)).be32(uint32_t(interval));
  return read_exchange(handle, kCmdBlockRead, b.span(), buf, uint32_t(n));
}

int scan(int handle, uint8_t ch, short* out) {
  Target t = check_target(handle, ch);
  if (t.code) return t.code;
  if (out == nullptr) return IIC_ERR_PARAMETER;
  uint32_t probes;
  {
    std::scoped_lock g(state().mutex);
    const StoredConfig& s = state().channels[size_t(t.slot)][ch];
    // A channel never set up has no address width yet: probe the wider range.
    probes = (s.applied && s.config.AddrBits != 10) ? kScan7Bit : kScan10Bit;
  }
  int found = 0;
  for (uint32_t addr = 0; addr < probes; ++addr) {
    int r = write_bytes_pec(handle, ch, uint16_t(addr), nullptr, 0, kScanTimeout, 0);
    if (r < 0) return r;
    if (r == 0) out[found++] = short(addr);
  }
  return found;
}

}  // namespace

int init(int handle, uint8_t ch, const IIC_CONFIG* c) {
  Target t = check_target(handle, ch);
  if (t.code) return t.code;
  if (c == nullptr) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(11);
  b.u8(ch).u8(c->AddrBits == 10 ? 10 : 7).u8(c->Master).be16(c->OwnAddr).be32(c->ClockSpeedHz);
  b.u8(c->Options[0]).u8(c->Options[1]);
  ExchangeResult r = exchange(uint32_t(handle),
                              {.cmd = kCmdInit, .payload = b.span(), .timeout_ms = kConfigReplyMs});
  if (int code = i2c_code(r.code)) return code;
  if (r.reply_len != 0) return IIC_ERR_REPLY;
  std::scoped_lock g(state().mutex);
  state().channels[size_t(t.slot)][ch] = {*c, true};
  return IIC_SUCCESS;
}

int write_bytes_pec(int handle, uint8_t ch, uint16_t addr, const uint8_t* data, int len,
                    int timeout, uint8_t pec) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(len, data)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(8 + size_t(len));
  b.u8(ch).be16(addr).be32(uint32_t(timeout)).u8(pec).bytes(data, size_t(len));
  return status_exchange(handle, kCmdWrite, b.span());
}

int read_bytes_pec(int handle, uint8_t ch, uint16_t addr, uint8_t* buf, int len, int timeout,
                   uint8_t pec) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(len, buf)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(12);
  b.u8(ch).be16(addr).be32(uint32_t(timeout)).be32(uint32_t(len)).u8(pec);
  return read_exchange(handle, kCmdRead, b.span(), buf, uint32_t(len));
}

int write_read_bytes_pec(int handle, uint8_t ch, uint16_t addr, const uint8_t* wdata, int wlen,
                         uint8_t* rbuf, int rlen, int timeout, uint8_t pec) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(wlen, wdata) || !valid_length(rlen, rbuf)) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(12 + size_t(wlen));
  b.u8(ch).be16(addr).be32(uint32_t(timeout)).be32(uint32_t(rlen)).u8(pec);
  b.bytes(wdata, size_t(wlen));
  return read_exchange(handle, kCmdWriteRead, b.span(), rbuf, uint32_t(rlen));
}

}  // namespace veltrix::i2c

using namespace veltrix;
using namespace veltrix::i2c;

extern "C" {

VELTRIX_EXPORT(int, IIC_Init, (int h, unsigned char ch, IIC_CONFIG* c), IIC_ERR_REPLY,
               { return init(h, ch, c); })

VELTRIX_EXPORT(int, IIC_GetSlaveAddr, (int h, unsigned char ch, short* out), IIC_ERR_REPLY,
               { return scan(h, ch, out); })

VELTRIX_EXPORT(int, IIC_WriteBytes,
               (int h, unsigned char ch, unsigned short addr, unsigned char* data, int len,
                int timeout),
               IIC_ERR_REPLY, { return write_bytes_pec(h, ch, addr, data, len, timeout, 0); })

VELTRIX_EXPORT(int, IIC_ReadBytes,
               (int h, unsigned char ch, unsigned short addr, unsigned char* buf, int len,
                int timeout),
               IIC_ERR_REPLY, { return read_bytes_pec(h, ch, addr, buf, len, timeout, 0); })

VELTRIX_EXPORT(int, IIC_WriteReadBytes,
               (int h, unsigned char ch, unsigned short addr, unsigned char* wdata, int wlen,
                unsigned char* rbuf, int rlen, int timeout),
               IIC_ERR_REPLY,
               { return write_read_bytes_pec(h, ch, addr, wdata, wlen, rbuf, rlen, timeout, 0); })

VELTRIX_EXPORT(int, IIC_WriteBytesOfEvent,
               (int h, unsigned char ch, unsigned short addr, unsigned char* data, int len,
                unsigned int pin, unsigned char type, int timeout),
               IIC_ERR_REPLY,
               { return write_of_event(h, ch, addr, data, len, pin, type, timeout); })

VELTRIX_EXPORT(int, IIC_ReadBytesOfEvent,
               (int h, unsigned char ch, unsigned short addr, unsigned char* buf, int len,
                unsigned int pin, unsigned char type, int timeout),
               IIC_ERR_REPLY, { return read_of_event(h, ch, addr, buf, len, pin, type, timeout); })

VELTRIX_EXPORT(int, IIC_WriteReadBytesOfEvent,
               (int h, unsigned char ch, unsigned short addr, unsigned char* wdata, int wlen,
                unsigned char* rbuf, int rlen, unsigned int pin, unsigned char type, int timeout),
               IIC_ERR_REPLY, {
                 return write_read_of_event(h, ch, addr, wdata, wlen, rbuf, rlen, pin, type,
                                            timeout);
               })

VELTRIX_EXPORT(int, IIC_BlockWriteBytes,
               (int h, unsigned char ch, unsigned short addr, unsigned char* data, int size,
                int count, int interval),
               IIC_ERR_REPLY, { return block_write(h, ch, addr, data, size, count, interval); })

VELTRIX_EXPORT(int, IIC_BlockReadBytes,
               (int h, unsigned char ch, unsigned short addr, unsigned char* buf, int size,
                int count, int interval),
               IIC_ERR_REPLY, { return block_read(h, ch, addr, buf, size, count, interval); })

}  // extern "C"
