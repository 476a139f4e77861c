// Shared set-up of the I2C suites: an open adapter whose channels carry the virtual
// EEPROM (0x50) and SMBus sensor (0x48), and helpers for faults and recorded payloads.
#pragma once

#include <gtest/gtest.h>

#include <mutex>

#include "device/wire.hpp"
#include "sim/i2c_bus.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/i2c.h"

namespace veltrix::test {

inline constexpr int kI2cDev = 0x49000042;

class I2cTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    m_ = plug_and_open(kI2cDev);
  }
  template <typename F>
  auto with_channel(int ch, F f) {
    std::scoped_lock g(sim::sim_mutex());
    return f(sim::i2c_bus(*m_).ch[size_t(ch)]);
  }
  std::vector<Bytes> sent(uint32_t code) { return payloads(*m_, code); }
  void raw_reply(uint32_t code, const Bytes& payload) {
    sim::Fault f;
    f.kind = sim::FaultKind::RawReply;
    f.match_code = code;
    wire::PayloadBuilder b;
    b.be32(code).be32(uint32_t(payload.size())).bytes(payload);
    f.raw = b.vec();
    std::scoped_lock g(sim::sim_mutex());
    m_->inject(f);
  }
  void fault(sim::FaultKind kind, uint32_t code, uint32_t arg = 0) {
    sim::Fault f;
    f.kind = kind;
    f.match_code = code;
    f.arg = arg;
    std::scoped_lock g(sim::sim_mutex());
    m_->inject(f);
  }
  // The EEPROM acknowledges nothing while it programs: poll it as a host would.
  void wait_eeprom_ready(uint8_t ch = 0) {
    for (int i = 0; i < 2000; ++i)
      if (IIC_WriteBytes(kI2cDev, ch, sim::kEepromAddr, nullptr, 0, 10) == 0) return;
    FAIL() << "EEPROM never finished its write cycle";
  }

  std::shared_ptr<sim::Model> m_;
};

}  // namespace veltrix::test
