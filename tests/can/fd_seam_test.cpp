// CAN calls on the CAN FD model go to the CAN FD family with converted records.
#include <gtest/gtest.h>

#include <vector>

#include "can/can_state.hpp"
#include "can/fd_bridge.hpp"
#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

// A recording stand-in for the CAN FD family.
struct FakeFd {
  static inline CANFD_CHANNEL_CONFIG config{};
  static inline CANFD_FILTER_RULE rule{};
  static inline std::vector<CANFD_MSG> sent;
  static inline int get_capacity = 0;
  static inline int calls_stop_get = 0;
  static inline int calls_stop = 0;

  static int init(uint32_t, uint8_t, CANFD_CHANNEL_CONFIG* c) { config = *c; return 0; }
  static int filter(uint32_t, uint8_t, CANFD_FILTER_RULE* r, uint8_t n) {
    rule = *r;
    return n == 1 ? 0 : -9;
  }
  static int bus_error(uint32_t, uint8_t, CANFD_BUS_ERROR* e) {
    *e = {7, 9, {1, 2}};
    return 0;
  }
  static int send(uint32_t, uint8_t port, CANFD_MSG* f, uint32_t n) {
    sent.assign(f, f + n);
    f[0].TimeStamp = 12345;  // a transmit event written back
    f[0].TimeStampHigh = 0;
    f[0].Flags = uint8_t(0x80 | port << 5);
    return 1;
  }
  static int get(uint32_t, uint8_t, CANFD_MSG* f, int capacity) {
    get_capacity = capacity;
    f[0] = {};
    f[0].ID = 0x80000000u | 0x1234567 | CANFD_MSG_FLAG_RTR;
    f[0].DLC = 64;
    f[0].Data[7] = 0x77;
    f[0].TimeStampHigh = 1;
    f[0].TimeStamp = 10;
    return 1;
  }
  static int start_get(uint32_t, uint8_t) { return 0; }
  static int stop_get(uint32_t, uint8_t) { ++calls_stop_get; return 0; }
  static int clear(uint32_t, uint8_t) { return -3; }
  static int stop(uint32_t, uint8_t) { ++calls_stop; return 0; }
};

const can::CanFdFamily kFake{FakeFd::init, FakeFd::filter, FakeFd::bus_error, FakeFd::send,
                             FakeFd::get, FakeFd::start_get, FakeFd::stop_get, FakeFd::clear,
                             FakeFd::stop};

class CanFdSeam : public CanTest {
 protected:
  void SetUp() override { can::set_canfd_family(&kFake); }
  void TearDown() override { can::set_canfd_family(nullptr); }
};

TEST_F(CanFdSeam, ConfigurationIsTranslated) {
  auto m = plug_and_open(kFdModel);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kFdModel, &c, 500000), 0);  // 40 MHz row 2/59/20/1
  c.Mode = 0x81;
  c.Prescaler = 0x102;  // only the low byte goes on
  ASSERT_EQ(CAN_Init(kFdModel, 1, &c), 0);
  const CANFD_CHANNEL_CONFIG& fd = FakeFd::config;
  EXPECT_EQ(fd.Mode, 1);
  EXPECT_EQ(fd.IsoCrc, 0);
  EXPECT_EQ(fd.AutoRetransmit, 1);
  EXPECT_EQ(fd.Terminator, 1);
  EXPECT_EQ(fd.NBT_Prescaler, 2);
  EXPECT_EQ(fd.NBT_Seg1, 59);
  EXPECT_EQ(fd.NBT_Seg2, 20);
  EXPECT_EQ(fd.NBT_SJW, 2);
  EXPECT_EQ(fd.DBT_Prescaler + fd.DBT_Seg1 + fd.DBT_Seg2 + fd.DBT_SJW, 0);
  EXPECT_EQ(can::state().slot[*can::slot_of(kFdModel)].port[1].baud_rate.load(), 250000u);

  CAN_FILTER_RULE f{};
  f.ID = 0x123;
  f.IDE = 1;
  f.RTR = 3;
  f.MaskID = 0x7FF;
  f.MaskRTR = 1;
  ASSERT_EQ(CAN_Filter_Init(kFdModel, 0, &f), 0);
  EXPECT_EQ(FakeFd::rule.ID, 0xC0000123u);
  EXPECT_EQ(FakeFd::rule.Mask, 0x400007FFu);
  f.FilterMode = 1;
  ASSERT_EQ(CAN_Filter_Init(kFdModel, 0, &f), 0);
  EXPECT_EQ(FakeFd::rule.Mask, 0xFFFFFFFFu);

  CAN_BUS_STATUS s{};
  s.LastErrorCode = 5;
  ASSERT_EQ(CAN_GetStatus(kFdModel, 0, &s), 0);
  EXPECT_EQ(s.TxErrorCounter, 7);
  EXPECT_EQ(s.RxErrorCounter, 9);
  EXPECT_EQ(s.LastErrorCode, 5);  // left as the caller had it
  EXPECT_TRUE(m->commands().empty());  // nothing went to the classic commands
}

TEST_F(CanFdSeam, FramesAreConvertedBothWays) {
  plug_and_open(kFdModel);
  std::vector<CAN_MSG> tx = {can_frame(0x1ABCDEF, {1, 2, 3}, true), can_frame(0x7FF, {})};
  tx[0].FrameFlags = 1;  // remote flag is not carried
  tx[0].TimeStamp = 0xFFFFFFFF;
  ASSERT_EQ(CAN_SendMsg(kFdModel, 1, tx.data(), 2), 1);
  ASSERT_EQ(FakeFd::sent.size(), 2u);
  EXPECT_EQ(FakeFd::sent[0].ID, 0x81ABCDEFu);
  EXPECT_EQ(FakeFd::sent[0].DLC, 3);
  EXPECT_EQ(FakeFd::sent[0].Flags, 0);
  EXPECT_EQ(FakeFd::sent[0].TimeStamp, 0xFFFFFFF6u);  // x10, 40 bits wide
  EXPECT_EQ(FakeFd::sent[0].TimeStampHigh, 9);
  EXPECT_EQ(FakeFd::sent[1].ID, 0x7FFu);
  EXPECT_EQ(tx[0].TimeStamp, 1234u);  // the event came back, divided by 10
  EXPECT_EQ(tx[0].FrameFlags, 0);
  EXPECT_EQ(tx[1].ID, 0x7FFu);  // beyond the result: untouched

  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kFdModel, 0, rx.data()), 1);
  EXPECT_EQ(FakeFd::get_capacity, 2000);
  EXPECT_EQ(rx[0].ID, 0x1234567u);
  EXPECT_EQ(rx[0].ExtFlag, 1);
  EXPECT_EQ(rx[0].DataLen, 8);  // a 64-byte frame is cut to the classic record
  EXPECT_EQ(rx[0].Data[7], 0x77);
  EXPECT_EQ(rx[0].TimeStamp, 429496730u);  // (1 << 32 | 10) / 10
  EXPECT_EQ(rx[0].TimeStampHigh, 0);
  ASSERT_EQ(CAN_GetMsgWithSize(kFdModel, 0, rx.data(), 5), 1);
  EXPECT_EQ(FakeFd::get_capacity, 5);

  EXPECT_EQ(CAN_ClearMsg(kFdModel, 0), -3);  // its result as it comes
  EXPECT_EQ(CAN_Stop(kFdModel, 0), 0);
  EXPECT_EQ(FakeFd::calls_stop_get, 1);
  EXPECT_EQ(FakeFd::calls_stop, 1);
}

}  // namespace
}  // namespace veltrix::test
