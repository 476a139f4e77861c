// Command codes of the SPI family and the receive time-outs the adapter needs.
#pragma once

#include <cstdint>

namespace veltrix::spi {

inline constexpr uint32_t kCmdInit = 0x200;
inline constexpr uint32_t kCmdWrite = 0x201;
inline constexpr uint32_t kCmdWriteAsync = 0x202;
inline constexpr uint32_t kCmdRead = 0x203;
inline constexpr uint32_t kCmdWriteRead = 0x204;
inline constexpr uint32_t kCmdSlaveWrite = 0x205;
inline constexpr uint32_t kCmdFlashInit = 0x207;
inline constexpr uint32_t kCmdFlashReadId = 0x208;
inline constexpr uint32_t kCmdFlashWrite = 0x209;
inline constexpr uint32_t kCmdFlashRead = 0x20A;
inline constexpr uint32_t kCmdFlashEraseSector = 0x20B;
inline constexpr uint32_t kCmdFlashReadFast = 0x20C;
inline constexpr uint32_t kCmdBlockWrite = 0x20D;
inline constexpr uint32_t kCmdBlockRead = 0x20E;
inline constexpr uint32_t kCmdBlockWriteRead = 0x20F;
inline constexpr uint32_t kCmdWriteBits = 0x210;
inline constexpr uint32_t kCmdReadBits = 0x211;
inline constexpr uint32_t kCmdWriteReadBits = 0x212;
inline constexpr uint32_t kCmdWriteOfEvent = 0x213;
inline constexpr uint32_t kCmdReadOfEvent = 0x214;
inline constexpr uint32_t kCmdWriteReadOfEvent = 0x215;
inline constexpr uint32_t kCmdBlockWriteOfEvent = 0x216;
inline constexpr uint32_t kCmdBlockReadOfEvent = 0x217;
inline constexpr uint32_t kCmdBlockWriteReadOfEvent = 0x218;
inline constexpr uint32_t kCmdSlaveWriteRead = 0x222;
inline constexpr uint32_t kCmdSlaveReadBuffer = 0x223;
inline constexpr uint32_t kCmdSlaveReadWrite = 0x224;
inline constexpr uint32_t kCmdSlaveStartContinue = 0x225;
inline constexpr uint32_t kCmdSlaveStopContinue = 0x226;
inline constexpr uint32_t kCmdSlaveContinueWrite = 0x227;

// Transfers and flash programming answer only when the bus work is done.
inline constexpr int kLongReplyMs = 10000;
inline constexpr int kReplyMs = 1000;
// A bit string the adapter does not take at once is given up on quickly (and retried by
// the send policy); only its reply may take as long as a long transfer.
inline constexpr int kBitsSendMs = 100;
inline constexpr int kEventMarginMs = 100;
inline constexpr int kSlaveMarginMs = 100;
inline constexpr int kSlaveBufferMarginMs = 10;

}  // namespace veltrix::spi
