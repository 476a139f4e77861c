#include "sim/adc.hpp"

#include <cstring>

#include "peripherals/adc/frame_queue.hpp"
#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/adc.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kDev = 0x41000D04;

class Adc : public PeriphTest {
 protected:
  void SetUp() override {
    PeriphTest::SetUp();
    open(kDev);
  }
};

TEST_F(Adc, ReadExpectsSamplesTimesInputsTimesTwoBytes) {
  ASSERT_EQ(ADC_Init(kDev, 0x05, 100000), 0);
  EXPECT_EQ(sent(0x500), (std::vector<Bytes>{{0x05, 0x00, 0x01, 0x86, 0xA0}}));
  std::vector<short> buf(200 + 4, 0x7777);
  ASSERT_EQ(ADC_Read(kDev, buf.data(), 100), 200);
  EXPECT_EQ(sent(0x501), (std::vector<Bytes>{{0, 0, 0, 100}}));
  // Inputs 0 and 2 interleaved: ramps from 0x0000 and 0x2000.
  for (int k = 0; k < 100; ++k) {
    ASSERT_EQ(uint16_t(buf[2 * k]), k) << k;
    ASSERT_EQ(uint16_t(buf[2 * k + 1]), 0x2000 + k) << k;
  }
  EXPECT_EQ(buf[200], 0x7777);
}

TEST_F(Adc, ReadRefusesAnyOtherLength) {
  ASSERT_EQ(ADC_Init(kDev, 0x05, 1000), 0);
  std::vector<short> buf(200 + 8, 0x7777);
  for (size_t len : {0, 398, 399, 402, 800}) {
    raw_reply(0x501, Bytes(len, 0x11));
    EXPECT_EQ(ADC_Read(kDev, buf.data(), 100), ADC_ERR_REPLY) << len;
    EXPECT_EQ(buf[200], 0x7777) << "wrote past the room for " << len;
  }
}

TEST_F(Adc, ReadNeedsInitAndSaneArguments) {
  short s[4];
  EXPECT_EQ(ADC_Read(kDev, s, 1), ADC_ERR_PARAMETER);  // no inputs enabled yet
  ASSERT_EQ(ADC_Init(kDev, 0x01, 1000), 0);
  EXPECT_EQ(ADC_Read(kDev, nullptr, 1), ADC_ERR_PARAMETER);
  EXPECT_EQ(ADC_Read(kDev, s, 0), ADC_ERR_PARAMETER);
  EXPECT_EQ(ADC_Read(0x41FFFFFF, s, 1), ADC_ERR_PARAMETER);
  EXPECT_TRUE(sent(0x501).empty());
}

TEST_F(Adc, InitFailureKeepsTheOldSettings) {
  ASSERT_EQ(ADC_Init(kDev, 0x01, 1000), 0);
  fault(sim::FaultKind::ExtraPayload, 0x500, 1);
  EXPECT_EQ(ADC_Init(kDev, 0xFF, 1000), ADC_ERR_REPLY);
  with_sim([](sim::Model& m) { sim::adc_sim(m).mask = 0x01; });
  short s[2];
  EXPECT_EQ(ADC_Read(kDev, s, 2), 2);  // still one input
}

struct AdsCase {
  Bytes raw;
  std::vector<int> want;
};
void PrintTo(const AdsCase& c, std::ostream* os) {
  *os << c.raw.size() << " bytes ->";
  for (int v : c.want) *os << ' ' << v;
}

class Ads1256 : public Adc, public ::testing::WithParamInterface<AdsCase> {};

TEST_P(Ads1256, SignExtendsEveryThreeByteSample) {
  raw_reply(0x21B, GetParam().raw);
  std::vector<int> out(ADS1256_READ_MAX_SAMPLES, 0x55555555);
  const int n = ADS1256_Read(kDev, 1, out.data());
  ASSERT_EQ(n, int(GetParam().want.size()));
  EXPECT_EQ(std::vector<int>(out.begin(), out.begin() + n), GetParam().want);
  EXPECT_EQ(out[size_t(n)], 0x55555555);
  EXPECT_EQ(sent(0x21B), (std::vector<Bytes>{{1}}));
}

INSTANTIATE_TEST_SUITE_P(Samples, Ads1256,
                         ::testing::Values(AdsCase{{0x80, 0x00, 0x00}, {-8388608}},
                                           AdsCase{{0x7F, 0xFF, 0xFF}, {8388607}},
                                           AdsCase{{0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x01}, {-1, 1}},
                                           AdsCase{{0x12, 0x34, 0x56, 0xAB},
                                                   {0x123456}},  // partial tail ignored
                                           AdsCase{{}, {}}));

TEST_F(Adc, Ads1256CommandsAndTheRoomOfARead) {
  ADS1256_CONFIG c{0x0102, 0x03, 0x01, 0x0A0B0C0D};
  ASSERT_EQ(ADS1256_Init(kDev, 0, &c), 0);
  ASSERT_EQ(ADS1256_Start(kDev, 0), 0);
  with_sim([](sim::Model& m) { sim::adc_sim(m).ads[0].samples = {-2, 5}; });
  int out[ADS1256_READ_MAX_SAMPLES];
  ASSERT_EQ(ADS1256_Read(kDev, 0, out), 2);
  EXPECT_EQ(out[0], -2);
  EXPECT_EQ(out[1], 5);
  ASSERT_EQ(ADS1256_Stop(kDev, 0), 0);
  EXPECT_EQ(sent(0x219), (std::vector<Bytes>{{0, 0x01, 0x02, 0x03, 0x01, 0x0A, 0x0B, 0x0C, 0x0D}}));
  EXPECT_EQ(sent(0x21A), (std::vector<Bytes>{{0}}));
  EXPECT_EQ(sent(0x21C), (std::vector<Bytes>{{0}}));
  raw_reply(0x21B, Bytes((ADS1256_READ_MAX_SAMPLES + 1) * 3, 0));
  EXPECT_EQ(ADS1256_Read(kDev, 0, out), ADC_ERR_REPLY);
  EXPECT_EQ(ADS1256_Init(kDev, 0, nullptr), ADC_ERR_PARAMETER);
}

// The queue on its own: frames of 4 bytes, room for 3.
TEST(AdcFrameQueue, DropsAndCountsTheOldestWhenFull) {
  adc::FrameQueue q;
  ASSERT_TRUE(q.reset(4, 12));
  for (uint8_t i = 1; i <= 5; ++i) {
    const uint8_t f[4] = {i, i, i, i};
    q.push(f, 4);
  }
  EXPECT_EQ(q.dropped(), 2u);
  EXPECT_EQ(q.frames(), 3u);
  uint8_t out[16];
  std::memset(out, 0xEE, sizeof out);
  EXPECT_EQ(q.pop_into(out, 11), 2u);  // a third frame does not fit into 11 bytes
  EXPECT_EQ(Bytes(out, out + 9), (Bytes{3, 3, 3, 3, 4, 4, 4, 4, 0xEE}));
  const uint8_t short_frame[1] = {9};
  q.push(short_frame, 1);
  q.push(short_frame, 0);
  EXPECT_EQ(q.pop_into(out, 16), 3u);
  EXPECT_EQ(Bytes(out, out + 12), (Bytes{5, 5, 5, 5, 9, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(q.pop_into(out, 16), 0u);
}

}  // namespace
}  // namespace veltrix::test
