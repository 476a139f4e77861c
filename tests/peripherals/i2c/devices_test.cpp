// The EEPROM through the library: page writes, the address pointer, the write cycle.
#include <numeric>

#include "tests/peripherals/i2c/i2c_fixture.hpp"

namespace veltrix::test {
namespace {

class I2cEeprom : public I2cTest {
 protected:
  int write_at(uint16_t at, const Bytes& data) {
    Bytes req{uint8_t(at >> 8), uint8_t(at)};
    req.insert(req.end(), data.begin(), data.end());
    int r = IIC_WriteBytes(kI2cDev, 0, sim::kEepromAddr, req.data(), int(req.size()), 100);
    wait_eeprom_ready();
    return r;
  }
  int read_at(uint16_t at, Bytes& out) {
    unsigned char a[2] = {uint8_t(at >> 8), uint8_t(at)};
    return IIC_WriteReadBytes(kI2cDev, 0, sim::kEepromAddr, a, 2, out.data(), int(out.size()), 100);
  }
};

TEST_F(I2cEeprom, PageWritesSplitAtTheBoundaryReadBackWhole) {
  Bytes data(40);
  std::iota(data.begin(), data.end(), uint8_t(0x30));
  // 0x03F0..0x0417 spans the page boundary at 0x0400: a careful host writes two pages.
  ASSERT_EQ(write_at(0x03F0, Bytes(data.begin(), data.begin() + 16)), 0);
  ASSERT_EQ(write_at(0x0400, Bytes(data.begin() + 16, data.end())), 0);
  Bytes back(40);
  ASSERT_EQ(read_at(0x03F0, back), 0);
  EXPECT_EQ(back, data);
  // Sequential reads continue from where the pointer stopped.
  Bytes next(2);
  ASSERT_EQ(IIC_ReadBytes(kI2cDev, 0, sim::kEepromAddr, next.data(), 2, 100), 0);
  EXPECT_EQ(next, (Bytes{0xFF, 0xFF}));
  with_channel(0, [](sim::I2cChannel& c) { EXPECT_EQ(c.eeprom().write_cycles, 2u); });
}

TEST_F(I2cEeprom, AWriteAcrossThePageBoundaryWrapsToThePageStart) {
  Bytes data{1, 2, 3, 4, 5, 6};
  ASSERT_EQ(write_at(0x007D, data), 0);
  Bytes tail(3), head(3);
  ASSERT_EQ(read_at(0x007D, tail), 0);
  ASSERT_EQ(read_at(0x0040, head), 0);
  EXPECT_EQ(tail, (Bytes{1, 2, 3}));
  EXPECT_EQ(head, (Bytes{4, 5, 6}));
  Bytes after(1);
  ASSERT_EQ(read_at(0x0080, after), 0);
  EXPECT_EQ(after[0], 0xFF);
}

TEST_F(I2cEeprom, IgnoresItsAddressDuringTheWriteCycle) {
  // A cycle no test outlasts; the hook ends it.
  with_channel(0, [](sim::I2cChannel& c) { c.eeprom().write_cycle = std::chrono::hours(1); });
  unsigned char req[3] = {0x00, 0x00, 0x42};
  ASSERT_EQ(IIC_WriteBytes(kI2cDev, 0, sim::kEepromAddr, req, 3, 100), 0);
  unsigned char b[1] = {0};
  EXPECT_EQ(IIC_ReadBytes(kI2cDev, 0, sim::kEepromAddr, b, 1, 100), IIC_STATUS_ADDR_NACK);
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 0, sim::kEepromAddr, nullptr, 0, 100), IIC_STATUS_ADDR_NACK);
  with_channel(0, [](sim::I2cChannel& c) { c.eeprom().finish(); });
  EXPECT_EQ(IIC_WriteReadBytes(kI2cDev, 0, sim::kEepromAddr, req, 2, b, 1, 100), 0);
  EXPECT_EQ(b[0], 0x42);
}

TEST_F(I2cEeprom, BlockReadsFollowThePointer) {
  Bytes data(8);
  std::iota(data.begin(), data.end(), uint8_t(0xA0));
  ASSERT_EQ(write_at(0x0100, data), 0);
  Bytes first(1);
  ASSERT_EQ(read_at(0x0100, first), 0);
  Bytes rest(6);
  ASSERT_EQ(IIC_BlockReadBytes(kI2cDev, 0, sim::kEepromAddr, rest.data(), 3, 2, 0), 0);
  EXPECT_EQ(rest, (Bytes{0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6}));
}

}  // namespace
}  // namespace veltrix::test
