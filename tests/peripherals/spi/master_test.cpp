// Channel set-up, plain, block, bit-string and event-started master transfers.
#include <cstdlib>
#include <random>
#include <string>

#include "tests/peripherals/spi/spi_fixture.hpp"

namespace veltrix::test {
namespace {

class SpiMaster : public SpiTest {};

TEST_F(SpiMaster, InitSendsTheSixModeBytesAndTheClock) {
  SPI_CONFIG c{0, 1, 1, 0, 1, 0, {9, 9}, 1000000};
  ASSERT_EQ(SPI_Init(kSpiDev, 1, &c), 0);
  EXPECT_EQ(sent(0x200).at(0), (Bytes{1, 0, 1, 1, 0, 1, 0, 0x00, 0x0F, 0x42, 0x40}));
  raw_reply(0x200, {0});
  EXPECT_EQ(SPI_Init(kSpiDev, 1, &c), SPI_ERR_REPLY);
}

struct BitsCase {
  std::string bits;
  int result;
  Bytes payload;  // empty: nothing may be sent
};

TEST_F(SpiMaster, WriteBitsPacksMostSignificantBitFirst) {
  const BitsCase cases[] = {
      {"10a1", SPI_ERR_PARAMETER, {}},
      {"101100001111", 0, {0, 0, 0, 0, 12, 0xB0, 0xF0}},
      {"1", 0, {0, 0, 0, 0, 1, 0x80}},
      {"", 0, {0, 0, 0, 0, 0}},
      {"00000000"
       "11111111"
       "0",
       0,
       {0, 0, 0, 0, 17, 0x00, 0xFF, 0x00}},
      {"2", SPI_ERR_PARAMETER, {}},
  };
  for (const BitsCase& c : cases) {
    m_->clear_record();
    std::string s = c.bits;
    EXPECT_EQ(SPI_WriteBits(kSpiDev, 0, s.data()), c.result) << c.bits;
    auto p = sent(0x210);
    if (c.payload.empty()) {
      EXPECT_TRUE(p.empty()) << c.bits;
    } else {
      ASSERT_EQ(p.size(), 1u) << c.bits;
      EXPECT_EQ(p[0], c.payload) << c.bits;
    }
  }
}

// An adapter that never takes the command: the bit string is given up on after 100 ms
// and tried again within the one-second send retry, where a send waiting as long as the
// reply (10 s) would be tried once. Nothing reaches the adapter and the result is -2.
TEST_F(SpiMaster, WriteBitsSendGivesUpAfterItsOwnShortTimeOut) {
  inject(test::fault(sim::FaultKind::HoldOut, 0, 0, 1000));
  m_->clear_record();
  std::string bits = "1011";
  EXPECT_EQ(SPI_WriteBits(kSpiDev, 0, bits.data()), SPI_ERR_SEND);
  EXPECT_GE(m_->out_transfers().size(), 2u);
  EXPECT_TRUE(sent(0x210).empty());
}

TEST_F(SpiMaster, WriteBitsCutsALongStringAt163840Bits) {
  std::string s(SPI_MAX_BITS + 9, '1');
  s[SPI_MAX_BITS] = 'x';  // beyond the cut: never looked at
  ASSERT_EQ(SPI_WriteBits(kSpiDev, 0, s.data()), 0);
  auto p = sent(0x210).at(0);
  ASSERT_EQ(p.size(), 5u + 20480u);
  EXPECT_EQ(Bytes(p.begin(), p.begin() + 5), (Bytes{0, 0x00, 0x02, 0x80, 0x00}));
  EXPECT_EQ(p.back(), 0xFF);
}

TEST_F(SpiMaster, ReadBitsUnpacksAndStopsAtTheCount) {
  with_channel(0, [](sim::SpiChannel& c) { c.miso_script = {0xA5, 0xC0, 0x3C}; });
  char out[16];
  ASSERT_EQ(SPI_ReadBits(kSpiDev, 0, out, 10), 0);
  EXPECT_STREQ(out, "1010010111");
  EXPECT_EQ(sent(0x211).at(0), (Bytes{0, 0, 0, 0, 10}));
  char wbits[] = "1111";
  ASSERT_EQ(SPI_WriteReadBits(kSpiDev, 0, wbits, out, 6), 0);
  EXPECT_STREQ(out, "001111");
  EXPECT_EQ(sent(0x212).at(0), (Bytes{0, 0, 0, 0, 4, 0, 0, 0, 6, 0xF0}));
  raw_reply(0x211, {0xFF});
  EXPECT_EQ(SPI_ReadBits(kSpiDev, 0, out, 9), SPI_ERR_REPLY);
  EXPECT_STREQ(out, "");
  char bad[] = "01z";
  EXPECT_EQ(SPI_WriteReadBits(kSpiDev, 0, bad, out, 6), SPI_ERR_PARAMETER);
  EXPECT_EQ(SPI_ReadBits(kSpiDev, 0, out, SPI_MAX_BITS + 1), SPI_ERR_PARAMETER);
  EXPECT_EQ(sent(0x212).size(), 1u);
}

// Reference packer, written the slow way: shift each bit into an accumulator.
Bytes reference_pack(const std::string& bits) {
  Bytes out;
  unsigned acc = 0;
  int n = 0;
  for (char c : bits) {
    acc = (acc << 1) | unsigned(c == '1');
    if (++n == 8) {
      out.push_back(uint8_t(acc));
      acc = 0;
      n = 0;
    }
  }
  if (n) out.push_back(uint8_t(acc << (8 - n)));
  return out;
}

TEST_F(SpiMaster, RandomBitStringsMatchAReferencePacker) {
  const char* env = std::getenv("VELTRIX_TEST_SEED");
  const unsigned seed = env ? unsigned(std::strtoul(env, nullptr, 10)) : 20261123u;
  std::printf("seed %u (set VELTRIX_TEST_SEED to repeat another)\n", seed);
  std::mt19937 rng(seed);
  for (int round = 0; round < 40; ++round) {
    const size_t len = rng() % 300;
    std::string w(len, '0');
    for (char& c : w) c = (rng() & 1) ? '1' : '0';
    Bytes miso((len + 7) / 8);
    for (uint8_t& b : miso) b = uint8_t(rng());
    with_channel(0, [&](sim::SpiChannel& c) { c.miso_script.assign(miso.begin(), miso.end()); });
    m_->clear_record();
    std::string out(len + 1, 'x');
    ASSERT_EQ(SPI_WriteReadBits(kSpiDev, 0, w.data(), out.data(), int(len)), 0) << round;
    Bytes want{0,
               uint8_t(len >> 24),
               uint8_t(len >> 16),
               uint8_t(len >> 8),
               uint8_t(len),
               uint8_t(len >> 24),
               uint8_t(len >> 16),
               uint8_t(len >> 8),
               uint8_t(len)};
    Bytes packed = reference_pack(w);
    want.insert(want.end(), packed.begin(), packed.end());
    EXPECT_EQ(sent(0x212).at(0), want) << "round " << round;
    // What came back, unpacked bit by bit from the bytes the adapter sent.
    std::string back;
    for (size_t i = 0; i < len; ++i) back += char('0' + ((miso[i / 8] >> (7 - i % 8)) & 1));
    EXPECT_EQ(std::string(out.c_str()), back) << "round " << round;
  }
}

TEST_F(SpiMaster, PlainTransferLayoutsAndExactReplyLength) {
  unsigned char w[3] = {0x9F, 0x00, 0x00};
  unsigned char r[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  ASSERT_EQ(SPI_WriteBytes(kSpiDev, 0, w, 1), 0);
  ASSERT_EQ(SPI_WriteBytesAsync(kSpiDev, 1, w, 2), 0);
  ASSERT_EQ(SPI_WriteReadBytes(kSpiDev, 0, w, 1, r, 3, 0x1234), 0);
  EXPECT_EQ(Bytes(r, r + 3), (Bytes{0xA5, 0x40, 0x14}));
  ASSERT_EQ(SPI_ReadBytes(kSpiDev, 0, r, 4), 0);
  EXPECT_EQ(Bytes(r, r + 4), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(sent(0x201).at(0), (Bytes{0, 0x9F}));
  EXPECT_EQ(sent(0x202).at(0), (Bytes{1, 0x9F, 0x00}));
  EXPECT_EQ(sent(0x204).at(0), (Bytes{0, 0, 0, 0, 3, 0, 0, 0x12, 0x34, 0x9F}));
  EXPECT_EQ(sent(0x203).at(0), (Bytes{0, 0, 0, 0, 4}));

  r[0] = 0x11;
  raw_reply(0x203, {1, 2, 3});
  EXPECT_EQ(SPI_ReadBytes(kSpiDev, 0, r, 4), SPI_ERR_REPLY);
  raw_reply(0x203, {1, 2, 3, 4, 5});
  EXPECT_EQ(SPI_ReadBytes(kSpiDev, 0, r, 4), SPI_ERR_REPLY);
  EXPECT_EQ(r[0], 0x11);
  raw_reply(0x201, {0});
  EXPECT_EQ(SPI_WriteBytes(kSpiDev, 0, w, 1), SPI_ERR_REPLY);
}

TEST_F(SpiMaster, BlockLayouts) {
  unsigned char w[6] = {0x05, 0x00, 0x05, 0x00, 0x05, 0x00};
  unsigned char r[6];
  ASSERT_EQ(SPI_BlockWriteBytes(kSpiDev, 0, w, 2, 3, 100), 0);
  ASSERT_EQ(SPI_BlockReadBytes(kSpiDev, 0, r, 3, 2, 200), 0);
  unsigned char ops[3] = {0x05, 0x00, 0x05};
  ASSERT_EQ(SPI_BlockWriteReadBytes(kSpiDev, 0, ops, 1, r, 2, 3, 50), 0);
  // Each block is its own frame: a status read, an unknown command, a status read.
  EXPECT_EQ(Bytes(r, r + 6), (Bytes{0, 0, 0xFF, 0xFF, 0, 0}));
  EXPECT_EQ(sent(0x20D).at(0), (Bytes{0, 0, 2, 0, 3, 0, 0, 0, 100, 5, 0, 5, 0, 5, 0}));
  EXPECT_EQ(sent(0x20E).at(0), (Bytes{0, 0, 3, 0, 2, 0, 0, 0, 200}));
  EXPECT_EQ(sent(0x20F).at(0), (Bytes{0, 0, 1, 0, 2, 0, 3, 0, 0, 0, 50, 5, 0, 5}));
}

TEST_F(SpiMaster, EventTransfersMapTheAdapterStatus) {
  unsigned char w[2] = {0x9F, 0x00};
  unsigned char r[4] = {};
  ASSERT_EQ(SPI_WriteBytesOfEvent(kSpiDev, 0, w, 2, 0x0102, 3, 500), 0);
  ASSERT_EQ(SPI_ReadBytesOfEvent(kSpiDev, 0, r, 2, 7, 1, 0x01020304), 0);
  ASSERT_EQ(SPI_WriteReadBytesOfEvent(kSpiDev, 0, w, 1, r, 3, 9, 7, 2, 10), 0);
  EXPECT_EQ(Bytes(r, r + 3), (Bytes{0xA5, 0x40, 0x14}));
  ASSERT_EQ(SPI_BlockWriteBytesOfEvent(kSpiDev, 0, w, 1, 2, 7, 2, 10), 0);
  ASSERT_EQ(SPI_BlockReadBytesOfEvent(kSpiDev, 0, r, 2, 2, 7, 2, 10), 0);
  ASSERT_EQ(SPI_BlockWriteReadBytesOfEvent(kSpiDev, 0, w, 1, r, 1, 2, 7, 2, 10), 0);
  EXPECT_EQ(sent(0x213).at(0), (Bytes{0, 0, 0, 1, 2, 3, 0, 0, 0x01, 0xF4, 0x9F, 0x00}));
  EXPECT_EQ(sent(0x214).at(0), (Bytes{0, 0, 0, 0, 2, 0, 0, 0, 7, 1, 1, 2, 3, 4}));
  EXPECT_EQ(sent(0x215).at(0),
            (Bytes{0, 0, 0, 0, 3, 0, 0, 0, 9, 0, 0, 0, 7, 2, 0, 0, 0, 10, 0x9F}));
  EXPECT_EQ(sent(0x216).at(0), (Bytes{0, 0, 1, 0, 2, 0, 0, 0, 7, 2, 0, 0, 0, 10, 0x9F, 0x00}));
  EXPECT_EQ(sent(0x217).at(0), (Bytes{0, 0, 2, 0, 2, 0, 0, 0, 7, 2, 0, 0, 0, 10}));
  EXPECT_EQ(sent(0x218).at(0),
            (Bytes{0, 0, 1, 0, 1, 0, 2, 0, 0, 0, 7, 2, 0, 0, 0, 10, 0x9F, 0x00}));

  with_channel(0, [](sim::SpiChannel& c) { c.event_never = true; });
  EXPECT_EQ(SPI_WriteBytesOfEvent(kSpiDev, 0, w, 2, 1, 1, 5), SPI_ERR_STATUS);
  EXPECT_EQ(SPI_ReadBytesOfEvent(kSpiDev, 0, r, 2, 1, 1, 5), SPI_ERR_STATUS);
  EXPECT_EQ(SPI_BlockWriteBytesOfEvent(kSpiDev, 0, w, 1, 2, 1, 1, 5), SPI_ERR_STATUS);
  EXPECT_EQ(SPI_BlockReadBytesOfEvent(kSpiDev, 0, r, 1, 2, 1, 1, 5), SPI_ERR_STATUS);
}

struct EventReply {
  uint32_t code;
  Bytes payload;
  int result;
};

TEST_F(SpiMaster, EventRepliesOfTheWrongShape) {
  unsigned char w[2] = {1, 2};
  unsigned char r[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  const EventReply cases[] = {
      {0x213, {}, SPI_ERR_REPLY},
      {0x213, {0, 0}, SPI_ERR_REPLY},
      {0x214, {0, 1}, SPI_ERR_REPLY},      // short
      {0x214, {3, 1, 2}, SPI_ERR_STATUS},  // complete, but refused
      {0x216, {}, 0},                      // an empty acknowledgement is fine
      {0x216, {9}, SPI_ERR_STATUS},
      {0x217, {0, 1, 2, 3}, SPI_ERR_REPLY},  // one byte short
      {0x217, {0}, SPI_ERR_REPLY},           // status alone is not the block reply
  };
  for (const EventReply& c : cases) {
    raw_reply(c.code, c.payload);
    int got = 0;
    switch (c.code) {
      case 0x213:
        got = SPI_WriteBytesOfEvent(kSpiDev, 0, w, 2, 1, 1, 5);
        break;
      case 0x214:
        got = SPI_ReadBytesOfEvent(kSpiDev, 0, r, 2, 1, 1, 5);
        break;
      case 0x216:
        got = SPI_BlockWriteBytesOfEvent(kSpiDev, 0, w, 1, 2, 1, 1, 5);
        break;
      case 0x217:
        got = SPI_BlockReadBytesOfEvent(kSpiDev, 0, r, 2, 2, 1, 1, 5);
        break;
    }
    EXPECT_EQ(got, c.result) << std::hex << c.code << " " << c.payload.size();
  }
  EXPECT_EQ(r[0], 0xEE);
}

unsigned char g_buf[8];

struct BadCall {
  const char* name;
  int (*call)();
  int code;
};

TEST_F(SpiMaster, RefusesBadArgumentsBeforeSendingAnything) {
  const BadCall cases[] = {
      {"null config", [] { return SPI_Init(kSpiDev, 0, nullptr); }, -5},
      {"null data", [] { return SPI_WriteBytes(kSpiDev, 0, nullptr, 2); }, -5},
      {"negative read", [] { return SPI_ReadBytes(kSpiDev, 0, g_buf, -1); }, -5},
      {"block size 65536", [] { return SPI_BlockReadBytes(kSpiDev, 0, g_buf, 65536, 1, 0); }, -5},
      {"block product", [] { return SPI_BlockWriteBytes(kSpiDev, 0, g_buf, 65535, 65535, 0); }, -5},
      {"null bits", [] { return SPI_WriteBits(kSpiDev, 0, nullptr); }, -5},
      {"null read bits", [] { return SPI_ReadBits(kSpiDev, 0, nullptr, 3); }, -5},
      {"null flash config", [] { return SPI_FlashInit(kSpiDev, 0, 1000, nullptr); }, -5},
      {"null id", [] { return SPI_FlashReadID(kSpiDev, 0, nullptr); }, -5},
      {"slave write too long",
       [] {
         static unsigned char big[SPI_SLAVE_WRITE_MAX + 1];
         return SPI_SlaveWriteReadBytes(kSpiDev, 0, big, SPI_SLAVE_WRITE_MAX + 1, g_buf, 1, 1);
       },
       -5},
      {"null fifo buffer", [] { return SPI_SlaveGetBytes(kSpiDev, 0, nullptr, 1); }, -5},
      {"unknown adapter", [] { return SPI_WriteBytes(0x12345678, 0, g_buf, 1); }, -2},
      {"unknown adapter erase", [] { return SPI_FlashEraseChip(0x12345678, 0, 10); }, -2},
  };
  for (const BadCall& c : cases) EXPECT_EQ(c.call(), c.code) << c.name;
  EXPECT_TRUE(m_->commands().empty());
}

}  // namespace
}  // namespace veltrix::test
