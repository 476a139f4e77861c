// The flash helpers against the virtual NOR flash: set-up and ID, program and read back,
// the erase helpers with their status polling, and the chip's own page wrap.
#include <numeric>

#include "tests/peripherals/spi/spi_fixture.hpp"

namespace veltrix::test {
namespace {

class SpiFlash : public SpiTest {
 protected:
  void init_flash(uint8_t ch = 0, uint8_t id_length = 3) {
    SPI_FLASH_CONFIG c = flash_table(id_length);
    ASSERT_EQ(SPI_FlashInit(kSpiDev, ch, 20000000, &c), 0);
    m_->clear_record();
  }
  Bytes read_back(uint32_t at, size_t n) {
    Bytes b(n);
    EXPECT_EQ(SPI_FlashRead(kSpiDev, 0, at, b.data(), int(n)), 0);
    return b;
  }
};

TEST_F(SpiFlash, InitSendsTheWholeRecordAndIdFollowsTheStoredLength) {
  SPI_FLASH_CONFIG c = flash_table(3);
  for (int i = 0; i < 8; ++i) c.Param64[i] = uint8_t(0x10 + i);
  for (int i = 0; i < 4; ++i) c.Param32[i] = uint8_t(0x20 + i);
  ASSERT_EQ(SPI_FlashInit(kSpiDev, 0, 0x01312D00, &c), 0);
  Bytes want{0, 0x01, 0x31, 0x2D, 0x00};
  for (int i = 0; i < 31; ++i) want.push_back(c.Cmd[i]);
  want.push_back(3);
  for (int i = 0; i < 8; ++i) want.push_back(uint8_t(0x10 + i));
  for (int i = 0; i < 4; ++i) want.push_back(uint8_t(0x20 + i));
  EXPECT_EQ(sent(0x207).at(0), want);

  unsigned char id[4] = {0, 0, 0, 0xEE};
  ASSERT_EQ(SPI_FlashReadID(kSpiDev, 0, id), 0);
  EXPECT_EQ(Bytes(id, id + 4), (Bytes{0xA5, 0x40, 0x14, 0xEE}));
  EXPECT_EQ(sent(0x208).at(0), (Bytes{0}));
  raw_reply(0x208, {0xA5, 0x40});
  EXPECT_EQ(SPI_FlashReadID(kSpiDev, 0, id), SPI_ERR_REPLY);
}

TEST_F(SpiFlash, IdLengthZeroCountsAsOneAndFailedInitKeepsTheOldRecord) {
  init_flash(1, 0);
  unsigned char id[4] = {0, 0xEE, 0xEE, 0xEE};
  ASSERT_EQ(SPI_FlashReadID(kSpiDev, 1, id), 0);
  EXPECT_EQ(Bytes(id, id + 2), (Bytes{0xA5, 0xEE}));
  SPI_FLASH_CONFIG c = flash_table(3);
  raw_reply(0x207, {0});
  EXPECT_EQ(SPI_FlashInit(kSpiDev, 1, 1000, &c), SPI_ERR_REPLY);
  raw_reply(0x208, {0x42});  // the library still expects one byte
  ASSERT_EQ(SPI_FlashReadID(kSpiDev, 1, id), 0);
  EXPECT_EQ(Bytes(id, id + 2), (Bytes{0x42, 0xEE}));
}

TEST_F(SpiFlash, EraseProgramVerifyASector) {
  init_flash();
  Bytes data(4096);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7 + 3);
  ASSERT_EQ(SPI_FlashWrite(kSpiDev, 0, 0x2000, data.data(), int(data.size())), 0);
  ASSERT_EQ(SPI_FlashErase(kSpiDev, 0, 0x2000, 3, 0x20, 1000), 0);
  EXPECT_EQ(read_back(0x2000, 4096), Bytes(4096, 0xFF));
  ASSERT_EQ(SPI_FlashWrite(kSpiDev, 0, 0x2000, data.data(), int(data.size())), 0);
  EXPECT_EQ(read_back(0x2000, 4096), data);
  Bytes fast(4096);
  ASSERT_EQ(SPI_FlashReadFast(kSpiDev, 0, 0x2000, fast.data(), 4096), 0);
  EXPECT_EQ(fast, data);
  with_channel(0, [](sim::SpiChannel& c) {
    EXPECT_EQ(c.flash.sector_erases, 1u);
    EXPECT_EQ(c.flash.page_programs, 32u);  // two writes of 16 pages
  });
  // The erase on the wire: write enable, the command with three address bytes.
  auto w = sent(0x201);
  ASSERT_GE(w.size(), 2u);
  EXPECT_EQ(w[0], (Bytes{0, 0x06}));
  EXPECT_EQ(w[1], (Bytes{0, 0x20, 0x00, 0x20, 0x00}));
  // Every status poll is a one-byte write-read of the stored read-status command.
  for (const Bytes& p : sent(0x204)) EXPECT_EQ(p, (Bytes{0, 0, 0, 0, 1, 0, 0, 0, 0, 0x05}));
  EXPECT_GE(sent(0x204).size(), 3u);  // ready, latch set, busy..., ready
  const Bytes program = sent(0x209).at(0);
  ASSERT_EQ(program.size(), 5u + 4096u);
  EXPECT_EQ(Bytes(program.begin(), program.begin() + 5), (Bytes{0, 0, 0, 0x20, 0}));
  EXPECT_EQ(sent(0x20A).at(0), (Bytes{0, 0, 0, 0x20, 0, 0, 0, 0x10, 0}));
}

struct AddrCase {
  uint8_t addr_bytes;
  Bytes frame;
};

TEST_F(SpiFlash, EraseSendsAtMostFourAddressBytes) {
  init_flash();
  const AddrCase cases[] = {
      {0, {0, 0xD8}},
      {2, {0, 0xD8, 0x56, 0x78}},
      {4, {0, 0xD8, 0x12, 0x34, 0x56, 0x78}},
      {9, {0, 0xD8, 0x12, 0x34, 0x56, 0x78}},
  };
  for (const AddrCase& c : cases) {
    m_->clear_record();
    with_channel(0, [](sim::SpiChannel& ch) { ch.flash.finish(); });
    ASSERT_EQ(SPI_FlashErase(kSpiDev, 0, 0x12345678, c.addr_bytes, 0xD8, 2000), 0);
    EXPECT_EQ(sent(0x201).back(), c.frame) << int(c.addr_bytes);
  }
}

TEST_F(SpiFlash, EraseChipWaitsOutTheBusyTime) {
  init_flash();
  unsigned char d[4] = {1, 2, 3, 4};
  ASSERT_EQ(SPI_FlashWrite(kSpiDev, 0, 0x80000, d, 4), 0);
  ASSERT_EQ(SPI_FlashEraseChip(kSpiDev, 0, 5000), 0);
  EXPECT_EQ(read_back(0x80000, 4), Bytes(4, 0xFF));
  auto w = sent(0x201);
  ASSERT_EQ(w.size(), 2u);
  EXPECT_EQ(w[0], (Bytes{0, 0x06}));
  EXPECT_EQ(w[1], (Bytes{0, 0xC7}));
  with_channel(0, [](sim::SpiChannel& c) { EXPECT_EQ(c.flash.chip_erases, 1u); });
}

TEST_F(SpiFlash, BusyPastTheTimeOutIsReported) {
  init_flash();
  with_channel(0, [](sim::SpiChannel& c) { c.flash.chip_erase_time = std::chrono::hours(1); });
  EXPECT_EQ(SPI_FlashEraseChip(kSpiDev, 0, 50), SPI_ERR_STATUS);
  EXPECT_EQ(SPI_FlashErase(kSpiDev, 0, 0, 3, 0x20, 30), SPI_ERR_STATUS);
  // The second call never got past its first wait: no further write enable went out.
  EXPECT_EQ(sent(0x201).size(), 2u);
}

TEST_F(SpiFlash, EraseSectorAskesTheAdapterAndWaitsForItsAnswer) {
  init_flash();
  Bytes data(8192, 0x00);
  ASSERT_EQ(SPI_FlashWrite(kSpiDev, 0, 0x10000, data.data(), 8192), 0);
  ASSERT_EQ(SPI_FlashEraseSector(kSpiDev, 0, 0x10000, 1, 100), 0);
  EXPECT_EQ(read_back(0x10000, 4096), Bytes(4096, 0xFF));
  EXPECT_EQ(read_back(0x11000, 4096), Bytes(4096, 0x00));
  EXPECT_EQ(sent(0x20B).at(0), (Bytes{0, 0, 1, 0, 0, 0, 0, 0, 1}));
  raw_reply(0x20B, {1});
  EXPECT_EQ(SPI_FlashEraseSector(kSpiDev, 0, 0x10000, 1, 100), SPI_ERR_REPLY);
}

TEST_F(SpiFlash, APageProgramPastThePageEndWrapsToItsStart) {
  init_flash();
  unsigned char wren[1] = {0x06};
  unsigned char pp[12] = {0x02, 0x00, 0x01, 0xFC, 1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_EQ(SPI_WriteBytes(kSpiDev, 0, wren, 1), 0);
  ASSERT_EQ(SPI_WriteBytes(kSpiDev, 0, pp, 12), 0);
  EXPECT_EQ(read_back(0x1FC, 4), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(read_back(0x100, 4), (Bytes{5, 6, 7, 8}));
  EXPECT_EQ(read_back(0x200, 1), (Bytes{0xFF}));
  // Without write enable the chip ignores a program.
  unsigned char pp2[5] = {0x02, 0x00, 0x03, 0x00, 0x00};
  ASSERT_EQ(SPI_WriteBytes(kSpiDev, 0, pp2, 5), 0);
  EXPECT_EQ(read_back(0x300, 1), (Bytes{0xFF}));
}

}  // namespace
}  // namespace veltrix::test
