// Schedules the adapter runs by itself, the slave's response table and its capture.
#include "tests/lin/lin_fixture.hpp"

namespace veltrix::test {
namespace {

class LinSchedule : public LinTest {};
class LinSlave : public LinTest {};

TEST_F(LinSchedule, SlotsAreRaisedToTheFramesBusTime) {
  open_master();
  LIN_EX_MSG s[3] = {rec(1, 0x10, {1, 2, 3, 4, 5, 6, 7, 8}, 0, 1),  // 137 bit times: 8 ms
                     rec(2, 0x11, {9, 9}, 0, 700000),               // clamped to 600000
                     rec(5, 0x00, {}, 0, 0)};                         // 60 bit times: 4 ms
  ASSERT_EQ(LIN_EX_MasterStartSch(kLinDev, 0, s, 3), 0);
  auto p = sent(0x0F0C);
  ASSERT_EQ(p.size(), 1u);
  ASSERT_EQ(p[0].size(), 61u);
  EXPECT_EQ(sent_record(p[0], 0), wire_record(8, 1, 0, 8, 0x50, {1, 2, 3, 4, 5, 6, 7, 8}, 0xDB));
  EXPECT_EQ(sent_record(p[0], 1), wire_record(600000, 2, 0, 0, 0x11, {9, 9}, 0));
  EXPECT_EQ(sent_record(p[0], 2), wire_record(4, 5, 0, 0, 0x80, {}, 0));
}

TEST_F(LinSchedule, TakesAtMost64RecordsAndReadsThemBack) {
  open_master();
  std::vector<LIN_EX_MSG> s(70, rec(1, 0x05, {0x42}, 1, 20));
  s[1] = rec(2, 0x10, {}, 0, 20);  // answered by the node: enhanced
  s[2] = rec(2, 0x11, {}, 0, 20);  // classic
  s[3] = rec(2, 0x33, {}, 0, 20);  // nobody answers
  ASSERT_EQ(LIN_EX_MasterStartSch(kLinDev, 0, s.data(), 70), 0);
  EXPECT_EQ(sent(0x0F0C)[0].size(), 1u + 64 * 20);
  std::vector<LIN_EX_MSG> back(LIN_EX_MAX_SCH_MSGS);
  ASSERT_EQ(LIN_EX_MasterGetSch(kLinDev, 0, back.data()), 64);
  EXPECT_EQ(sent(0x0F0E), (std::vector<Bytes>{{0}}));
  EXPECT_EQ(back[0].MsgType, 1);
  EXPECT_EQ(back[0].CheckType, 1);  // as loaded
  EXPECT_EQ(back[1].CheckType, 1);
  EXPECT_EQ(back[1].DataLen, 4);
  EXPECT_EQ(back[2].CheckType, 0);
  EXPECT_EQ(back[3].CheckType, 4);

  // A hostile reply of 70 records is cut to what the caller's array holds.
  raw_reply(0x0F0E, Bytes(70 * 20, 0));
  EXPECT_EQ(LIN_EX_MasterGetSch(kLinDev, 0, back.data()), 64);
}

TEST_F(LinSchedule, RunCountAndStopNeedNoInit) {
  m_ = plug_and_open(kLinDev);
  EXPECT_EQ(LIN_EX_MasterSetSchRunTimes(kLinDev, 3, 0x01020304), 0);
  EXPECT_EQ(LIN_EX_MasterStopSch(kLinDev, 3), 0);
  EXPECT_EQ(sent(0x0F10), (std::vector<Bytes>{{3, 1, 2, 3, 4}}));
  EXPECT_EQ(sent(0x0F0D), (std::vector<Bytes>{{3}}));
  EXPECT_EQ(LIN_EX_MasterSetSchRunTimes(kLinDev, 4, 1), LIN_EX_ERR_PARAMETER);

  ASSERT_EQ(LIN_EX_Init(kLinDev, 3, 19200, 1), 0);
  LIN_EX_MSG s = rec(1, 0x05, {1}, 0, 10);
  ASSERT_EQ(LIN_EX_MasterSetSchRunTimes(kLinDev, 3, 3), 0);
  ASSERT_EQ(LIN_EX_MasterStartSch(kLinDev, 3, &s, 1), 0);
  with_bus([](sim::LinBus& b) {
    b.run_schedule(3, 2);
    EXPECT_TRUE(b.ch[3].schedule_running);
    b.run_schedule(3, 5);
    EXPECT_FALSE(b.ch[3].schedule_running);
    EXPECT_EQ(b.ch[3].schedule_runs, 3u);
  });
  ASSERT_EQ(LIN_EX_MasterStartSch(kLinDev, 3, &s, 1), 0);
  ASSERT_EQ(LIN_EX_MasterStopSch(kLinDev, 3), 0);
  with_bus([](sim::LinBus& b) { EXPECT_FALSE(b.ch[3].schedule_running); });
}

TEST_F(LinSlave, TableGetsParityAndChecksumsAndReadsBack) {
  open_slave(1);
  LIN_EX_MSG t[3] = {rec(3 | 0x80, 0x01, {0x4A, 0x55, 0x93, 0xE5}, 0), rec(4, 0x3D, {7}, 1),
                     rec(2, 0x10, {7}, 0)};
  t[2].Check = 0x99;
  ASSERT_EQ(LIN_EX_SlaveSetIDMode(kLinDev, 1, t, 3), 0);
  auto p = sent(0x0F08);
  ASSERT_EQ(p.size(), 1u);
  EXPECT_EQ(p[0][0], 1);
  EXPECT_EQ(sent_record(p[0], 0), wire_record(1, 0x83, 0, 4, 0xC1, {0x4A, 0x55, 0x93, 0xE5, 0xE6}, 0xE6));
  // Enhanced over PID 0x7D and 0x07: 0x84, complement 0x7B.
  EXPECT_EQ(sent_record(p[0], 1), wire_record(1, 4, 1, 1, 0x7D, {7, 0x7B}, 0x7B));
  EXPECT_EQ(sent_record(p[0], 2), wire_record(1, 2, 0, 1, 0x50, {7}, 0x99));

  std::vector<LIN_EX_MSG> back(LIN_EX_MAX_SLAVE_MSGS);
  EXPECT_EQ(LIN_EX_SlaveGetIDMode(kLinDev, 1, back.data()), 3);
  EXPECT_EQ(back[1].PID, 0x7D);
  EXPECT_EQ(back[1].Check, 0x7B);
  EXPECT_EQ(LIN_EX_SlaveGetIDMode(kLinDev, 1, nullptr), 3);
  EXPECT_EQ(LIN_EX_SlaveSetIDMode(kLinDev, 1, t, 0), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_SlaveGetIDMode(kLinDev, 0, nullptr), LIN_EX_ERR_NOT_INIT);
}

TEST_F(LinSlave, CaptureSplitsChecksBreaksAndAnswers) {
  open_slave(0);
  LIN_EX_MSG t = rec(3, 0x20, {0xA1, 0xA2}, 1);
  ASSERT_EQ(LIN_EX_SlaveSetIDMode(kLinDev, 0, &t, 1), 0);
  with_bus([](sim::LinBus& b) {
    b.master_break(0, 20);
    b.master_write(0, 0x01, {0x4A, 0x55, 0x93, 0xE5}, false);  // type 8, classic
    b.master_write(0, 0x02, {1, 2, 3, 4, 5, 6, 7, 8}, true);   // type 9, enhanced
    b.master_header(0, 0x20);                                  // the table answers
    b.master_header(0, 0x21);                                  // nobody answers
  });
  std::vector<LIN_EX_MSG> got(LIN_EX_MAX_CAPTURE_MSGS);
  ASSERT_EQ(LIN_EX_SlaveGetData(kLinDev, 0, got.data()), 4);
  EXPECT_EQ(got[0].MsgType, 5);
  EXPECT_EQ(got[0].PID, 0xFF);
  EXPECT_EQ(got[0].CheckType, 3);
  EXPECT_EQ(got[0].BreakBits, 20);
  EXPECT_EQ(got[1].MsgType, 8);
  EXPECT_EQ(got[1].DataLen, 4);
  EXPECT_EQ(got[1].Check, 0xE6);
  EXPECT_EQ(got[1].CheckType, 0);
  EXPECT_EQ(got[2].CheckType, 1);
  EXPECT_EQ(got[3].Data[0], 0xA1);
  EXPECT_EQ(got[3].CheckType, 1);
  EXPECT_EQ(LIN_EX_SlaveGetData(kLinDev, 0, got.data()), 0);  // the capture was emptied

  // A capture longer than the array the caller was told to provide is cut.
  raw_reply(0x0F09, Bytes((LIN_EX_MAX_CAPTURE_MSGS + 5) * 20, 0));
  EXPECT_EQ(LIN_EX_SlaveGetData(kLinDev, 0, got.data()), LIN_EX_MAX_CAPTURE_MSGS);
}

}  // namespace
}  // namespace veltrix::test
