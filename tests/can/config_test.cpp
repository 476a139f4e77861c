// Port configuration: timing tables, init payload, filter banks, error state.
#include <gtest/gtest.h>

#include <cstring>

#include "can/can_state.hpp"
#include "can/timing_tables.hpp"
#include "tests/can/can_fixture.hpp"
#include "veltrix/device.h"

namespace veltrix::test {
namespace {

class CanTiming : public ::testing::Test {};

TEST_F(CanTiming, TableIsChosenByTopFourBitsAndExactRate) {
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(0x31000001, &c, 1000000), 0);
  EXPECT_EQ(c.Prescaler, 5u);
  EXPECT_EQ(c.SJW, 2);
  EXPECT_EQ(c.Seg1, 14);
  EXPECT_EQ(c.Seg2, 5);
  EXPECT_EQ(c.Mode, 0x80);
  EXPECT_EQ(c.AutoBusOffRecovery, 1);
  EXPECT_EQ(c.NoAutoRetransmit + c.RxFifoLocked + c.TxFifoOrder, 0);

  ASSERT_EQ(CAN_GetCANSpeedArg(0x40FFFFFF, &c, 1000000), 0);
  EXPECT_EQ(c.Prescaler, 2u);
  EXPECT_EQ(c.SJW, 2);
  EXPECT_EQ(c.Seg1, 15);
  EXPECT_EQ(c.Seg2, 5);

  // 0x51: 40 MHz values although such a handle is initialised as a classic port.
  ASSERT_EQ(CAN_GetCANSpeedArg(0x51000001, &c, 500000), 0);
  EXPECT_EQ(c.Prescaler, 1u);
  EXPECT_EQ(c.Seg1, 59);
  EXPECT_EQ(c.Seg2, 20);

  // The deliberately odd row 19 of the 100 MHz table.
  ASSERT_EQ(CAN_GetCANSpeedArg(0x31000001, &c, 80000), 0);
  EXPECT_EQ(c.Seg1, 1);
  EXPECT_EQ(c.Seg2, 3);
  EXPECT_EQ(c.Prescaler, 278u);
}

TEST_F(CanTiming, AbsentRateFailsAndLeavesRecord) {
  CAN_CHANNEL_CONFIG c{};
  c.Prescaler = 77;
  c.Mode = 0x11;
  EXPECT_EQ(CAN_GetCANSpeedArg(0x31000001, &c, 125001), -4);
  EXPECT_EQ(CAN_GetCANSpeedArg(0x31000001, &c, 0), -4);
  EXPECT_EQ(CAN_GetCANSpeedArg(0x53000001, &c, 900000), -4);  // classic tables only
  EXPECT_EQ(c.Prescaler, 77u);
  EXPECT_EQ(c.Mode, 0x11);
  EXPECT_EQ(CAN_GetCANSpeedArg(0x31000001, nullptr, 500000), CAN_ERR_PARAMETER);
}

TEST_F(CanTiming, TablesMatchTheirClocks) {
  // Every row of the 42 MHz and 40 MHz tables lands within 2% of its nominal rate
  // (900000 on 42 MHz is really 913043); this catches a mistyped row.
  auto check = [](const CAN_TIMING_ENTRY* t, double clock, int rows) {
    int n = 0;
    for (; t->BitRate; ++t, ++n) {
      double real = clock / (double(t->Prescaler) * (1 + t->Seg1 + t->Seg2));
      EXPECT_NEAR(real / t->BitRate, 1.0, 0.02) << "rate " << t->BitRate;
    }
    EXPECT_EQ(n + 1, rows);
  };
  check(CAN_BRT_KORVANE, 42e6, 30);
  check(CAN_BRT_MIRADEL_NBT, 40e6, 17);
  EXPECT_EQ(CAN_BaudRate_KORVANE[2].Prescaler, 13);
  EXPECT_EQ(CAN_BaudRate_KORVANE[4].Seg1, 7);
  EXPECT_EQ(CAN_BaudRate_KORVANE[5].Prescaler, CAN_BRT_KORVANE[5].Prescaler);
  EXPECT_EQ(can::btr_rate(0x00, 0x1C), 500000u);
  EXPECT_EQ(can::btr_rate(0x81, 0xF0), 225000u);
  EXPECT_EQ(can::btr_rate(0x00, 0x1D), 0u);
}

class CanInit : public SimTest {};

TEST_F(CanInit, PayloadCarriesOptionsAndTimingRegisterForm) {
  auto m = plug_and_open(kClassic);
  CAN_CHANNEL_CONFIG c{};
  c.Prescaler = 0x12345;  // only the low 16 bits travel
  c.Mode = 0x81;
  c.AutoBusOffRecovery = 3;
  c.NoAutoRetransmit = 1;
  c.RxFifoLocked = 2;
  c.TxFifoOrder = 1;
  ASSERT_EQ(CAN_Init(kClassic, 0, &c), 0);
  c.SJW = 2;
  c.Seg1 = 15;
  c.Seg2 = 5;
  EXPECT_EQ(CAN_Init(kClassic, 2, &c), -4);  // the adapter has no third port
  EXPECT_EQ(payloads(*m, 0x0C00),
            (std::vector<Bytes>{{0, 0, 1, 0, 1, 0, 1, 0x81, 1, 1, 1, 0x23, 0x45},
                                {2, 0, 1, 0, 1, 0, 1, 0x81, 2, 15, 5, 0x23, 0x45}}));
}

TEST_F(CanInit, StoredRateUses42MHzForEveryClassicModel) {
  plug_and_open(kClassic);
  plug_and_open(k42MHz);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kClassic, &c, 500000), 0);
  ASSERT_EQ(CAN_Init(kClassic, 1, &c), 0);
  ASSERT_EQ(CAN_GetCANSpeedArg(k42MHz, &c, 500000), 0);
  ASSERT_EQ(CAN_Init(k42MHz, 0, &c), 0);
  auto& st = can::state();
  EXPECT_EQ(st.slot[*can::slot_of(kClassic)].port[1].baud_rate.load(), 210000u);
  EXPECT_EQ(st.slot[*can::slot_of(k42MHz)].port[0].baud_rate.load(), 500000u);
}

TEST_F(CanInit, RefusalAndFaultsKeepStoredState) {
  auto m = plug_and_open(kClassic);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kClassic, &c, 250000), 0);
  ASSERT_EQ(CAN_Init(kClassic, 0, &c), 0);
  auto& port = can::state().slot[*can::slot_of(kClassic)].port[0];
  ASSERT_EQ(port.baud_rate.load(), 105000u);

  ASSERT_EQ(CAN_GetCANSpeedArg(kClassic, &c, 1000000), 0);
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x0C00, 1));
  EXPECT_EQ(CAN_Init(kClassic, 0, &c), -4);
  m->inject(fault(sim::FaultKind::ShortHeader, 0x0C00));
  EXPECT_EQ(CAN_Init(kClassic, 0, &c), -4);
  EXPECT_EQ(port.baud_rate.load(), 105000u);
  EXPECT_EQ(CAN_Init(kClassic, 0, &c), 0);
  EXPECT_EQ(port.baud_rate.load(), 420000u);

  EXPECT_EQ(CAN_Init(kClassic, 0, nullptr), CAN_ERR_PARAMETER);
  EXPECT_EQ(CAN_Init(0x31000099, 0, &c), CAN_ERR_USB_WRITE_FAIL);  // not in the registry
}

class CanFilter : public SimTest {};

TEST_F(CanFilter, BankNumberAndRegisterHalves) {
  auto m = plug_and_open(kClassic);
  CAN_FILTER_RULE f{};
  f.Enable = 1;
  f.FilterIndex = 15;
  f.ID = 0x123;
  f.MaskID = 0x7FF;
  ASSERT_EQ(CAN_Filter_Init(kClassic, 1, &f), 0);
  // Extended identifier 0x1ABCDEF5 in list mode with the RTR bit; mask IDE still sent.
  f.FilterIndex = 3;
  f.ExtFrame = 1;
  f.FilterMode = 1;
  f.ID = 0x1ABCDEF5;
  f.RTR = 1;
  f.IDE = 1;
  f.MaskIDE = 1;
  ASSERT_EQ(CAN_Filter_Init(kClassic, 0, &f), 0);
  // Extended mask mode.
  f.FilterMode = 0;
  f.Enable = 0;
  f.MaskID = 0x1FFFFFFF;
  f.MaskRTR = 1;
  ASSERT_EQ(CAN_Filter_Init(kClassic, 0, &f), 0);
  EXPECT_EQ(payloads(*m, 0x0C01),
            (std::vector<Bytes>{
                {1, 15, 0, 1, 0x24, 0x60, 0x00, 0x00, 0xFF, 0xE0, 0x00, 0x00, 0, 1},
                {0, 3, 1, 1, 0xD5, 0xE6, 0xF7, 0xAE, 0x00, 0x00, 0x00, 0x04, 0, 1},
                {0, 3, 0, 1, 0xD5, 0xE6, 0xF7, 0xAE, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0}}));
  EXPECT_EQ(CAN_Filter_Init(kClassic, 0, nullptr), CAN_ERR_PARAMETER);
  m->inject(fault(sim::FaultKind::NoReply, 0x0C01));
  EXPECT_EQ(CAN_Filter_Init(kClassic, 0, &f), -4);
}

class CanStatus : public CanTest {};

TEST_F(CanStatus, DecodesErrorWordAfterUnacknowledgedFrames) {
  auto m = plug_and_open(kClassic);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kClassic, &c, 500000), 0);
  ASSERT_EQ(CAN_Init(kClassic, 0, &c), 0);  // port 1 not started: nobody acknowledges
  CAN_MSG f = can_frame(0x100, {1});
  for (int i = 0; i < 13; ++i) ASSERT_EQ(CAN_SendMsg(kClassic, 0, &f, 1), 1);
  CAN_BUS_STATUS s{};
  ASSERT_EQ(CAN_GetStatus(kClassic, 0, &s), 0);
  EXPECT_EQ(s.TxErrorCounter, 104);
  EXPECT_EQ(s.RxErrorCounter, 0);
  EXPECT_EQ(s.LastErrorCode, 3);
  EXPECT_EQ(s.ErrorFlags, 1);  // warning, not yet passive
  EXPECT_EQ(s.ErrorStatusWord, 0x00680031u);
  EXPECT_EQ(s.StatusWord, 1u);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(CAN_SendMsg(kClassic, 0, &f, 1), 1);
  ASSERT_EQ(CAN_GetStatus(kClassic, 0, &s), 0);
  EXPECT_EQ(s.TxErrorCounter, 128);  // held once error passive
  EXPECT_EQ(s.ErrorFlags, 3);

  sim::can_force_bus_off(*m, 0);
  ASSERT_EQ(CAN_GetStatus(kClassic, 0, &s), 0);
  EXPECT_EQ(s.ErrorFlags, 7);
  EXPECT_EQ(s.TxErrorCounter, 255);
  EXPECT_THAT(payloads(*m, 0x0C04).back(), BytesEq({0}));
}

TEST_F(CanStatus, RawWordsAndFailures) {
  auto m = plug_and_open(kClassic);
  sim::Fault raw = fault(sim::FaultKind::RawReply, 0x0C04);
  raw.raw = {0, 0, 0x0C, 0x04, 0, 0, 0, 8, 0x78, 0x56, 0x34, 0x12, 0x76, 0x00, 0x85, 0xC3};
  m->inject(raw);
  CAN_BUS_STATUS s{};
  ASSERT_EQ(CAN_GetStatus(kClassic, 1, &s), 0);
  EXPECT_EQ(s.StatusWord, 0x12345678u);
  EXPECT_EQ(s.ErrorStatusWord, 0xC3850076u);
  EXPECT_EQ(s.ErrorFlags, 6);
  EXPECT_EQ(s.LastErrorCode, 7);
  EXPECT_EQ(s.TxErrorCounter, 0x85);
  EXPECT_EQ(s.RxErrorCounter, 0xC3);

  CAN_BUS_STATUS before = s;
  m->inject(fault(sim::FaultKind::WrongCode, 0x0C04, 0x0C03));
  EXPECT_EQ(CAN_GetStatus(kClassic, 1, &s), -4);
  EXPECT_EQ(std::memcmp(&before, &s, sizeof s), 0);
  EXPECT_EQ(CAN_GetStatus(kClassic, 1, nullptr), CAN_ERR_PARAMETER);
}

}  // namespace
}  // namespace veltrix::test
