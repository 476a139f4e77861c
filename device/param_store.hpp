// The parameter store: raw access to the adapter's parameter memory and the record chain
// kept in it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace veltrix::param {

// Parameter memory transfers; they return 0 or an ARG_ERR_ code.
int init(uint32_t handle);
int write(uint32_t handle, uint16_t addr, std::span<const uint8_t> data);
int read(uint32_t handle, uint16_t addr, std::span<uint8_t> out);

// Record header as it lies in parameter memory (all fields little-endian):
//
//   0            4            8      10     12
//   +------------+------------+------+------+---------------
//   | identifier | data length| CRC  | next | data ...
//   +------------+------------+------+------+---------------
struct Header {
  uint32_t id = 0;
  uint32_t length = 0;
  uint16_t crc = 0;
  uint16_t next = 0;
};

inline constexpr uint16_t kChainStart = 16;
inline constexpr uint16_t kHeaderSize = 12;
inline constexpr uint32_t kMarkMask = 0xFFFF0000u;
inline constexpr uint32_t kMark = 0x55AA0000u;
inline constexpr uint16_t kEndOfChain = 0xFFFF;

inline bool in_use(uint32_t id) { return (id & kMarkMask) == kMark; }

// Size of the slot (header plus data area) reserved for a record with this identifier,
// or nothing for an identifier outside the slot table.
std::optional<uint16_t> slot_size(uint32_t id);

}  // namespace veltrix::param
