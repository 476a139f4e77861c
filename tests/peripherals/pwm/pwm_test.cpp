#include "sim/pwm.hpp"

#include <cmath>
#include <cstdlib>

#include "sim/gpio.hpp"
#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/gpio.h"
#include "veltrix/pwm.h"

namespace veltrix::test {
namespace {

struct MaskCase {
  uint32_t handle;
  uint8_t channel;
  uint8_t mask;
  int index;
  unsigned clock;
};

void PrintTo(const MaskCase& c, std::ostream* os) {
  *os << std::hex << "handle " << c.handle << " channel " << std::dec << int(c.channel);
}

// The model tables need no adapter: they only look at the handle's top byte.
class PwmModels : public ::testing::TestWithParam<MaskCase> {};

TEST_P(PwmModels, MaskIndexAndClockFollowTheModel) {
  const MaskCase& c = GetParam();
  EXPECT_EQ(PWM_GetChannelMask(c.handle, c.channel), c.mask);
  EXPECT_EQ(PWM_GetChannelIndex(c.handle, c.channel), c.index);
  EXPECT_EQ(PWM_GetMCUFrequency(c.handle), c.clock);
}

INSTANTIATE_TEST_SUITE_P(
    Models, PwmModels,
    ::testing::Values(
        MaskCase{0x53000001, 2, 0x08, 3, 220000000}, MaskCase{0x53000001, 6, 0x80, 7, 220000000},
        MaskCase{0x53000001, 7, 0x00, 0, 220000000}, MaskCase{0x11000001, 0, 0x01, 0, 200000000},
        MaskCase{0x21000001, 7, 0x80, 7, 200000000}, MaskCase{0x31000001, 8, 0x00, 0, 200000000},
        MaskCase{0x54000001, 5, 0x20, 5, 240000000}, MaskCase{0x41000001, 0, 0x40, 6, 84000000},
        MaskCase{0x45000001, 1, 0x80, 7, 84000000}, MaskCase{0x44000001, 2, 0x00, 0, 84000000},
        MaskCase{0x99000001, 0, 0x00, 0, 0}, MaskCase{0x00000000, 3, 0x00, 0, 0},
        MaskCase{0x53000001, 255, 0x00, 0, 220000000}));

constexpr uint32_t kDev = 0x53000C03;

class Pwm : public PeriphTest {
 protected:
  void SetUp() override {
    PeriphTest::SetUp();
    open(kDev);
  }
  PWM_CAP_DATA capture(uint8_t ch) {
    EXPECT_EQ(PWM_CAP_Init(kDev, ch, PWM_CAP_MODE_PERIOD), 0);
    PWM_CAP_DATA d{};
    EXPECT_EQ(PWM_CAP_GetData(kDev, ch, &d), 0);
    return d;
  }
};

Bytes values_payload(uint8_t mask, std::initializer_list<const unsigned short*> arrays) {
  wire::PayloadBuilder b;
  b.u8(mask);
  for (auto* a : arrays)
    for (int i = 0; i < 8; ++i) b.be16(a[i]);
  return b.vec();
}

TEST_F(Pwm, ValueCommandsSendEightBigEndianValuesPerArray) {
  const unsigned short a[8] = {1, 0x0203, 3, 4, 5, 6, 7, 0xFFFF};
  const unsigned short b[8] = {0x1000, 9, 10, 11, 12, 13, 14, 15};
  ASSERT_EQ(PWM_SetPulse(kDev, 0x81, a), 0);
  ASSERT_EQ(PWM_SetFrequency(kDev, 0x02, a, b), 0);
  ASSERT_EQ(PWM_SetPhase(kDev, 0x04, b), 0);
  ASSERT_EQ(PWM_Start(kDev, 0x06, 0x01020304), 0);
  ASSERT_EQ(PWM_Stop(kDev, 0x06), 0);
  EXPECT_EQ(sent(0x803), (std::vector<Bytes>{values_payload(0x81, {a})}));
  EXPECT_EQ(sent(0x804), (std::vector<Bytes>{values_payload(0x02, {a, b})}));
  EXPECT_EQ(sent(0x805), (std::vector<Bytes>{values_payload(0x04, {b})}));
  EXPECT_EQ(sent(0x801), (std::vector<Bytes>{{0x06, 1, 2, 3, 4}}));
  EXPECT_EQ(sent(0x802), (std::vector<Bytes>{{0x06}}));
  EXPECT_EQ(PWM_SetPulse(kDev, 1, nullptr), PWM_ERR_PARAMETER);
  EXPECT_EQ(PWM_SetFrequency(kDev, 1, a, nullptr), PWM_ERR_PARAMETER);
}

TEST_F(Pwm, InitSendsTheSeventyFourBytesAsStored) {
  PWM_CONFIG c{};
  for (int i = 0; i < 8; ++i) {
    c.Prescaler[i] = uint16_t(0x100 + i);
    c.Precision[i] = uint16_t(0x200 + i);
    c.Pulse[i] = uint16_t(0x300 + i);
    c.Phase[i] = uint16_t(0x400 + i);
    c.Polarity[i] = uint8_t(i & 1);
  }
  c.ChannelMask = 0xA5;
  c.Reserved = 0x5A;
  ASSERT_EQ(PWM_Init(kDev, &c), 0);
  Bytes want;
  for (int base : {0x100, 0x200, 0x300, 0x400})
    for (int i = 0; i < 8; ++i) {
      want.push_back(uint8_t(base + i));
      want.push_back(uint8_t((base + i) >> 8));
    }
  for (int i = 0; i < 8; ++i) want.push_back(uint8_t(i & 1));
  want.push_back(0xA5);
  want.push_back(0x5A);
  EXPECT_EQ(sent(0x800), (std::vector<Bytes>{want}));
}

struct TimingCase {
  uint32_t handle;
  double hz;
  unsigned short prescaler, period;
  double actual;
};
void PrintTo(const TimingCase& c, std::ostream* os) {
  *os << std::hex << "model " << (c.handle >> 24) << std::dec << " at " << c.hz << " Hz";
}

// The timing needs an adapter in the registry: an unknown handle is refused.
TEST(PwmTimingLimits, UnknownHandleIsRefused) {
  EXPECT_EQ(PWM2_GetTiming(0x11000001, 1000, nullptr, nullptr, nullptr), PWM_ERR_PARAMETER);
}

class PwmTimingOnAdapter : public PeriphTest, public ::testing::WithParamInterface<TimingCase> {};

TEST_P(PwmTimingOnAdapter, PicksTheClosestReachableFrequency) {
  const TimingCase& c = GetParam();
  open(c.handle);
  unsigned short p = 0, q = 0;
  double actual = 0;
  ASSERT_EQ(PWM2_GetTiming(c.handle, c.hz, &p, &q, &actual), 0);
  EXPECT_EQ(p, c.prescaler);
  EXPECT_EQ(q, c.period);
  EXPECT_DOUBLE_EQ(actual, c.actual);
}

INSTANTIATE_TEST_SUITE_P(
    Frequencies, PwmTimingOnAdapter,
    ::testing::Values(
        // Exact: the smallest prescaler that lets the period fit.
        TimingCase{0x11000001, 1000, 4, 50000, 1000},
        // 84 MHz / 7 Hz = 12e6: prescaler 184 is the first that fits, but only 192 x 62500
        // is exact.
        TimingCase{0x41000001, 7, 192, 62500, 7},
        // Above the clock's reach: the fastest the timer does.
        TimingCase{0x53000001, 220000000, 1, 1, 220000000},
        // 200 MHz / 3 MHz = 66.67: 67 counts give 2.985 MHz, 66 give 3.030 MHz.
        TimingCase{0x11000001, 3000000, 1, 67, 200000000.0 / 67}));

TEST_F(Pwm, Pwm2RefusesWhatTheTimerCannotDo) {
  EXPECT_EQ(PWM2_GetTiming(kDev, 0, nullptr, nullptr, nullptr), PWM2_ERR_FREQUENCY);
  EXPECT_EQ(PWM2_GetTiming(kDev, -5, nullptr, nullptr, nullptr), PWM2_ERR_FREQUENCY);
  EXPECT_EQ(PWM2_GetTiming(kDev, NAN, nullptr, nullptr, nullptr), PWM2_ERR_FREQUENCY);
  EXPECT_EQ(PWM2_GetTiming(kDev, 1e12, nullptr, nullptr, nullptr), PWM2_ERR_FREQUENCY);
  EXPECT_EQ(PWM2_GetTiming(kDev, 0.01, nullptr, nullptr, nullptr), PWM2_ERR_FREQUENCY);
  EXPECT_EQ(PWM2_Init(kDev, 7, 1000, 50, 0, nullptr), PWM2_ERR_CHANNEL);
  EXPECT_EQ(PWM2_Init(kDev, 0, 1000, 100.5, 0, nullptr), PWM2_ERR_DUTY);
  EXPECT_EQ(PWM2_Init(kDev, 0, 1000, NAN, 0, nullptr), PWM2_ERR_DUTY);
  EXPECT_EQ(PWM2_SetDutyCycle(kDev, 0, 20), PWM2_ERR_FREQUENCY);  // never configured
  EXPECT_TRUE(m_->commands().empty());
}

TEST_F(Pwm, Pwm2InitTargetsTheModelsMaskBit) {
  double actual = 0;
  // Channel 2 of model 0x53 is mask 0x08, array index 3; 220 MHz / 20 kHz = 11000.
  ASSERT_EQ(PWM2_Init(kDev, 2, 20000, 25, 1, &actual), 0);
  EXPECT_DOUBLE_EQ(actual, 20000);
  auto cfg = sent(0x800);
  ASSERT_EQ(cfg.size(), 1u);
  const Bytes& b = cfg[0];
  EXPECT_EQ(wire::get_le16(&b[2 * 3]), 1);           // prescaler
  EXPECT_EQ(wire::get_le16(&b[16 + 2 * 3]), 11000);  // period
  EXPECT_EQ(wire::get_le16(&b[32 + 2 * 3]), 2750);   // pulse
  EXPECT_EQ(b[64 + 3], 1);                           // polarity
  EXPECT_EQ(b[72], 0x08);
  ASSERT_EQ(PWM2_Start(kDev, 2, 0), 0);
  EXPECT_EQ(sent(0x801), (std::vector<Bytes>{{0x08, 0, 0, 0, 0}}));
  ASSERT_EQ(PWM2_SetDutyCycle(kDev, 2, 10), 0);
  auto pulses = sent(0x803);
  ASSERT_EQ(pulses.size(), 1u);
  EXPECT_EQ(pulses[0][0], 0x08);
  EXPECT_EQ(wire::get_be16(&pulses[0][1 + 2 * 3]), 1100);
  ASSERT_EQ(PWM2_Stop(kDev, 2), 0);
  EXPECT_EQ(sent(0x802), (std::vector<Bytes>{{0x08}}));
}

struct CaptureCase {
  uint8_t channel;
  double hz;
  double duty;
};
void PrintTo(const CaptureCase& c, std::ostream* os) {
  *os << "channel " << int(c.channel) << ' ' << c.hz << " Hz " << c.duty << " %";
}

class PwmCapture : public Pwm, public ::testing::WithParamInterface<CaptureCase> {};

TEST_P(PwmCapture, MeasuresTheFrequencyAndDutySetWithinOneTick) {
  const CaptureCase& c = GetParam();
  double actual = 0;
  ASSERT_EQ(PWM2_Init(kDev, c.channel, c.hz, c.duty, 0, &actual), 0);
  ASSERT_EQ(PWM2_Start(kDev, c.channel, 0), 0);
  const int out = PWM_GetChannelIndex(kDev, c.channel);
  with_sim([&](sim::Model& m) { sim::pwm_sim(m).cap[0].output = out; });
  PWM_CAP_DATA d = capture(0);
  ASSERT_GT(d.PeriodTicks, 0u);
  // One tick of the output's timer is `prescaler` counts of the capture clock.
  unsigned short prescaler = 0;
  ASSERT_EQ(PWM2_GetTiming(kDev, c.hz, &prescaler, nullptr, nullptr), 0);
  const double tick = prescaler;
  EXPECT_LE(std::fabs(double(d.PeriodTicks) - d.ClockHz / c.hz), tick)
      << "measured " << double(d.ClockHz) / d.PeriodTicks << " Hz, reached " << actual;
  EXPECT_LE(std::fabs(double(d.HighTicks) - d.PeriodTicks * c.duty / 100), tick);
}

INSTANTIATE_TEST_SUITE_P(Outputs, PwmCapture,
                         ::testing::Values(CaptureCase{0, 1000, 50}, CaptureCase{2, 20000, 25},
                                           CaptureCase{6, 37.5, 80}, CaptureCase{3, 1e6, 33}));

TEST_F(Pwm, FrequencyChangeKeepsTheDuty) {
  ASSERT_EQ(PWM2_Init(kDev, 1, 1000, 40, 0, nullptr), 0);
  ASSERT_EQ(PWM2_Start(kDev, 1, 0), 0);
  ASSERT_EQ(PWM2_SetFrequency(kDev, 1, 4000, nullptr), 0);
  with_sim([](sim::Model& m) { sim::pwm_sim(m).cap[1].output = 2; });
  PWM_CAP_DATA d = capture(1);
  EXPECT_EQ(d.PeriodTicks, 220000000u / 4000);
  EXPECT_EQ(d.HighTicks, 220000000u / 4000 * 40 / 100);
}

TEST_F(Pwm, CaptureSeesTheGpioPulseGenerator) {
  with_sim([](sim::Model& m) { sim::pwm_sim(m).cap[2].gpio_pin = 4; });
  ASSERT_EQ(GPIO_SetOutput(kDev, 1 << 4, 0), 0);
  ASSERT_EQ(GPIO_SendPulses(kDev, 1 << 4, 30, 100, 10), 0);
  PWM_CAP_DATA d = capture(2);
  EXPECT_EQ(d.ClockHz, 220000000u);
  EXPECT_EQ(d.PeriodTicks, 22000u);
  EXPECT_EQ(d.HighTicks, 6600u);
  EXPECT_EQ(sent(0x807).back(), (Bytes{2, PWM_CAP_MODE_PERIOD}));
  EXPECT_EQ(sent(0x808).back(), (Bytes{2}));
}

TEST_F(Pwm, CaptureRefusesAReplyOfTheWrongSize) {
  for (size_t len : {0, 8, 16}) {
    raw_reply(0x808, Bytes(len, 1));
    PWM_CAP_DATA d{7, 7, 7};
    EXPECT_EQ(PWM_CAP_GetData(kDev, 0, &d), PWM_ERR_REPLY) << len;
    EXPECT_EQ(d.PeriodTicks, 7u);
  }
  EXPECT_EQ(PWM_CAP_GetData(kDev, 0, nullptr), PWM_ERR_PARAMETER);
}

TEST_F(Pwm, Pwm2FailureLeavesTheRememberedPeriod) {
  ASSERT_EQ(PWM2_Init(kDev, 0, 1000, 50, 0, nullptr), 0);
  fault(sim::FaultKind::ExtraPayload, 0x804, 1);
  EXPECT_EQ(PWM2_SetFrequency(kDev, 0, 2000, nullptr), PWM_ERR_REPLY);
  m_->clear_record();
  ASSERT_EQ(PWM2_SetDutyCycle(kDev, 0, 50), 0);
  auto p = sent(0x803);
  ASSERT_EQ(p.size(), 1u);
  // Still the 1 kHz period: 220000 counts as prescaler 4 x 55000.
  EXPECT_EQ(wire::get_be16(&p[0][1 + 2 * 1]), 27500);
}

}  // namespace
}  // namespace veltrix::test
