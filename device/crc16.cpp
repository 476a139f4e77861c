#include "device/crc16.hpp"

#include <array>

#include "device/abi.hpp"
#include "veltrix/device.h"

namespace veltrix {
namespace {

constexpr std::array<uint16_t, 256> make_table() {
  std::array<uint16_t, 256> t{};
  for (unsigned i = 0; i < 256; ++i) {
    uint16_t c = uint16_t(i << 8);
    for (int b = 0; b < 8; ++b) c = (c & 0x8000) ? uint16_t((c << 1) ^ 0x1021) : uint16_t(c << 1);
    t[i] = c;
  }
  return t;
}

constexpr std::array<uint16_t, 256> kTable = make_table();

}  // namespace

uint16_t crc16_xmodem(std::span<const uint8_t> data) {
  uint16_t crc = 0;
  for (uint8_t b : data) crc = uint16_t((crc << 8) ^ kTable[uint8_t((crc >> 8) ^ b)]);
  return crc;
}

}  // namespace veltrix

VELTRIX_EXPORT(uint16_t, crc16_ccitt, (const unsigned char* data, int len), 0, {
  if (data == nullptr || len <= 0) return 0;
  return veltrix::crc16_xmodem({data, size_t(len)});
})
