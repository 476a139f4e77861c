// How each adapter model numbers its PWM outputs and clocks their timers.
#pragma once

#include <cstdint>

namespace veltrix::pwm {

// The output's bit in the 8-bit channel mask; 0 if the model has no such output.
uint8_t channel_mask(uint32_t handle, unsigned channel);
// Position of the mask's lowest set bit (0 for an empty mask).
int channel_index(uint32_t handle, unsigned channel);
// The timer clock in Hz; 0 for an unknown model.
uint32_t timer_clock(uint32_t handle);

}  // namespace veltrix::pwm
