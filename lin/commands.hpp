// Command codes of the LIN family.
#pragma once

#include <cstdint>

namespace veltrix::lin {

// Firmware at or above this version speaks the newer command set.
inline constexpr uint32_t kNewApiFirmware = 0x0105001E;

// Newer command set.
inline constexpr uint32_t kCmdInit = 0x0F06;
inline constexpr uint32_t kCmdMasterSync = 0x0F07;
inline constexpr uint32_t kCmdSlaveSetIdMode = 0x0F08;
inline constexpr uint32_t kCmdSlaveGetData = 0x0F09;
inline constexpr uint32_t kCmdPowerOut = 0x0F0A;
inline constexpr uint32_t kCmdGetVbat = 0x0F0B;
inline constexpr uint32_t kCmdStartSch = 0x0F0C;
inline constexpr uint32_t kCmdStopSch = 0x0F0D;
inline constexpr uint32_t kCmdGetSch = 0x0F0E;
inline constexpr uint32_t kCmdSlaveGetIdMode = 0x0F0F;
inline constexpr uint32_t kCmdSetSchRunTimes = 0x0F10;

// Older command set.
inline constexpr uint32_t kCmdOldInit = 0x0F00;
inline constexpr uint32_t kCmdOldWrite = 0x0F01;
inline constexpr uint32_t kCmdOldRead = 0x0F02;
inline constexpr uint32_t kCmdOldSlaveSet = 0x0F03;
inline constexpr uint32_t kCmdOldSlaveGet = 0x0F04;
inline constexpr uint32_t kCmdOldBreak = 0x0F05;

}  // namespace veltrix::lin
