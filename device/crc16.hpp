// CRC-16/XMODEM, the checksum of the parameter store's records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace veltrix {

// Polynomial 0x1021, initial value 0, most significant bit first, no reflection, no
// final XOR. An empty span gives 0.
uint16_t crc16_xmodem(std::span<const uint8_t> data);

}  // namespace veltrix
