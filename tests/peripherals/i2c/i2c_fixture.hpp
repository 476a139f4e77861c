// Shared set-up of the I2C suites: an open adapter whose channels carry the virtual
// EEPROM (0x50) and SMBus sensor (0x48), and helpers for faults and recorded payloads.
#pragma once

#include <gtest/gtest.h>

#include <mutex>

#include "device/wire.hpp"
#include "sim/i2c_bus.hpp"
#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/i2c.h"

namespace veltrix::test {

inline constexpr int kI2cDev = 0x49000042;

class I2cTest : public PeriphTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    open(kI2cDev);
  }
  template <typename F>
  auto with_channel(int ch, F f) {
    std::scoped_lock g(sim::sim_mutex());
    return f(sim::i2c_bus(*m_).ch[size_t(ch)]);
  }
  // The EEPROM acknowledges nothing while it programs: poll it as a host would.
  void wait_eeprom_ready(uint8_t ch = 0) {
    for (int i = 0; i < 2000; ++i)
      if (IIC_WriteBytes(kI2cDev, ch, sim::kEepromAddr, nullptr, 0, 10) == 0) return;
    FAIL() << "EEPROM never finished its write cycle";
  }

};

}  // namespace veltrix::test
