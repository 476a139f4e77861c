// The virtual adapter's UART channels. Each has a receive FIFO the host polls, an optional
// loopback wire (what it sends, it receives), and a scripted peer on the far end of the
// line that answers whole lines ("\n"-terminated; a trailing "\r" is ignored).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr int kUartChannels = 4;
inline constexpr size_t kUartRxCapacity = 65536;  // bytes beyond it are lost (overrun)
inline constexpr size_t kUartReadChunk = 4096;    // most bytes one read returns

struct UartChannel {
  bool configured = false;
  std::vector<uint8_t> config;  // the 8 bytes of the last set-up
  bool loopback = false;
  std::map<std::string, std::string> peer;  // line -> answer the peer sends back
  std::deque<uint8_t> rx;
  size_t overruns = 0;
  std::vector<uint8_t> tx;         // everything put on the line
  std::string partial;             // the peer's unfinished line
  std::vector<uint8_t> intervals;  // the gap of each paced write

  void receive(const uint8_t* p, size_t n);
  void transmit(const uint8_t* p, size_t n);
};

struct UartSim {
  std::array<UartChannel, kUartChannels> ch;
};

UartSim& uart_sim(Model& m);  // caller holds sim_mutex()
void install_uart(Model& m);

}  // namespace veltrix::sim
