// Bit-string transfers.
#include "peripherals/spi/bits.hpp"

#include <cstring>

#include "device/abi.hpp"
#include "peripherals/spi/commands.hpp"
#include "peripherals/spi/spi_state.hpp"

namespace veltrix::spi {

PackedBits pack_bits(const char* s) {
  PackedBits p;
  p.count = uint32_t(strnlen(s, SPI_MAX_BITS));
  p.bytes.assign((p.count + 7) / 8, 0);
  for (uint32_t i = 0; i < p.count; ++i) {
    if (s[i] != '0' && s[i] != '1') return p;
    if (s[i] == '1') p.bytes[i / 8] |= uint8_t(0x80 >> (i % 8));
  }
  p.ok = true;
  return p;
}

void unpack_bits(const uint8_t* bytes, uint32_t count, char* out) {
  for (uint32_t i = 0; i < count; ++i) out[i] = (bytes[i / 8] & (0x80 >> (i % 8))) ? '1' : '0';
  out[count] = '\0';
}

namespace {

bool valid_read_count(int n, const char* out) {
  return out != nullptr && n >= 0 && n <= SPI_MAX_BITS;
}

int write_bits(int handle, uint8_t ch, const char* bits) {
  if (bits == nullptr) return SPI_ERR_PARAMETER;
  PackedBits p = pack_bits(bits);
  if (!p.ok) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(5 + p.bytes.size());
  b.u8(ch).be32(p.count).bytes(p.bytes);
  return ack_exchange(handle, kCmdWriteBits, b.span(), kLongReplyMs, kBitsSendMs);
}

// The reply is ceil(n / 8) bytes, unpacked only when it is complete.
int read_into(int handle, uint32_t cmd, const wire::PayloadBuilder& b, char* out, uint32_t n) {
  std::vector<uint8_t> in((n + 7) / 8);
  if (int r = data_exchange(handle, cmd, b.span(), in, kLongReplyMs)) return r;
  unpack_bits(in.data(), n, out);
  return SPI_SUCCESS;
}

int read_bits(int handle, uint8_t ch, char* out, int n) {
  if (!valid_read_count(n, out)) return SPI_ERR_PARAMETER;
  out[0] = '\0';
  wire::PayloadBuilder b(5);
  b.u8(ch).be32(uint32_t(n));
  return read_into(handle, kCmdReadBits, b, out, uint32_t(n));
}

int write_read_bits(int handle, uint8_t ch, const char* wbits, char* out, int n) {
  if (wbits == nullptr || !valid_read_count(n, out)) return SPI_ERR_PARAMETER;
  PackedBits p = pack_bits(wbits);
  if (!p.ok) return SPI_ERR_PARAMETER;
  out[0] = '\0';
  wire::PayloadBuilder b(9 + p.bytes.size());
  b.u8(ch).be32(p.count).be32(uint32_t(n)).bytes(p.bytes);
  return read_into(handle, kCmdWriteReadBits, b, out, uint32_t(n));
}

}  // namespace
}  // namespace veltrix::spi

using namespace veltrix;
using namespace veltrix::spi;

extern "C" {

VELTRIX_EXPORT(int, SPI_WriteBits, (int h, unsigned char ch, char* bits), SPI_ERR_REPLY,
               { return write_bits(h, ch, bits); })

VELTRIX_EXPORT(int, SPI_ReadBits, (int h, unsigned char ch, char* out, int n), SPI_ERR_REPLY,
               { return read_bits(h, ch, out, n); })

VELTRIX_EXPORT(int, SPI_WriteReadBits, (int h, unsigned char ch, char* wbits, char* out, int n),
               SPI_ERR_REPLY, { return write_read_bits(h, ch, wbits, out, n); })

}  // extern "C"
