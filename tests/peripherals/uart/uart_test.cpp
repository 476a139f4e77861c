#include "sim/uart.hpp"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>

#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/uart.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kDev = 0x11000A01;

class Uart : public PeriphTest {
 protected:
  void SetUp() override {
    PeriphTest::SetUp();
    open(kDev);
  }
  sim::UartChannel& channel(int ch) { return sim::uart_sim(*m_).ch[ch]; }
  // Reads until `want` bytes came or a read returns nothing.
  Bytes read_all(uint8_t ch, size_t want) {
    Bytes got;
    std::vector<unsigned char> buf(UART_READ_MAX_BYTES);
    while (got.size() < want) {
      int n = UART_ReadBytes(kDev, ch, buf.data(), 10);
      EXPECT_GE(n, 0);
      if (n <= 0) break;
      got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    return got;
  }
};

TEST_F(Uart, InitSendsChannelAndTheRecordAsItIs) {
  UART_CONFIG c{115200, 8, UART_STOP_BITS_1, UART_PARITY_EVEN, 1};
  ASSERT_EQ(UART_Init(kDev, 2, &c), UART_SUCCESS);
  EXPECT_EQ(sent(0xA00), (std::vector<Bytes>{{2, 0x00, 0xC2, 0x01, 0x00, 8, 0, 2, 1}}));
  EXPECT_EQ(UART_Init(kDev, 2, nullptr), UART_ERR_PARAMETER);
  EXPECT_EQ(UART_Init(0x11FFFFFF, 2, &c), UART_ERR_PARAMETER);
  EXPECT_EQ(sent(0xA00).size(), 1u);  // the refused calls sent nothing
}

struct WriteCase {
  const char* name;
  uint32_t code;
  int (*call)(const unsigned char*, int);
  Bytes payload;
};

void PrintTo(const WriteCase& c, std::ostream* os) { *os << c.name; }

class UartWrite : public Uart, public ::testing::WithParamInterface<WriteCase> {};

const unsigned char kHello[] = {'h', 'i', '\n'};

TEST_P(UartWrite, PutsChannelThenDataOnTheWire) {
  ASSERT_EQ(GetParam().call(kHello, 3), UART_SUCCESS);
  EXPECT_EQ(sent(GetParam().code), (std::vector<Bytes>{GetParam().payload}));
  with_sim([](sim::Model& m) { EXPECT_EQ(sim::uart_sim(m).ch[1].tx, Bytes(kHello, kHello + 3)); });
}

INSTANTIATE_TEST_SUITE_P(
    Writes, UartWrite,
    ::testing::Values(WriteCase{"Waited",
                                0xA01,
                                [](auto d, int n) { return UART_WriteBytes(kDev, 1, d, n); },
                                {1, 'h', 'i', '\n'}},
                      WriteCase{"Queued",
                                0xA02,
                                [](auto d, int n) { return UART_WriteBytesAsync(kDev, 1, d, n); },
                                {1, 'h', 'i', '\n'}},
                      WriteCase{
                          "Paced",
                          0xA05,
                          [](auto d, int n) { return UART_WriteBytesInterval(kDev, 1, d, n, 7); },
                          {1, 7, 'h', 'i', '\n'}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Uart, WriteRefusesBadLengthsWithoutSending) {
  EXPECT_EQ(UART_WriteBytes(kDev, 0, nullptr, 3), UART_ERR_PARAMETER);
  EXPECT_EQ(UART_WriteBytes(kDev, 0, kHello, -1), UART_ERR_PARAMETER);
  EXPECT_EQ(UART_WriteBytes(kDev, 0, kHello, UART_WRITE_MAX_BYTES + 1), UART_ERR_PARAMETER);
  EXPECT_TRUE(sent(0xA01).empty());
  EXPECT_EQ(UART_WriteBytes(kDev, 0, nullptr, 0), UART_SUCCESS);
  EXPECT_EQ(sent(0xA01), (std::vector<Bytes>{{0}}));
}

TEST_F(Uart, ReadWithTimeoutZeroAsksOnceAndReturnsZero) {
  unsigned char buf[UART_READ_MAX_BYTES];
  EXPECT_EQ(UART_ReadBytes(kDev, 0, buf, 0), 0);
  EXPECT_EQ(sent(0xA03), (std::vector<Bytes>{{0}}));
}

TEST_F(Uart, ReadPollsUpToTimeoutTimesUntilDataComes) {
  unsigned char buf[UART_READ_MAX_BYTES];
  EXPECT_EQ(UART_ReadBytes(kDev, 0, buf, 4), 0);
  EXPECT_EQ(sent(0xA03).size(), 4u);
  m_->clear_record();
  with_sim([](sim::Model& m) { sim::uart_sim(m).ch[0].receive(kHello, 3); });
  EXPECT_EQ(UART_ReadBytes(kDev, 0, buf, 50), 3);
  EXPECT_EQ(sent(0xA03).size(), 1u);
  EXPECT_EQ(std::memcmp(buf, kHello, 3), 0);
}

TEST_F(Uart, LoopbackCarries64KiBWithNothingLost) {
  with_sim([](sim::Model& m) { sim::uart_sim(m).ch[3].loopback = true; });
  Bytes data(64 * 1024);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7 + i / 251);
  for (size_t at = 0; at < data.size(); at += 5000) {
    const int n = int(std::min<size_t>(5000, data.size() - at));
    ASSERT_EQ(UART_WriteBytes(kDev, 3, data.data() + at, n), UART_SUCCESS);
  }
  Bytes got = read_all(3, data.size());
  EXPECT_EQ(got, data);
  with_sim([](sim::Model& m) { EXPECT_EQ(sim::uart_sim(m).ch[3].overruns, 0u); });
}

TEST_F(Uart, ScriptedPeerAnswersALineAndClearDiscardsIt) {
  with_sim([](sim::Model& m) { sim::uart_sim(m).ch[0].peer["AT"] = "OK\r\n"; });
  const std::string line = "AT\r\n";
  ASSERT_EQ(UART_WriteBytes(kDev, 0, reinterpret_cast<const unsigned char*>(line.data()),
                            int(line.size())),
            0);
  Bytes got = read_all(0, 4);
  EXPECT_EQ(std::string(got.begin(), got.end()), "OK\r\n");
  ASSERT_EQ(UART_WriteBytes(kDev, 0, reinterpret_cast<const unsigned char*>(line.data()),
                            int(line.size())),
            0);
  ASSERT_EQ(UART_ClearData(kDev, 0), UART_SUCCESS);
  EXPECT_EQ(sent(0xA04), (std::vector<Bytes>{{0}}));
  unsigned char buf[UART_READ_MAX_BYTES];
  EXPECT_EQ(UART_ReadBytes(kDev, 0, buf, 0), 0);
}

TEST_F(Uart, HostileRepliesGiveReplyErrorWithoutOverrun) {
  UART_CONFIG c{9600, 8, 0, 0, 0};
  fault(sim::FaultKind::ExtraPayload, 0xA00, 2);
  EXPECT_EQ(UART_Init(kDev, 0, &c), UART_ERR_REPLY);  // data where none is expected
  fault(sim::FaultKind::WrongCode, 0xA00, 0xA01);
  EXPECT_EQ(UART_Init(kDev, 0, &c), UART_ERR_REPLY);
  // More than the documented room: the bytes past it are never written.
  std::vector<unsigned char> buf(UART_READ_MAX_BYTES + 16, 0x5A);
  raw_reply(0xA03, Bytes(UART_READ_MAX_BYTES + 8, 0x11));
  EXPECT_EQ(UART_ReadBytes(kDev, 0, buf.data(), 0), UART_ERR_REPLY);
  EXPECT_TRUE(std::all_of(buf.begin() + UART_READ_MAX_BYTES, buf.end(),
                          [](unsigned char b) { return b == 0x5A; }));
  // The stream is still framed: the next exchange works.
  EXPECT_EQ(UART_Init(kDev, 0, &c), UART_SUCCESS);
}

TEST_F(Uart, ChannelTheAdapterLacksGetsNoReply) {
  UART_CONFIG c{9600, 8, 0, 0, 0};
  EXPECT_EQ(UART_Init(kDev, 9, &c), UART_ERR_REPLY);
}

TEST_F(Uart, UnpluggedAdapterCannotBeSentTo) {
  bed().unplug(kDev);
  const unsigned char b = 1;
  EXPECT_EQ(UART_WriteBytes(kDev, 0, &b, 1), UART_ERR_SEND);
}

}  // namespace
}  // namespace veltrix::test
