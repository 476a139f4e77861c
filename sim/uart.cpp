#include "sim/uart.hpp"

#include <algorithm>

namespace veltrix::sim {
namespace {

Reply ack(const Command& c) { return Reply{c.code, {}}; }

// The channel a command names in its first byte, or null (the firmware ignores commands
// for channels it lacks, so the host sees no reply).
UartChannel* channel(Model& m, const Command& c, size_t min_len = 1) {
  if (c.payload.size() < min_len || c.payload[0] >= kUartChannels) return nullptr;
  return &uart_sim(m).ch[c.payload[0]];
}

std::optional<Reply> write_from(Model& m, const Command& c, size_t data_at) {
  UartChannel* ch = channel(m, c, data_at);
  if (!ch) return std::nullopt;
  if (data_at == 2) ch->intervals.push_back(c.payload[1]);
  ch->transmit(c.payload.data() + data_at, c.payload.size() - data_at);
  return ack(c);
}

}  // namespace

void UartChannel::receive(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (rx.size() >= kUartRxCapacity) {
      overruns += n - i;
      return;
    }
    rx.push_back(p[i]);
  }
}

void UartChannel::transmit(const uint8_t* p, size_t n) {
  tx.insert(tx.end(), p, p + n);
  if (loopback) receive(p, n);
  if (peer.empty()) return;
  for (size_t i = 0; i < n; ++i) {
    if (p[i] != '\n') {
      partial.push_back(char(p[i]));
      continue;
    }
    if (!partial.empty() && partial.back() == '\r') partial.pop_back();
    auto it = peer.find(partial);
    partial.clear();
    if (it != peer.end())
      receive(reinterpret_cast<const uint8_t*>(it->second.data()), it->second.size());
  }
}

UartSim& uart_sim(Model& m) { return m.state<UartSim>(); }

void install_uart(Model& m) {
  m.on(0xA00, [](Model& m, const Command& c) -> std::optional<Reply> {
    UartChannel* ch = channel(m, c, 9);
    if (!ch || c.payload.size() != 9) return std::nullopt;
    ch->configured = true;
    ch->config.assign(c.payload.begin() + 1, c.payload.end());
    return ack(c);
  });
  m.on(0xA01, [](Model& m, const Command& c) { return write_from(m, c, 1); });
  m.on(0xA02, [](Model& m, const Command& c) { return write_from(m, c, 1); });
  m.on(0xA05, [](Model& m, const Command& c) { return write_from(m, c, 2); });
  m.on(0xA03, [](Model& m, const Command& c) -> std::optional<Reply> {
    UartChannel* ch = channel(m, c);
    if (!ch) return std::nullopt;
    const size_t n = std::min(ch->rx.size(), kUartReadChunk);
    Reply r{c.code, std::vector<uint8_t>(ch->rx.begin(), ch->rx.begin() + long(n))};
    ch->rx.erase(ch->rx.begin(), ch->rx.begin() + long(n));
    return r;
  });
  m.on(0xA04, [](Model& m, const Command& c) -> std::optional<Reply> {
    UartChannel* ch = channel(m, c);
    if (!ch) return std::nullopt;
    ch->rx.clear();
    return ack(c);
  });
}

}  // namespace veltrix::sim
