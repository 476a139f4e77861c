// Command codes of the I2C family and the receive time-outs the adapter needs.
#pragma once

#include <cstdint>

namespace veltrix::i2c {

inline constexpr uint32_t kCmdInit = 0x700;
inline constexpr uint32_t kCmdWrite = 0x701;
inline constexpr uint32_t kCmdRead = 0x702;
inline constexpr uint32_t kCmdWriteRead = 0x703;
inline constexpr uint32_t kCmdSlaveWrite = 0x704;
inline constexpr uint32_t kCmdSlaveRead = 0x705;
inline constexpr uint32_t kCmdSlaveWriteRemain = 0x706;
inline constexpr uint32_t kCmdSmbBlockWrite = 0x707;
inline constexpr uint32_t kCmdSmbBlockRead = 0x708;
inline constexpr uint32_t kCmdSmbBlockProcessCall = 0x709;
inline constexpr uint32_t kCmdWriteOfEvent = 0x70A;
inline constexpr uint32_t kCmdReadOfEvent = 0x70B;
inline constexpr uint32_t kCmdWriteReadOfEvent = 0x70C;
inline constexpr uint32_t kCmdBlockWrite = 0x70D;
inline constexpr uint32_t kCmdBlockRead = 0x70E;

// The adapter answers a master transfer only after the bus is done with it.
inline constexpr int kMasterReplyMs = 5000;
inline constexpr int kConfigReplyMs = 1000;
// A slave call waits on the remote master for the caller's time-out, then answers.
inline constexpr int kSlaveReplyMarginMs = 100;

}  // namespace veltrix::i2c
