// A classic CAN program on a CAN FD adapter: its calls become the CAN FD commands, and
// classic and CAN FD ports share the virtual cable.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "sim/can_bus.hpp"
#include "sim/canfd_bus.hpp"
#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

class CanOnFdAdapter : public CanTest {};

TEST_F(CanOnFdAdapter, ClassicProgramSendsCanFdCommands) {
  auto m = plug_and_open(kFdModel);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kFdModel, &c, 500000), 0);
  ASSERT_EQ(CAN_Init(kFdModel, 0, &c), 0);
  ASSERT_EQ(CAN_Init(kFdModel, 1, &c), 0);
  // Mode 0x80 becomes the terminator byte; the data phase stays 0.
  EXPECT_EQ(payloads(*m, 0x4000).back(),
            (Bytes{1, 0, 0, 1, 1, 1, 59, 20, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(payloads(*m, 0x0C00).empty());

  CAN_FILTER_RULE f{};
  f.Enable = 1;
  f.FilterIndex = 2;
  f.ID = 0x123;
  f.MaskID = 0x7F0;
  ASSERT_EQ(CAN_Filter_Init(kFdModel, 1, &f), 0);
  EXPECT_EQ(payloads(*m, 0x4001).back(),
            (Bytes{1, 1, 2, 0, 0, 0x23, 0x01, 0, 0, 0xF0, 0x07, 0, 0}));

  ASSERT_EQ(CAN_StartGetMsg(kFdModel, 1), 0);
  std::vector<CAN_MSG> tx = {can_frame(0x125, {1, 2, 3}), can_frame(0x1ABCDEF, {9}, true),
                             can_frame(0x200, {7})};
  tx[0].TimeStamp = 0x12345;
  ASSERT_EQ(CAN_SendMsg(kFdModel, 0, tx.data(), 3), 3);
  auto sent = payloads(*m, 0x4002);
  ASSERT_EQ(sent.size(), 1u);
  // Classic frames: no FD format, no bit rate switch, their own lengths, no time.
  EXPECT_EQ(Bytes(sent[0].begin() + 12, sent[0].begin() + 27),
            (Bytes{0x25, 0x01, 0, 0, 0x03, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(sent[0][27 + 4], 0x11);  // extended, one byte
  // The caller's records now hold the transmit events, in classic time units.
  EXPECT_EQ(tx[1].ID, 0x1ABCDEFu);
  EXPECT_EQ(tx[1].ExtFlag, 1);

  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  int got = 0;
  for (int i = 0; i < 300 && got < 1; ++i) {
    got += CAN_GetMsg(kFdModel, 1, rx.data() + got);
    if (got < 1) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(got, 1);  // the filter keeps 0x120-0x12F standard frames only
  EXPECT_EQ(rx[0].ID, 0x125u);
  EXPECT_EQ(rx[0].DataLen, 3);
  EXPECT_EQ(rx[0].Data[2], 3);

  CAN_BUS_STATUS s{};
  ASSERT_EQ(CAN_GetStatus(kFdModel, 0, &s), 0);
  EXPECT_EQ(payloads(*m, 0x4005).back(), Bytes{0});
  ASSERT_EQ(CAN_Stop(kFdModel, 1), 0);
  EXPECT_EQ(payloads(*m, 0x400C).back(), Bytes{1});
  EXPECT_TRUE(payloads(*m, 0x0C02).empty());
  EXPECT_TRUE(payloads(*m, 0x0C09).empty());
}

TEST_F(CanOnFdAdapter, SynchronousSendAndDirectReadGoThroughTheFdFamily) {
  auto m = open_both(0x54000003);
  std::vector<CAN_MSG> tx = {can_frame(0x10, {1}), can_frame(0x11, {2})};
  ASSERT_EQ(CAN_SendMsgSynch(0x54000003, 1, tx.data(), 2), 2);
  EXPECT_EQ(payloads(*m, 0x4002).size(), 1u);
  std::vector<CAN_MSG> rx(CAN_READ_MSG_MAX);
  ASSERT_EQ(CAN_ReadMsg(0x54000003, 0, rx.data()), 2);
  EXPECT_EQ(rx[1].ID, 0x11u);
  EXPECT_EQ(payloads(*m, 0x4003).size(), 1u);
  EXPECT_TRUE(payloads(*m, 0x0C03).empty());
}

// A 0x50 adapter has classic and CAN FD controllers; its classic calls stay classic.
TEST_F(CanOnFdAdapter, ClassicAndFdPortsShareTheCableAtOneNominalRate) {
  constexpr uint32_t kMixed = 0x50000004;
  auto m = plug_and_open(kMixed);
  CAN_CHANNEL_CONFIG c{};
  ASSERT_EQ(CAN_GetCANSpeedArg(kMixed, &c, 500000), 0);
  ASSERT_EQ(CAN_Init(kMixed, 0, &c), 0);
  EXPECT_EQ(payloads(*m, 0x0C00).size(), 1u);
  CANFD_CHANNEL_CONFIG fd{};
  ASSERT_EQ(CANFD_GetCANSpeedArg(kMixed, &fd, 500000, 2000000), 0);
  fd.AutoRetransmit = 0;
  ASSERT_EQ(CANFD_Init(kMixed, 1, &fd), 0);

  CAN_MSG classic = can_frame(0x321, {0xAA, 0xBB});
  ASSERT_EQ(CAN_SendMsg(kMixed, 0, &classic, 1), 1);
  std::vector<CANFD_MSG> rx(CANFD_READ_MSG_MAX);
  ASSERT_EQ(CANFD_ReadMsg(kMixed, 1, rx.data()), 1);
  EXPECT_EQ(rx[0].ID, 0x321u);
  EXPECT_EQ(rx[0].DLC, 2);
  EXPECT_EQ(rx[0].Flags, CANFD_MSG_FLAG_PORT);

  // A classic-format frame crosses; an FD-format one is a form error at the classic port.
  std::vector<CANFD_MSG> out = {fd_frame(0x42, 8, 0), fd_frame(0x43, 8, CANFD_MSG_FLAG_FDF)};
  EXPECT_EQ(CANFD_SendMsg(kMixed, 1, out.data(), 2), 1);
  std::vector<CAN_MSG> crx(CAN_READ_MSG_MAX);
  ASSERT_EQ(CAN_ReadMsg(kMixed, 0, crx.data()), 1);
  EXPECT_EQ(crx[0].ID, 0x42u);
  CAN_BUS_STATUS s{};
  ASSERT_EQ(CAN_GetStatus(kMixed, 0, &s), 0);
  EXPECT_EQ(s.RxErrorCounter, 1);
  EXPECT_EQ(s.LastErrorCode, 2);
  CANFD_BUS_ERROR e{};
  ASSERT_EQ(CANFD_GetBusError(kMixed, 1, &e), 0);
  EXPECT_EQ(e.TxErrorCounter, 8);

  // Another nominal rate: nobody acknowledges.
  ASSERT_EQ(CAN_GetCANSpeedArg(kMixed, &c, 250000), 0);
  ASSERT_EQ(CAN_Init(kMixed, 0, &c), 0);
  EXPECT_EQ(CANFD_SendMsg(kMixed, 1, out.data(), 1), 0);
}

}  // namespace
}  // namespace veltrix::test
