#include "sim/gpio.hpp"

#include "tests/peripherals/periph_fixture.hpp"
#include "veltrix/gpio.h"

namespace veltrix::test {
namespace {

constexpr uint32_t kDev = 0x21000B02;

class Gpio : public PeriphTest {
 protected:
  void SetUp() override {
    PeriphTest::SetUp();
    open(kDev);
  }
  unsigned int read(unsigned int mask) {
    unsigned int v = 0xDEADBEEF;
    EXPECT_EQ(GPIO_Read(kDev, mask, &v), GPIO_SUCCESS);
    return v;
  }
};

TEST_F(Gpio, ModeCommandsSendMaskAndPull) {
  ASSERT_EQ(GPIO_SetInput(kDev, 0x80000001, GPIO_PUPD_UP), 0);
  ASSERT_EQ(GPIO_SetOutput(kDev, 0x00010200, GPIO_PUPD_NOPULL), 0);
  ASSERT_EQ(GPIO_SetOpenDrain(kDev, 0x00000004, GPIO_PUPD_DOWN), 0);
  ASSERT_EQ(GPIO_Write(kDev, 0x00010200, 0x00000200), 0);
  EXPECT_EQ(sent(0x600), (std::vector<Bytes>{{0x80, 0, 0, 1, 1}}));
  EXPECT_EQ(sent(0x601), (std::vector<Bytes>{{0, 1, 2, 0, 0}}));
  EXPECT_EQ(sent(0x602), (std::vector<Bytes>{{0, 0, 0, 4, 2}}));
  EXPECT_EQ(sent(0x603), (std::vector<Bytes>{{0, 1, 2, 0, 0, 0, 2, 0}}));
}

struct PulseCase {
  uint32_t width, period, sent_period;
};
void PrintTo(const PulseCase& c, std::ostream* os) {
  *os << "width " << c.width << " period " << c.period;
}

class GpioPulses : public Gpio, public ::testing::WithParamInterface<PulseCase> {};

TEST_P(GpioPulses, PeriodNotLongerThanWidthBecomesWidthPlusOne) {
  const PulseCase& p = GetParam();
  ASSERT_EQ(GPIO_SendPulses(kDev, 0x3, p.width, p.period, 4), 0);
  wire::PayloadBuilder b;
  b.be32(0x3).be32(p.width).be32(p.sent_period).be32(4);
  EXPECT_EQ(sent(0x806), (std::vector<Bytes>{b.vec()}));
}

INSTANTIATE_TEST_SUITE_P(Periods, GpioPulses,
                         ::testing::Values(PulseCase{10, 5, 11}, PulseCase{10, 10, 11},
                                           PulseCase{10, 11, 11}, PulseCase{10, 1000, 1000},
                                           PulseCase{0xFFFFFFFE, 0, 0xFFFFFFFF},
                                           PulseCase{0xFFFFFFFF, 3, 0xFFFFFFFF}));

struct WiringCase {
  const char* name;
  void (*setup)(sim::GpioSim&);
  int (*drive)(uint32_t);
  unsigned int want;  // level of pin 5
};
void PrintTo(const WiringCase& c, std::ostream* os) { *os << c.name; }

class GpioWiring : public Gpio, public ::testing::WithParamInterface<WiringCase> {};

TEST_P(GpioWiring, InputSeesItsNet) {
  with_sim([&](sim::Model& m) { GetParam().setup(sim::gpio_sim(m)); });
  ASSERT_EQ(GetParam().drive(kDev), 0);
  EXPECT_EQ(read(1u << 5), GetParam().want);
}

INSTANTIATE_TEST_SUITE_P(
    Nets, GpioWiring,
    ::testing::Values(
        WiringCase{"OutputHighDrivesInput", [](sim::GpioSim& g) { g.wire(1, 5); },
                   [](uint32_t h) {
                     return GPIO_SetInput(h, 1 << 5, 0) | GPIO_SetOutput(h, 1 << 1, 0) |
                            GPIO_Write(h, 1 << 1, 1 << 1);
                   },
                   1u << 5},
        WiringCase{"OutputLowDrivesInput", [](sim::GpioSim& g) { g.wire(1, 5); },
                   [](uint32_t h) {
                     return GPIO_SetInput(h, 1 << 5, GPIO_PUPD_UP) | GPIO_SetOutput(h, 1 << 1, 0) |
                            GPIO_Write(h, 1 << 1, 0);
                   },
                   0},
        WiringCase{"ReleasedOpenDrainFollowsPullUp", [](sim::GpioSim& g) { g.wire(5, 2); },
                   [](uint32_t h) {
                     return GPIO_SetInput(h, 1 << 5, GPIO_PUPD_UP) |
                            GPIO_SetOpenDrain(h, 1 << 2, 0) | GPIO_Write(h, 1 << 2, 1 << 2);
                   },
                   1u << 5},
        WiringCase{"OpenDrainLowWinsOverPullUp", [](sim::GpioSim& g) { g.wire(5, 2); },
                   [](uint32_t h) {
                     return GPIO_SetInput(h, 1 << 5, GPIO_PUPD_UP) |
                            GPIO_SetOpenDrain(h, 1 << 2, 0) | GPIO_Write(h, 1 << 2, 0);
                   },
                   0},
        WiringCase{"TwoOpenDrainsMakeAWiredAnd",
                   [](sim::GpioSim& g) {
                     g.wire(5, 2);
                     g.wire(2, 3);
                   },
                   [](uint32_t h) {
                     return GPIO_SetInput(h, 1 << 5, GPIO_PUPD_UP) | GPIO_SetOpenDrain(h, 0xC, 0) |
                            GPIO_Write(h, 0xC, 0x4);
                   },
                   0},
        WiringCase{"UnwiredPinFollowsItsPull", [](sim::GpioSim&) {},
                   [](uint32_t h) { return GPIO_SetInput(h, 1 << 5, GPIO_PUPD_UP); }, 1u << 5}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Gpio, ReadMasksLevelsAndIsBigEndianOnTheWire) {
  with_sim([](sim::Model& m) {
    sim::gpio_sim(m).pins[0].external = true;
    sim::gpio_sim(m).pins[31].external = true;
    sim::gpio_sim(m).pins[8].external = true;
  });
  EXPECT_EQ(read(0x80000101), 0x80000101u);
  EXPECT_EQ(read(0x00000100), 0x00000100u);
  EXPECT_EQ(sent(0x604), (std::vector<Bytes>{{0x80, 0, 1, 1}, {0, 0, 1, 0}}));
}

TEST_F(Gpio, ReadRefusesRepliesOtherThanFourBytes) {
  for (size_t len : {0, 2, 3, 5}) {
    raw_reply(0x604, Bytes(len, 0xFF));
    unsigned int v = 0x12345678;
    EXPECT_EQ(GPIO_Read(kDev, 0xFF, &v), GPIO_ERR_REPLY) << len;
    EXPECT_EQ(v, 0x12345678u) << "output untouched after an error, len " << len;
  }
  EXPECT_EQ(GPIO_Read(kDev, 0xFF, nullptr), GPIO_ERR_PARAMETER);
}

TEST_F(Gpio, AcknowledgementWithDataIsAFailure) {
  fault(sim::FaultKind::ExtraPayload, 0x603, 1);
  EXPECT_EQ(GPIO_Write(kDev, 1, 1), GPIO_ERR_REPLY);
  EXPECT_EQ(GPIO_Write(0x21FFFFFF, 1, 1), GPIO_ERR_PARAMETER);
}

}  // namespace
}  // namespace veltrix::test
