// The schedule image the adapter runs from its schedule flash (little-endian):
//
//   offset 0    magic 0x9A21538B
//          4    number of tables (32-bit)
//          8    frame count of each table, 256 bytes, unused 0xFF
//          264  two parameter bytes of each table, 512 bytes, unused 0xFF
//          776  flash address of the frames: the image's base address + 784
//          780  0xFFFFFFFF
//          784  the frames, in the adapter's form of the port (20-byte classic records
//               or CAN FD frame elements)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace veltrix::can {

inline constexpr uint32_t kScheduleMagic = 0x9A21538B;
inline constexpr size_t kImgMagic = 0;
inline constexpr size_t kImgTables = 4;
inline constexpr size_t kImgCounts = 8;
inline constexpr size_t kImgParams = 264;
inline constexpr size_t kImgFramesAddr = 776;
inline constexpr size_t kScheduleHeader = 784;

// Each port has its own 128 KiB schedule sector: port 0 at 0x080C0000.
uint32_t schedule_base(uint8_t port);

std::vector<uint8_t> schedule_image(uint32_t base, std::span<const uint8_t> counts,
                                    std::span<const uint8_t> params,
                                    std::span<const uint8_t> frames);

}  // namespace veltrix::can
