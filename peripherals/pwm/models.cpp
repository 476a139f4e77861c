#include "peripherals/pwm/models.hpp"

#include <bit>

namespace veltrix::pwm {
namespace {

struct ModelTimer {
  uint8_t model;
  uint8_t first_bit;  // mask bit of output 0
  uint32_t clock_hz;
};

constexpr ModelTimer kModels[] = {
    {0x11, 0, 200000000}, {0x31, 0, 200000000}, {0x21, 0, 200000000}, {0x54, 0, 240000000},
    {0x41, 6, 84000000},  {0x43, 6, 84000000},  {0x42, 6, 84000000},  {0x44, 6, 84000000},
    {0x45, 6, 84000000},  {0x53, 1, 220000000},
};

const ModelTimer* find(uint32_t handle) {
  const uint8_t code = uint8_t(handle >> 24);
  for (const ModelTimer& m : kModels)
    if (m.model == code) return &m;
  return nullptr;
}

}  // namespace

uint8_t channel_mask(uint32_t handle, unsigned channel) {
  const ModelTimer* m = find(handle);
  if (m == nullptr) return 0;
  // Outputs past the mask's eighth bit do not exist on that model.
  const unsigned bit = channel + m->first_bit;
  return bit < 8 ? uint8_t(1u << bit) : 0;
}

int channel_index(uint32_t handle, unsigned channel) {
  const uint8_t mask = channel_mask(handle, channel);
  return mask == 0 ? 0 : std::countr_zero(unsigned(mask));
}

uint32_t timer_clock(uint32_t handle) {
  const ModelTimer* m = find(handle);
  return m ? m->clock_hz : 0;
}

}  // namespace veltrix::pwm
