// Prescaler and period for a wanted frequency on a 16-bit timer.
#pragma once

#include <cstdint>
#include <optional>

namespace veltrix::pwm {

struct Timing {
  uint16_t prescaler = 1;
  uint16_t period = 1;
  double actual_hz = 0;
};

// The pair whose frequency clock / (prescaler x period) is closest to `hz`; among equally
// close pairs the smallest prescaler (longest period, finest duty steps). No value when
// `hz` is not positive and finite, or further outside the reachable range
// [clock / 65535^2, clock] than the nearest reachable frequency allows (the error would
// exceed 50 %).
std::optional<Timing> timing_for(uint32_t clock_hz, double hz);

// Pulse counts for a duty cycle in percent: round(period x duty / 100).
uint16_t pulse_for(uint16_t period, double duty_percent);

}  // namespace veltrix::pwm
