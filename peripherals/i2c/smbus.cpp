// SMBus protocols on top of the master transfers. Every helper uses the adapter time-out
// 10 and hands its PEC flag through.
#include <algorithm>
#include <vector>

#include "device/abi.hpp"
#include "peripherals/i2c/commands.hpp"
#include "peripherals/i2c/i2c_state.hpp"
#include "peripherals/i2c/master.hpp"

namespace veltrix::i2c {
namespace {

constexpr int kSmbTimeout = 10;

int smbus_init(int handle, uint8_t ch, uint32_t clock, uint8_t option) {
  IIC_CONFIG c{};
  c.ClockSpeedHz = clock;
  c.Master = 1;
  c.AddrBits = 7;
  c.Options[0] = option;
  return init(handle, ch, &c);
}

int write_word(int handle, uint8_t ch, uint16_t addr, uint8_t command, uint16_t word, uint8_t pec) {
  uint8_t out[3] = {command};
  wire::put_be16(out + 1, word);
  return write_bytes_pec(handle, ch, addr, out, 3, kSmbTimeout, pec);
}

// Word answers come high byte first; the output is written only on status 0.
int read_word(int handle, uint8_t ch, uint16_t addr, const uint8_t* wdata, int wlen, uint16_t* out,
              uint8_t pec) {
  if (out == nullptr) return IIC_ERR_PARAMETER;
  uint8_t in[2];
  int r = write_read_bytes_pec(handle, ch, addr, wdata, wlen, in, 2, kSmbTimeout, pec);
  if (r == 0) *out = wire::get_be16(in);
  return r;
}

// Block write and block process call share one request layout.
wire::PayloadBuilder block_request(uint8_t ch, uint16_t addr, uint8_t command, const uint8_t* data,
                                   int len, uint8_t pec) {
  wire::PayloadBuilder b(9 + size_t(len));
  b.u8(ch).be16(addr).be32(kSmbTimeout).u8(command).u8(pec).bytes(data, size_t(len));
  return b;
}

int block_write(int handle, uint8_t ch, uint16_t addr, uint8_t command, const uint8_t* data,
                int len, uint8_t pec) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(len, data)) return IIC_ERR_PARAMETER;
  return status_exchange(handle, kCmdSmbBlockWrite,
                         block_request(ch, addr, command, data, len, pec).span());
}

// The block comes back behind the status byte; its length is stored only when there is
// one, so a status-only answer leaves the caller's length as it was.
int block_reply(int handle, uint32_t cmd, const wire::PayloadBuilder& req, uint8_t* buf,
                int* len_out) {
  std::vector<uint8_t> reply(SMBUS_BLOCK_MAX + 1);
  ExchangeResult r =
      exchange(uint32_t(handle),
               {.cmd = cmd, .payload = req.span(), .reply = reply, .timeout_ms = kMasterReplyMs});
  if (int code = block_code(r.code)) return code;
  if (r.copied == 0) return IIC_ERR_READ;  // not even a status byte
  if (reply[0] == 0 && r.copied > 1) {
    std::copy_n(reply.begin() + 1, r.copied - 1, buf);
    if (len_out) *len_out = int(r.copied - 1);
  }
  return reply[0];
}

int block_read(int handle, uint8_t ch, uint16_t addr, uint8_t command, uint8_t* buf, int* len_out,
               uint8_t pec) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (buf == nullptr) return IIC_ERR_PARAMETER;
  wire::PayloadBuilder b(9);
  b.u8(ch).be16(addr).be32(kSmbTimeout).u8(command).u8(pec);
  return block_reply(handle, kCmdSmbBlockRead, b, buf, len_out);
}

int block_process_call(int handle, uint8_t ch, uint16_t addr, uint8_t command, const uint8_t* wdata,
                       int wlen, uint8_t* buf, int* len_out, uint8_t pec) {
  if (Target t = check_target(handle, ch); t.code) return t.code;
  if (!valid_length(wlen, wdata) || buf == nullptr) return IIC_ERR_PARAMETER;
  return block_reply(handle, kCmdSmbBlockProcessCall,
                     block_request(ch, addr, command, wdata, wlen, pec), buf, len_out);
}

}  // namespace
}  // namespace veltrix::i2c

using namespace veltrix;
using namespace veltrix::i2c;

extern "C" {

VELTRIX_EXPORT(int, SMBUS_Init, (int h, unsigned char ch, unsigned int clock, unsigned char option),
               IIC_ERR_REPLY, { return smbus_init(h, ch, clock, option); })

VELTRIX_EXPORT(int, SMBUS_QuickCommand,
               (int h, unsigned char ch, unsigned short addr, unsigned char rw), IIC_ERR_REPLY, {
                 return rw == 0 ? read_bytes_pec(h, ch, addr, nullptr, 0, kSmbTimeout, 0)
                                : write_bytes_pec(h, ch, addr, nullptr, 0, kSmbTimeout, 0);
               })

VELTRIX_EXPORT(int, SMBUS_WriteByte,
               (int h, unsigned char ch, unsigned short addr, unsigned char data,
                unsigned char pec),
               IIC_ERR_REPLY, { return write_bytes_pec(h, ch, addr, &data, 1, kSmbTimeout, pec); })

VELTRIX_EXPORT(int, SMBUS_ReadByte,
               (int h, unsigned char ch, unsigned short addr, unsigned char* out,
                unsigned char pec),
               IIC_ERR_REPLY, {
                 if (out == nullptr) return int(IIC_ERR_PARAMETER);
                 return read_bytes_pec(h, ch, addr, out, 1, kSmbTimeout, pec);
               })

VELTRIX_EXPORT(int, SMBUS_WriteByteProtocol,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned char data, unsigned char pec),
               IIC_ERR_REPLY, {
                 const uint8_t out[2] = {command, data};
                 return write_bytes_pec(h, ch, addr, out, 2, kSmbTimeout, pec);
               })

VELTRIX_EXPORT(int, SMBUS_WriteWordProtocol,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned short word, unsigned char pec),
               IIC_ERR_REPLY, { return write_word(h, ch, addr, command, word, pec); })

VELTRIX_EXPORT(int, SMBUS_ReadByteProtocol,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned char* out, unsigned char pec),
               IIC_ERR_REPLY, {
                 if (out == nullptr) return int(IIC_ERR_PARAMETER);
                 return write_read_bytes_pec(h, ch, addr, &command, 1, out, 1, kSmbTimeout, pec);
               })

VELTRIX_EXPORT(int, SMBUS_ReadWordProtocol,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned short* out, unsigned char pec),
               IIC_ERR_REPLY, { return read_word(h, ch, addr, &command, 1, out, pec); })

VELTRIX_EXPORT(int, SMBUS_ProcessCall,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned short word, unsigned short* out, unsigned char pec),
               IIC_ERR_REPLY, {
                 uint8_t w[3] = {command};
                 wire::put_be16(w + 1, word);
                 return read_word(h, ch, addr, w, 3, out, pec);
               })

VELTRIX_EXPORT(int, SMBUS_BlockWrite,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned char* data, int len, unsigned char pec),
               IIC_ERR_REPLY, { return block_write(h, ch, addr, command, data, len, pec); })

VELTRIX_EXPORT(int, SMBUS_BlockRead,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned char* buf, int* len, unsigned char pec),
               IIC_ERR_READ, { return block_read(h, ch, addr, command, buf, len, pec); })

VELTRIX_EXPORT(int, SMBUS_BlockProcessCall,
               (int h, unsigned char ch, unsigned short addr, unsigned char command,
                unsigned char* wdata, int wlen, unsigned char* buf, int* len, unsigned char pec),
               IIC_ERR_READ,
               { return block_process_call(h, ch, addr, command, wdata, wlen, buf, len, pec); })

}  // extern "C"
