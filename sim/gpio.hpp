// The virtual adapter's 32 general-purpose pins and the wires a test connects between
// them. A pin's level is decided on its net (the pins wired together):
//   - any push-pull output driving 0, open-drain output at 0, or external 0 pulls it low;
//   - otherwise any push-pull output at 1 or external 1 drives it high;
//   - otherwise the pulls decide: a pull-up gives 1, a pull-down or nothing gives 0.
// The pulse generator (0x806) remembers its last train: its shape is what the PWM capture
// sees on a pin it is wired to.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr int kGpioPins = 32;

enum class PinMode { Input, Output, OpenDrain };

struct Pin {
  PinMode mode = PinMode::Input;
  uint8_t pull = 0;  // 0 none, 1 up, 2 down
  bool out = false;
  std::optional<bool> external;  // a level forced from outside the adapter
};

struct PulseTrain {
  uint32_t mask = 0;
  uint32_t width_us = 0;
  uint32_t period_us = 0;
  uint32_t count = 0;
};

struct GpioSim {
  std::array<Pin, kGpioPins> pins;
  std::vector<std::pair<int, int>> wires;
  std::vector<PulseTrain> trains;  // every train sent, in order

  void wire(int a, int b) { wires.emplace_back(a, b); }
  bool level(int pin) const;
};

GpioSim& gpio_sim(Model& m);  // caller holds sim_mutex()
void install_gpio(Model& m);

}  // namespace veltrix::sim
