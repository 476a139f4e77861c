#include "sim/pwm.hpp"

#include <algorithm>

#include "device/wire.hpp"
#include "sim/gpio.hpp"

namespace veltrix::sim {
namespace {

Reply ack(const Command& c) { return Reply{c.code, {}}; }

// Applies the eight 16-bit values at `at` to the masked outputs.
template <typename Set>
void for_masked(Model& m, const Command& c, size_t at, Set set) {
  const uint8_t mask = c.payload[0];
  for (int i = 0; i < kPwmOutputs; ++i)
    if (mask >> i & 1) set(pwm_sim(m).out[i], wire::get_be16(c.payload.data() + at + 2 * i));
}

struct Measure {
  uint32_t period = 0, high = 0;
};

Measure measure(Model& m, const PwmCapture& cap, int index) {
  const uint32_t clock = pwm_timer_clock(m.model_code());
  if (cap.gpio_pin >= 0) {
    const auto& trains = gpio_sim(m).trains;
    for (auto it = trains.rbegin(); it != trains.rend(); ++it) {
      if (!(it->mask >> cap.gpio_pin & 1) || it->count == 0) continue;
      return {uint32_t(uint64_t(it->period_us) * clock / 1000000),
              uint32_t(uint64_t(it->width_us) * clock / 1000000)};
    }
    return {};
  }
  const PwmOutput& o = pwm_sim(m).out[cap.output >= 0 ? cap.output : index];
  if (!o.running) return {};
  const uint32_t period = uint32_t(o.prescaler) * o.period;
  uint32_t high = uint32_t(o.prescaler) * std::min(o.pulse, o.period);
  if (o.polarity) high = period - high;
  return {period, high};
}

}  // namespace

uint32_t pwm_timer_clock(uint8_t code) {
  switch (code) {
    case 0x11:
    case 0x21:
    case 0x31:
      return 200000000;
    case 0x54:
      return 240000000;
    case 0x41:
    case 0x42:
    case 0x43:
    case 0x44:
    case 0x45:
      return 84000000;
    case 0x53:
      return 220000000;
    default:
      return 0;
  }
}

PwmSim& pwm_sim(Model& m) { return m.state<PwmSim>(); }

void install_pwm(Model& m) {
  m.on(0x800, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 74) return std::nullopt;
    const uint8_t* p = c.payload.data();
    const uint8_t mask = p[72];
    for (int i = 0; i < kPwmOutputs; ++i) {
      if (!(mask >> i & 1)) continue;
      PwmOutput& o = pwm_sim(m).out[i];
      o.prescaler = wire::get_le16(p + 2 * i);
      o.period = wire::get_le16(p + 16 + 2 * i);
      o.pulse = wire::get_le16(p + 32 + 2 * i);
      o.phase = wire::get_le16(p + 48 + 2 * i);
      o.polarity = p[64 + i];
    }
    pwm_sim(m).last_config = c.payload;
    return ack(c);
  });
  m.on(0x801, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 5) return std::nullopt;
    for (int i = 0; i < kPwmOutputs; ++i) {
      if (!(c.payload[0] >> i & 1)) continue;
      pwm_sim(m).out[i].running = true;
      pwm_sim(m).out[i].run_time_us = wire::get_be32(c.payload.data() + 1);
    }
    return ack(c);
  });
  m.on(0x802, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 1) return std::nullopt;
    for (int i = 0; i < kPwmOutputs; ++i)
      if (c.payload[0] >> i & 1) pwm_sim(m).out[i].running = false;
    return ack(c);
  });
  m.on(0x803, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 17) return std::nullopt;
    for_masked(m, c, 1, [](PwmOutput& o, uint16_t v) { o.pulse = v; });
    return ack(c);
  });
  m.on(0x804, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 33) return std::nullopt;
    for_masked(m, c, 1, [](PwmOutput& o, uint16_t v) { o.prescaler = std::max<uint16_t>(v, 1); });
    for_masked(m, c, 17, [](PwmOutput& o, uint16_t v) { o.period = std::max<uint16_t>(v, 1); });
    return ack(c);
  });
  m.on(0x805, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 17) return std::nullopt;
    for_masked(m, c, 1, [](PwmOutput& o, uint16_t v) { o.phase = v; });
    return ack(c);
  });
  m.on(0x807, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 2 || c.payload[0] >= kPwmCaptures) return std::nullopt;
    pwm_sim(m).cap[c.payload[0]].mode = c.payload[1];
    return ack(c);
  });
  m.on(0x808, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 1 || c.payload[0] >= kPwmCaptures) return std::nullopt;
    const PwmCapture& cap = pwm_sim(m).cap[c.payload[0]];
    Measure v = cap.mode ? measure(m, cap, c.payload[0]) : Measure{};
    Reply r{c.code, std::vector<uint8_t>(12)};
    wire::put_be32(r.payload.data(), v.period);
    wire::put_be32(r.payload.data() + 4, v.high);
    wire::put_be32(r.payload.data() + 8, pwm_timer_clock(m.model_code()));
    return r;
  });
}

}  // namespace veltrix::sim
