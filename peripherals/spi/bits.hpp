// Bit strings of '0' and '1' characters, packed eight to a byte with the first character
// in the most significant bit:
//
//   "101100001111"  ->  1011 0000 | 1111 0000  ->  0xB0 0xF0, 12 bits
//                                        ^^^^ padding
#pragma once

#include <cstdint>
#include <vector>

namespace veltrix::spi {

struct PackedBits {
  bool ok = false;  // false: a character other than '0' or '1'
  uint32_t count = 0;
  std::vector<uint8_t> bytes;
};

// Reads at most SPI_MAX_BITS characters of the NUL-terminated string.
PackedBits pack_bits(const char* s);
// Writes `count` characters and a NUL to out (room for count + 1).
void unpack_bits(const uint8_t* bytes, uint32_t count, char* out);

}  // namespace veltrix::spi
