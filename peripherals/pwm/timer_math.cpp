#include "peripherals/pwm/timer_math.hpp"

#include <algorithm>
#include <cmath>

namespace veltrix::pwm {
namespace {

constexpr double kMaxCount = 65535.0;

}  // namespace

std::optional<Timing> timing_for(uint32_t clock_hz, double hz) {
  if (clock_hz == 0 || !std::isfinite(hz) || hz <= 0) return std::nullopt;
  const double clock = clock_hz;
  const double lowest = clock / (kMaxCount * kMaxCount);
  if (hz > clock * 1.5 || hz < lowest * 0.5) return std::nullopt;
  const double divisor = clock / hz;
  Timing best;
  double best_err = INFINITY;
  // Every prescaler is tried: for each, the period just below and just above the ideal
  // divisor are the only candidates that can be closest in frequency.
  for (uint32_t p = 1; p <= 65535; ++p) {
    const double ideal = divisor / p;
    if (ideal > kMaxCount + 1) continue;
    const double lo = std::clamp(std::floor(ideal), 1.0, kMaxCount);
    const double hi = std::clamp(std::ceil(ideal), 1.0, kMaxCount);
    for (double q : {lo, hi}) {
      const double f = clock / (double(p) * q);
      const double err = std::fabs(f - hz);
      if (err < best_err) {
        best_err = err;
        best = {uint16_t(p), uint16_t(q), f};
      }
    }
    if (ideal < 1) break;  // larger prescalers only move further away
  }
  return best;
}

uint16_t pulse_for(uint16_t period, double duty_percent) {
  const double pulse = std::round(double(period) * duty_percent / 100.0);
  return uint16_t(std::clamp(pulse, 0.0, double(period)));
}

}  // namespace veltrix::pwm
