// The virtual adapter's eight PWM outputs (index = channel-mask bit) and four capture
// inputs. A capture input is wired by default to the output of its own index; a test may
// wire it to another output or to a GPIO pin instead, where it sees the pulse generator's
// last train. The capture counts at the model's PWM timer clock.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr int kPwmOutputs = 8;
inline constexpr int kPwmCaptures = 4;

struct PwmOutput {
  uint16_t prescaler = 1;
  uint16_t period = 1;
  uint16_t pulse = 0;
  uint16_t phase = 0;
  uint8_t polarity = 0;
  bool running = false;
  uint32_t run_time_us = 0;
};

struct PwmCapture {
  uint8_t mode = 0;
  int output = -1;    // the PWM output it sees; -1: the output of its own index
  int gpio_pin = -1;  // >= 0: sees this GPIO pin instead
};

struct PwmSim {
  std::array<PwmOutput, kPwmOutputs> out;
  std::array<PwmCapture, kPwmCaptures> cap;
  std::vector<uint8_t> last_config;  // the 74 bytes of the last 0x800
};

// The PWM timer clock of a model code (the firmware's own table); 0 if it has no PWM.
uint32_t pwm_timer_clock(uint8_t model_code);

PwmSim& pwm_sim(Model& m);  // caller holds sim_mutex()
void install_pwm(Model& m);

}  // namespace veltrix::sim
