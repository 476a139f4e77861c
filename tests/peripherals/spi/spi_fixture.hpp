// Shared set-up of the SPI suites: an open adapter with a NOR flash on each channel,
// a flash command table, and helpers for faults and recorded payloads.
#pragma once

#include <gtest/gtest.h>

#include <mutex>

#include "device/wire.hpp"
#include "sim/spi_bus.hpp"
#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/spi.h"

namespace veltrix::test {

inline constexpr int kSpiDev = 0x4A000077;

inline SPI_FLASH_CONFIG flash_table(uint8_t id_length = 3) {
  SPI_FLASH_CONFIG c{};
  c.Cmd[SPI_FLASH_CMD_WRITE_ENABLE] = 0x06;
  c.Cmd[SPI_FLASH_CMD_WRITE_DISABLE] = 0x04;
  c.Cmd[SPI_FLASH_CMD_READ_DATA] = 0x03;
  c.Cmd[SPI_FLASH_CMD_FAST_READ] = 0x0B;
  c.Cmd[SPI_FLASH_CMD_PAGE_PROGRAM] = 0x02;
  c.Cmd[SPI_FLASH_CMD_SECTOR_ERASE] = 0x20;
  c.Cmd[SPI_FLASH_CMD_BLOCK_ERASE] = 0xD8;
  c.Cmd[SPI_FLASH_CMD_CHIP_ERASE] = 0xC7;
  c.Cmd[SPI_FLASH_CMD_READ_ID] = 0x9F;
  c.Cmd[SPI_FLASH_CMD_READ_STATUS] = 0x05;
  c.Cmd[SPI_FLASH_CMD_WRITE_STATUS] = 0x01;
  c.IDLength = id_length;
  return c;
}

class SpiTest : public PeriphTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    open(kSpiDev);
  }
  template <typename F>
  auto with_channel(int ch, F f) {
    std::scoped_lock g(sim::sim_mutex());
    return f(sim::spi_bus(*m_).ch[size_t(ch)]);
  }

};

}  // namespace veltrix::test
