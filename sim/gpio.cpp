#include "sim/gpio.hpp"

#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

Reply ack(const Command& c) { return Reply{c.code, {}}; }

std::optional<Reply> set_mode(Model& m, const Command& c, PinMode mode) {
  if (c.payload.size() != 5) return std::nullopt;
  const uint32_t mask = wire::get_be32(c.payload.data());
  for (int i = 0; i < kGpioPins; ++i) {
    if (!(mask >> i & 1)) continue;
    gpio_sim(m).pins[i].mode = mode;
    gpio_sim(m).pins[i].pull = c.payload[4];
  }
  return ack(c);
}

}  // namespace

bool GpioSim::level(int pin) const {
  std::vector<bool> on_net(kGpioPins, false);
  std::vector<int> pending{pin};
  on_net[pin] = true;
  while (!pending.empty()) {
    int p = pending.back();
    pending.pop_back();
    for (auto [a, b] : wires) {
      int other = a == p ? b : b == p ? a : -1;
      if (other >= 0 && other < kGpioPins && !on_net[other]) {
        on_net[other] = true;
        pending.push_back(other);
      }
    }
  }
  bool low = false, high = false, up = false;
  for (int i = 0; i < kGpioPins; ++i) {
    if (!on_net[i]) continue;
    const Pin& p = pins[i];
    if (p.external) (*p.external ? high : low) = true;
    if (p.mode == PinMode::Output) (p.out ? high : low) = true;
    if (p.mode == PinMode::OpenDrain && !p.out) low = true;
    if (p.pull == 1) up = true;
  }
  if (low) return false;
  return high || up;
}

GpioSim& gpio_sim(Model& m) { return m.state<GpioSim>(); }

void install_gpio(Model& m) {
  m.on(0x600, [](Model& m, const Command& c) { return set_mode(m, c, PinMode::Input); });
  m.on(0x601, [](Model& m, const Command& c) { return set_mode(m, c, PinMode::Output); });
  m.on(0x602, [](Model& m, const Command& c) { return set_mode(m, c, PinMode::OpenDrain); });
  m.on(0x603, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 8) return std::nullopt;
    const uint32_t mask = wire::get_be32(c.payload.data());
    const uint32_t value = wire::get_be32(c.payload.data() + 4);
    for (int i = 0; i < kGpioPins; ++i)
      if (mask >> i & 1) gpio_sim(m).pins[i].out = (value >> i & 1) != 0;
    return ack(c);
  });
  m.on(0x604, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 4) return std::nullopt;
    const uint32_t mask = wire::get_be32(c.payload.data());
    uint32_t levels = 0;
    for (int i = 0; i < kGpioPins; ++i)
      if ((mask >> i & 1) && gpio_sim(m).level(i)) levels |= 1u << i;
    Reply r{c.code, std::vector<uint8_t>(4)};
    wire::put_be32(r.payload.data(), levels);
    return r;
  });
  m.on(0x806, [](Model& m, const Command& c) -> std::optional<Reply> {
    if (c.payload.size() != 16) return std::nullopt;
    const uint8_t* p = c.payload.data();
    gpio_sim(m).trains.push_back(
        {wire::get_be32(p), wire::get_be32(p + 4), wire::get_be32(p + 8), wire::get_be32(p + 12)});
    return ack(c);
  });
}

}  // namespace veltrix::sim
