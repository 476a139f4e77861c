// A 1 MiB SPI NOR flash on a virtual SPI bus, driven one chip-select frame at a time:
// JEDEC ID, status register (busy, write-enable latch), write enable/disable, 4 KiB
// sector erase and 64 KiB block erase and chip erase with busy times, 256-byte page
// program that wraps within its page, read and fast read.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace veltrix::sim {

class NorFlash {
 public:
  static constexpr size_t kSize = 1u << 20;
  static constexpr size_t kPage = 256;
  static constexpr size_t kSector = 4096;
  static constexpr size_t kBlock = 65536;

  NorFlash();
  // One frame: the bytes the master clocks out; returns what the chip drives back.
  std::vector<uint8_t> transfer(const std::vector<uint8_t>& mosi);
  uint8_t status() const;
  bool busy() const;
  // The adapter's own flash commands wait for the chip; the model lets time pass.
  void finish() { busy_until_ = {}; }

  std::vector<uint8_t> mem;
  std::vector<uint8_t> id{0xA5, 0x40, 0x14};
  bool wel = false;
  std::chrono::milliseconds sector_erase_time{40};
  std::chrono::milliseconds chip_erase_time{120};
  uint32_t page_programs = 0, sector_erases = 0, block_erases = 0, chip_erases = 0;

 private:
  void program(uint32_t addr, const uint8_t* data, size_t n);
  void erase(uint32_t addr, size_t size, std::chrono::milliseconds busy);
  std::chrono::steady_clock::time_point busy_until_{};
};

}  // namespace veltrix::sim
