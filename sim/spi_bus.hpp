// The virtual adapter's SPI channels: a bus per channel with a NOR flash on it, the
// adapter's flash commands driven by the command table the host configured, event-started
// transfers, and slave mode, where a test plays the remote master that clocks a stream of
// bytes in at a set rate.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <vector>

#include "sim/model.hpp"
#include "sim/spi_flash.hpp"

namespace veltrix::sim {

inline constexpr int kSpiChannels = 2;
inline constexpr size_t kSpiSlaveChunk = 61440;  // most one fetch (0x223) hands over

struct SpiChannel {
  std::vector<uint8_t> config;       // the last 0x200 payload
  std::vector<uint8_t> flash_table;  // the 31 command bytes of the last 0x207
  uint8_t id_length = 1;
  NorFlash flash;
  std::deque<uint8_t> miso_script;  // test hook: bytes read back come from here first
  bool event_never = false;         // test hook: event-started transfers fail, status 1

  // Slave mode.
  std::vector<uint8_t> slave_tx;  // offered to the remote master
  size_t master_read_budget = SIZE_MAX;
  bool continuous = false;  // between 0x225 and 0x226

  // The remote master's stream: `stream` clocked in at `rate` bytes per second from
  // `stream_start` (rate 0: all at once). Nothing is lost on the adapter side.
  void master_stream(std::vector<uint8_t> bytes, double rate);
  size_t clocked() const;
  std::vector<uint8_t> take_stream(size_t max);
  std::vector<uint8_t> stream;
  size_t stream_served = 0;
  double stream_rate = 0;
  std::chrono::steady_clock::time_point stream_start{};
  uint64_t fetches = 0;  // 0x223 requests served
};

struct SpiBus {
  std::array<SpiChannel, kSpiChannels> ch;
};

SpiBus& spi_bus(Model& m);
void install_spi(Model& m);

}  // namespace veltrix::sim
