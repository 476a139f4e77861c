// The pure VCI translations: timing pair to rate and row, mode bytes, code/mask to rule,
// and the frame records in both directions.
#include "protocols/vci/translate.hpp"

#include <gtest/gtest.h>

#include <cstring>

#include "can/timing_tables.hpp"

namespace veltrix::vci {
namespace {

struct TimingCase {
  uint8_t t0, t1;
  uint32_t handle;
  uint32_t rate;  // bit/s the pair stands for
  uint8_t sjw, seg1, seg2;
  uint16_t prescaler;
};

TEST(VciTiming, PairSelectsRateAndModelRow) {
  const TimingCase cases[] = {
      {0x00, 0x1C, 0x31000001, 500000, 2, 14, 5, 10},  // 100 MHz controller
      {0x00, 0x1C, 0x41000001, 500000, 2, 15, 5, 4},   // 42 MHz copy
      {0x00, 0x1C, 0x45000009, 500000, 2, 15, 5, 4},   // last code of the 42 MHz range
      {0x00, 0x1C, 0x53000002, 500000, 2, 59, 20, 1},  // CAN FD model, nominal table
      {0x03, 0x1C, 0x31000001, 125000, 2, 14, 5, 40},
      {0x03, 0x1C, 0x41000001, 125000, 2, 11, 4, 21},
      {0x80, 0xB6, 0x31000001, 666000, 2, 7, 2, 15},  // 666 kbit/s row by whole kbit/s
  };
  for (const TimingCase& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << std::hex << int(c.t0) << "/" << int(c.t1) << " on " << c.handle);
    const uint32_t rate = can::btr_rate(c.t0, c.t1);
    EXPECT_EQ(rate, c.rate);
    const CAN_TIMING_ENTRY* row = timing_row(c.handle, rate);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->SJW, c.sjw);
    EXPECT_EQ(row->Seg1, c.seg1);
    EXPECT_EQ(row->Seg2, c.seg2);
    EXPECT_EQ(row->Prescaler, c.prescaler);
  }
}

TEST(VciTiming, UnknownPairOrRateHasNoRow) {
  EXPECT_EQ(can::btr_rate(0x00, 0x1D), 0u);
  EXPECT_EQ(can::btr_rate(0x1C, 0x00), 0u);  // bytes swapped
  EXPECT_EQ(timing_row(0x31000001, 0), nullptr);
  EXPECT_EQ(timing_row(0x31000001, 7000), nullptr);
}

TEST(VciMode, ClassicAndFdModeBytes) {
  const CAN_TIMING_ENTRY row{2, 14, 5, 10, 500000};
  struct {
    uint8_t vci, classic, fd;
  } cases[] = {
      {0x00, 0x80, 0}, {0x80, 0x80, 0}, {0x01, 0x02, 3}, {0x81, 0x82, 3},
      {0x02, 0x03, 2}, {0x82, 0x83, 2}, {0x05, 0x00, 0}, {0x85, 0x80, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(int(c.vci));
    CAN_CHANNEL_CONFIG cc = classic_config(row, c.vci);
    EXPECT_EQ(cc.Mode, c.classic);
    EXPECT_EQ(cc.AutoBusOffRecovery, 1);
    EXPECT_EQ(cc.NoAutoRetransmit, 0);
    EXPECT_EQ(cc.RxFifoLocked, 1);
    EXPECT_EQ(cc.TxFifoOrder, 1);
    EXPECT_EQ(cc.Prescaler, 10u);
    CANFD_CHANNEL_CONFIG fc = fd_config(row, c.vci);
    EXPECT_EQ(fc.Mode, c.fd);
    EXPECT_EQ(fc.IsoCrc, 0);
    EXPECT_EQ(fc.AutoRetransmit, 1);
    EXPECT_EQ(fc.Terminator, 1);
    EXPECT_EQ(fc.DBT_Prescaler, fc.NBT_Prescaler);
    EXPECT_EQ(fc.DBT_Seg1, 14);
    EXPECT_EQ(fc.NBT_Seg2, 5);
  }
}

struct RuleCase {
  const char* name;
  uint8_t filter;
  uint32_t code, mask;
  uint8_t ext;
  uint32_t id, ide, rtr, mask_id, mask_ide, mask_rtr;
};

TEST(VciFilter, CodeAndMaskBecomeOneRule) {
  const RuleCase cases[] = {
      {"filter off", 0, 0x24600000, 0x001FFFFF, 0, 0, 0, 0, 0, 0, 0},
      {"accept all", 1, 0, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0},
      {"standard 0x123 data+remote", 1, 0x24600000, 0x001FFFFF, 0, 0x123, 0, 0, 0x7FF, 1, 0},
      {"standard remote only", 1, 0x24700000, 0x000FFFFF, 0, 0x123, 0, 1, 0x7FF, 1, 1},
      {"standard low nibble free", 1, 0x24000000, 0x01FFFFFF, 0, 0x120, 0, 0, 0x7F0, 1, 0},
      {"extended exact data", 1, 0x12345678u << 3, 3, 1, 0x12345678, 1, 0, 0x1FFFFFFF, 1, 1},
      {"extended any RTR", 1, 0x00000AB8, 0x00000007, 1, 0x157, 1, 0, 0x1FFFFFFF, 1, 0},
      {"extended bad mask bits", 1, 0x00000AB8, 0x00000001, 0, 0, 0, 0, 0, 0, 0},
      {"extended bad code bits", 1, 0x00000AB9, 0x00000003, 0, 0, 0, 0, 0, 0, 0},
  };
  for (const RuleCase& c : cases) {
    SCOPED_TRACE(c.name);
    VCI_INIT_CONFIG cfg{};
    cfg.AccCode = c.code;
    cfg.AccMask = c.mask;
    cfg.Filter = c.filter;
    CAN_FILTER_RULE r = filter_rule(cfg);
    EXPECT_EQ(r.Enable, 1);
    EXPECT_EQ(r.FilterIndex, 0);
    EXPECT_EQ(r.FilterMode, 0);
    EXPECT_EQ(r.ExtFrame, c.ext);
    EXPECT_EQ(r.ID, c.id);
    EXPECT_EQ(r.IDE, c.ide);
    EXPECT_EQ(r.RTR, c.rtr);
    EXPECT_EQ(r.MaskID, c.mask_id);
    EXPECT_EQ(r.MaskIDE, c.mask_ide);
    EXPECT_EQ(r.MaskRTR, c.mask_rtr);
  }
}

TEST(VciFrames, ReceivedFrameAndSentRecord) {
  CAN_MSG m{};
  m.ID = 0xE0000123;  // stray high bits are not part of the identifier
  m.TimeStamp = 0x01020304;
  m.FrameFlags = 0x21;  // remote, port 1
  m.ExtFlag = 0x03;
  m.DataLen = 12;  // hostile: more than the record holds
  for (int i = 0; i < 8; ++i) m.Data[i] = uint8_t(0xA0 + i);
  VCI_CAN_OBJ o = to_obj(m);
  EXPECT_EQ(o.ID, 0x123u);
  EXPECT_EQ(o.TimeStamp, 0x01020304u);
  EXPECT_EQ(o.TimeFlag, 1);
  EXPECT_EQ(o.SendType, 0);
  EXPECT_EQ(o.RemoteFlag, 1);
  EXPECT_EQ(o.ExternFlag, 1);
  EXPECT_EQ(o.DataLen, 8);
  EXPECT_EQ(o.Data[7], 0xA7);

  m.DataLen = 2;
  o = to_obj(m);
  const uint8_t tail[6] = {};
  EXPECT_EQ(std::memcmp(o.Data + 2, tail, 6), 0);  // bytes past DataLen are 0

  VCI_CAN_OBJ s{};
  s.ID = 0x18DAF110;
  s.TimeStamp = 99;
  s.SendType = 2;
  s.RemoteFlag = 0;
  s.ExternFlag = 1;
  s.DataLen = 200;
  for (int i = 0; i < 8; ++i) s.Data[i] = uint8_t(i + 1);
  CAN_MSG c = to_can(s);
  EXPECT_EQ(c.ID, 0x18DAF110u);
  EXPECT_EQ(c.TimeStamp, 0u);
  EXPECT_EQ(c.FrameFlags, 0);
  EXPECT_EQ(c.ExtFlag, 1);
  EXPECT_EQ(c.DataLen, 8);
  EXPECT_EQ(c.Data[7], 8);
}

}  // namespace
}  // namespace veltrix::vci
