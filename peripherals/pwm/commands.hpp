// Command codes of the PWM family and the payload builders the PWM2 layer reuses.
#pragma once

#include <cstdint>

#include "device/wire.hpp"
#include "veltrix/pwm.h"

namespace veltrix::pwm {

inline constexpr uint32_t kCmdInit = 0x800;
inline constexpr uint32_t kCmdStart = 0x801;
inline constexpr uint32_t kCmdStop = 0x802;
inline constexpr uint32_t kCmdSetPulse = 0x803;
inline constexpr uint32_t kCmdSetFrequency = 0x804;
inline constexpr uint32_t kCmdSetPhase = 0x805;
inline constexpr uint32_t kCmdCapInit = 0x807;
inline constexpr uint32_t kCmdCapGetData = 0x808;

inline constexpr int kOutputs = 8;
inline constexpr size_t kConfigBytes = 74;

// Operations shared by the PWM_ exports and the PWM2_ layer; they return the family codes.
int init(uint32_t h, const PWM_CONFIG& c);
int start(uint32_t h, uint8_t mask, uint32_t run_time_us);
int stop(uint32_t h, uint8_t mask);
int set_values(uint32_t h, uint32_t cmd, uint8_t mask, const uint16_t* a, const uint16_t* b);

}  // namespace veltrix::pwm
