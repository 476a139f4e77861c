// Channel set-up, the master exchange and single-frame operations, power and battery.
#include "tests/lin/lin_fixture.hpp"

namespace veltrix::test {
namespace {

class LinMaster : public LinTest {};

TEST_F(LinMaster, InitSendsRateAndModeAndReplacesRatesBelow100) {
  m_ = plug_and_open(kLinDev);
  EXPECT_EQ(LIN_EX_Init(kLinDev, 1, 19200, 1), 0);
  EXPECT_EQ(LIN_EX_Init(kLinDev, 2, 0, 0), 0);
  EXPECT_EQ(LIN_EX_Init(kLinDev, 3, 99, 7), 0);
  auto p = sent(0x0F06);
  ASSERT_EQ(p.size(), 3u);
  EXPECT_THAT(p[0], BytesEq({1, 0x00, 0x00, 0x4B, 0x00, 1}));
  EXPECT_THAT(p[1], BytesEq({2, 0x00, 0x00, 0x25, 0x80, 0}));
  EXPECT_THAT(p[2], BytesEq({3, 0x00, 0x00, 0x25, 0x80, 7}));
  with_bus([](sim::LinBus& b) { EXPECT_EQ(b.ch[3].baud, 9600u); });
}

TEST_F(LinMaster, RefusesBadHandleChannelUninitialisedAndRate100) {
  m_ = plug_and_open(kLinDev);
  LIN_EX_MSG in = rec(1, 0x10, {1}), out;
  EXPECT_EQ(LIN_EX_Init(0x12345678, 0, 19200, 1), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_Init(kLinDev, 4, 19200, 1), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, &in, &out, 1), LIN_EX_ERR_NOT_INIT);
  EXPECT_EQ(LIN_EX_MasterStartSch(kLinDev, 0, &in, 1), LIN_EX_ERR_NOT_INIT);
  EXPECT_EQ(LIN_EX_Init(kLinDev, 0, 100, 1), 0);
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, &in, &out, 1), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_MasterWrite(kLinDev, 0, 0x10, in.Data, 1, 0), LIN_EX_ERR_PARAMETER);
  ASSERT_EQ(LIN_EX_Init(kLinDev, 0, 101, 1), 0);
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, nullptr, &out, 1), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, &in, nullptr, 1), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, &in, &out, 0), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(sent(0x0F07).size(), 0u);
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, &in, &out, 1), 1);
}

TEST_F(LinMaster, InitFailsOnReplyWithPayloadAndKeepsChannelUninitialised) {
  m_ = plug_and_open(kLinDev);
  raw_reply(0x0F06, {0x01});
  EXPECT_EQ(LIN_EX_Init(kLinDev, 0, 19200, 1), LIN_EX_ERR_REPLY);
  EXPECT_EQ(LIN_EX_MasterBreak(kLinDev, 0), LIN_EX_ERR_NOT_INIT);
}

TEST_F(LinMaster, SyncPreparesRecordsOnTheWire) {
  open_master();
  LIN_EX_MSG in[5] = {rec(1, 0x3C, {0x4A, 0x55, 0x93, 0xE5}, 0, 70000),  // classic
                      rec(1, 0x01, {0x4A, 0x55, 0x93, 0xE5}, 1, 5),      // enhanced
                      rec(3, 0x3D, {}, 0, 50000),                         // no data
                      rec(1, 0x10, {0xAA}, 2, 0),                         // caller's
                      rec(2, 0x11, {}, 3, 0)};
  in[1].BreakBits = 9;
  in[2].BreakBits = 26;
  in[3].Check = 0x77;
  in[3].BreakBits = 27;
  in[4].BreakBits = 10;
  in[4].DataLen = 12;
  LIN_EX_MSG out[5];
  ASSERT_EQ(LIN_EX_MasterSync(kLinDev, 0, in, out, 5), 5);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 1u);
  ASSERT_EQ(p[0].size(), 101u);
  EXPECT_EQ(p[0][0], 0);
  // 0x4A + 0x55 + 0x93 + 0xE5 with end-around carry is 0x19: classic checksum 0xE6.
  EXPECT_EQ(sent_record(p[0], 0), wire_record(50000, 1, 0, 4, 0x3C, {0x4A, 0x55, 0x93, 0xE5, 0xE6}, 0xE6));
  // Enhanced starts from PID 0xC1: 0xC1 + 0x19 = 0xDA, complement 0x25.
  EXPECT_EQ(sent_record(p[0], 1), wire_record(5, 1, 1, 4, 0xC1, {0x4A, 0x55, 0x93, 0xE5, 0x25}, 0x25));
  EXPECT_EQ(sent_record(p[0], 2), wire_record(50000, 3, 0, 0, 0x7D, {0xFF}, 0xFF, 26));
  EXPECT_EQ(sent_record(p[0], 3), wire_record(0, 1, 2, 1, 0x50, {0xAA, 0x77}, 0x77));
  EXPECT_EQ(sent_record(p[0], 4), wire_record(0, 2, 3, 8, 0x11, {}, 0, 10));
  // The caller's records are untouched.
  EXPECT_EQ(in[0].Timestamp, 70000u);
  EXPECT_EQ(in[0].Sync, 0);
}

TEST_F(LinMaster, ReadsNodesAndJudgesTheirChecksums) {
  open_master();
  with_bus([](sim::LinBus& b) {
    b.ch[0].nodes[0x20] = sim::LinSlaveNode{{0x01, 0x02}, 0, false, false, true};  // type 8
    b.ch[0].nodes[0x21] = sim::LinSlaveNode{{0x05}, 1, true};                      // corrupt
    b.ch[0].nodes[0x22] = sim::LinSlaveNode{{0x05}, 1, false, true};               // silent
  });
  uint8_t d[8] = {};
  EXPECT_EQ(LIN_EX_MasterRead(kLinDev, 0, 0x10, d), 4);
  EXPECT_THAT(Bytes(d, d + 4), BytesEq({0x11, 0x22, 0x33, 0x44}));
  EXPECT_EQ(LIN_EX_MasterRead(kLinDev, 0, 0x11, d), 8);
  EXPECT_EQ(LIN_EX_MasterRead(kLinDev, 0, 0x21, d), 0);
  EXPECT_EQ(LIN_EX_MasterRead(kLinDev, 0, 0x22, d), 0);

  LIN_EX_MSG in[4] = {rec(2, 0x20), rec(2, 0x10), rec(2, 0x21), rec(2, 0x10, {}, 3)};
  LIN_EX_MSG out[4];
  ASSERT_EQ(LIN_EX_MasterSync(kLinDev, 0, in, out, 4), 4);
  EXPECT_EQ(out[0].MsgType, 8);
  EXPECT_EQ(out[0].DataLen, 2);
  EXPECT_EQ(out[0].Check, 0xFC);  // classic over 01 02
  EXPECT_EQ(out[0].CheckType, 0);
  EXPECT_EQ(out[1].CheckType, 1);
  EXPECT_EQ(out[1].PID, 0x50);
  EXPECT_EQ(out[2].CheckType, 4);
  EXPECT_EQ(out[3].CheckType, 3);
}

TEST_F(LinMaster, TypeEightRepliesSplitTheTrailingByte) {
  open_master();
  auto reply = [](uint8_t type, uint8_t len, std::initializer_list<uint8_t> data, uint8_t check) {
    return wire_record(7, type, 0, len, 0x50, data, check);
  };
  LIN_EX_MSG in[3] = {rec(2, 0x10), rec(2, 0x10, {}, 2), rec(2, 0x10)};
  LIN_EX_MSG out[3];
  Bytes r = reply(8, 1, {0xFF}, 0);
  Bytes r2 = reply(8, 2, {0x12, 0x34}, 0);
  Bytes r3 = reply(8, 1, {0xFE}, 0);
  r.insert(r.end(), r2.begin(), r2.end());
  r.insert(r.end(), r3.begin(), r3.end());
  raw_reply(0x0F07, r);
  ASSERT_EQ(LIN_EX_MasterSync(kLinDev, 0, in, out, 3), 3);
  EXPECT_EQ(out[0].DataLen, 0);
  EXPECT_EQ(out[0].Check, 0xFF);
  EXPECT_EQ(out[0].CheckType, 0);
  EXPECT_EQ(out[0].Timestamp, 7u);
  EXPECT_EQ(out[1].DataLen, 1);
  EXPECT_EQ(out[1].Check, 0x34);
  EXPECT_EQ(out[1].CheckType, 2);
  EXPECT_EQ(out[2].CheckType, 4);
}

TEST_F(LinMaster, HostileRepliesAreBounded) {
  open_master();
  LIN_EX_MSG in[2] = {rec(2, 0x10), rec(2, 0x10)};
  LIN_EX_MSG out[3];
  out[2].PID = 0xAB;
  // Three records for two requests and a claimed length of 200: two come back, clamped.
  Bytes r = wire_record(0, 9, 0, 200, 0x50, {1, 2, 3, 4, 5, 6, 7, 8}, 0);
  Bytes more = r;
  r.insert(r.end(), more.begin(), more.end());
  r.insert(r.end(), more.begin(), more.end());
  raw_reply(0x0F07, r);
  ASSERT_EQ(LIN_EX_MasterSync(kLinDev, 0, in, out, 2), 2);
  EXPECT_EQ(out[0].DataLen, 8);
  EXPECT_EQ(out[2].PID, 0xAB);
  // Half a record counts as none; a single frame without result answers -4.
  raw_reply(0x0F07, Bytes(10, 0));
  EXPECT_EQ(LIN_EX_MasterSync(kLinDev, 0, in, out, 2), 0);
  raw_reply(0x0F07, {});
  EXPECT_EQ(LIN_EX_MasterBreak(kLinDev, 0), LIN_EX_ERR_REPLY);
}

TEST_F(LinMaster, SingleFrameOperationsBuildOneRecord) {
  open_master(2);
  const uint8_t data[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  EXPECT_EQ(LIN_EX_MasterBreak(kLinDev, 2), 0);
  EXPECT_EQ(LIN_EX_MasterWrite(kLinDev, 2, 0x3C, nullptr, 0, 1), 0);
  EXPECT_EQ(LIN_EX_MasterWrite(kLinDev, 2, 0x3C, data, 12, 0), 0);
  EXPECT_EQ(LIN_EX_MasterWrite(kLinDev, 2, 0x3C, nullptr, 1, 0), LIN_EX_ERR_PARAMETER);
  uint8_t d[8];
  EXPECT_EQ(LIN_EX_MasterRead(kLinDev, 2, 0x3F, d), 0);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 4u);
  EXPECT_EQ(p[0][0], 2);
  EXPECT_EQ(sent_record(p[0], 0), wire_record(10, 5, 0, 0, 0x80, {}, 0));
  EXPECT_EQ(sent_record(p[1], 0), wire_record(1, 1, 3, 0, 0x3C, {}, 0));
  EXPECT_EQ(sent_record(p[2], 0), wire_record(1, 1, 0, 8, 0x3C, {1, 2, 3, 4, 5, 6, 7, 8}, 0xDB));
  EXPECT_EQ(sent_record(p[3], 0), wire_record(1, 2, 0, 0, 0xBF, {}, 0));
}

TEST_F(LinMaster, PowerOutputAndBatteryVoltage) {
  m_ = plug_and_open(kLinDev);
  EXPECT_EQ(LIN_EX_CtrlPowerOut(kLinDev, 1, 2), 0);
  EXPECT_EQ(sent(0x0F0A), (std::vector<Bytes>{{2, 1}}));
  with_bus([](sim::LinBus& b) {
    EXPECT_EQ(b.ch[1].power, 2);
    b.vbat = 0x1234;
  });
  unsigned short v = 0;
  EXPECT_EQ(LIN_EX_GetVbatValue(kLinDev, &v), 0);
  EXPECT_EQ(v, 0x1234);
  EXPECT_EQ(sent(0x0F0B), (std::vector<Bytes>{{}}));
  raw_reply(0x0F0B, {0x00, 0x01, 0x02});
  v = 7;
  EXPECT_EQ(LIN_EX_GetVbatValue(kLinDev, &v), LIN_EX_ERR_REPLY);
  EXPECT_EQ(v, 7);
  EXPECT_EQ(LIN_EX_GetVbatValue(kLinDev, nullptr), LIN_EX_ERR_PARAMETER);
}

TEST_F(LinMaster, UnpluggedAdapterFailsCleanly) {
  open_master();
  bed().unplug(kLinDev);
  uint8_t d[8];
  const int r = LIN_EX_MasterRead(kLinDev, 0, 0x10, d);
  EXPECT_TRUE(r == LIN_EX_ERR_SEND || r == LIN_EX_ERR_REPLY) << r;
}

}  // namespace
}  // namespace veltrix::test
