// The older interface on both firmware generations.
#include "tests/lin/lin_fixture.hpp"

namespace veltrix::test {
namespace {

class LinLegacy : public LinTest {};

LIN_MSG old_frame(uint8_t id, std::initializer_list<uint8_t> data) {
  LIN_MSG m{};
  m.ID = id;
  for (uint8_t b : data) m.Data[m.DataLen++] = b;
  return m;
}

TEST_F(LinLegacy, OlderFirmwareGetsItsOwnCommands) {
  m_ = plug_and_open(kLinDev);
  set_firmware(0x0105001D);
  LIN_MSG w[2] = {old_frame(0x10, {1, 2}), old_frame(0x3C, {})};
  EXPECT_EQ(LIN_Write(kLinDev, 0, w, 2), LIN_EX_ERR_NOT_INIT);  // no rate stored yet
  LIN_CONFIG cfg{19200, 0xA5, 1};
  ASSERT_EQ(LIN_Init(kLinDev, 1, &cfg), 0);
  EXPECT_EQ(sent(0x0F00), (std::vector<Bytes>{{1, 0, 0, 0x4B, 0, 0xA5, 1, 0}}));
  EXPECT_EQ(LIN_SendBreak(kLinDev, 1), 0);
  EXPECT_EQ(sent(0x0F05), (std::vector<Bytes>{{1}}));
  EXPECT_EQ(LIN_Write(kLinDev, 1, w, 2), 0);
  EXPECT_EQ(sent(0x0F01), (std::vector<Bytes>{{1, 0x10, 2, 1, 2, 0, 0, 0, 0, 0, 0, 0,
                                               0x3C, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}));
  LIN_MSG r[2] = {old_frame(0x11, {}), old_frame(0x10, {})};
  EXPECT_EQ(LIN_Read(kLinDev, 1, r, 2), 0);
  EXPECT_EQ(sent(0x0F02), (std::vector<Bytes>{{1, 0x11, 0x10}}));
  EXPECT_EQ(r[0].DataLen, 9);
  EXPECT_EQ(r[1].DataLen, 5);
  EXPECT_EQ(r[1].Data[3], 0x44);
  EXPECT_EQ(LIN_SlaveSetIDMode(kLinDev, 1, 1, w, 1), 0);
  EXPECT_EQ(sent(0x0F03), (std::vector<Bytes>{{1, 1, 0x10, 2, 1, 2, 0, 0, 0, 0, 0, 0, 0}}));
  with_bus([](sim::LinBus& b) { b.master_write(1, 0x05, {1, 2, 3, 4, 5, 6, 7, 8}, false); });
  LIN_MSG cap[LIN_EX_MAX_CAPTURE_MSGS];
  EXPECT_EQ(LIN_SlaveGetData(kLinDev, 1, cap), 1);
  EXPECT_EQ(cap[0].ID, 0x85);  // the identifier as it went on the bus
  EXPECT_EQ(cap[0].DataLen, 9);
  EXPECT_EQ(cap[0].Check, 0xDB);
  EXPECT_EQ(sent(0x0F06).size() + sent(0x0F07).size(), 0u);
  EXPECT_EQ(LIN_SendBreak(kLinDev, 2), LIN_EX_ERR_PARAMETER);
}

TEST_F(LinLegacy, NewerFirmwareIsTranslatedOntoTheChannelFunctions) {
  m_ = plug_and_open(kLinDev);
  set_firmware(0x0105001E);
  LIN_CONFIG cfg{19200, 0xA5, 1};
  ASSERT_EQ(LIN_Init(kLinDev, 3, &cfg), 0);
  EXPECT_EQ(sent(0x0F06), (std::vector<Bytes>{{3, 0, 0, 0x4B, 0, 1}}));
  EXPECT_EQ(sent(0x0F00).size(), 0u);

  LIN_MSG w[2] = {old_frame(0x3B, {1}), old_frame(0x3C, {1})};
  EXPECT_EQ(LIN_Write(kLinDev, 3, w, 2), 0);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 1u);
  EXPECT_EQ(sent_record(p[0], 0), wire_record(1, 1, 1, 1, 0xFB, {1, 0x03}, 0x03));
  EXPECT_EQ(sent_record(p[0], 1), wire_record(1, 1, 0, 1, 0x3C, {1, 0xFE}, 0xFE));

  LIN_MSG r[3] = {old_frame(0x3C, {}), old_frame(0x3D, {}), old_frame(0x10, {})};
  EXPECT_EQ(LIN_Read(kLinDev, 3, r, 3), 0);
  p = sent(0x0F07);
  ASSERT_EQ(p.size(), 2u);
  EXPECT_EQ(p[1][1 + 5], 1);        // 0x3C still read with the enhanced checksum
  EXPECT_EQ(p[1][21 + 5], 0);       // 0x3D classic
  EXPECT_EQ(r[1].DataLen, 0);       // nobody answered
  EXPECT_EQ(r[2].DataLen, 5);
  EXPECT_EQ(r[2].Check, 0x05);  // enhanced over PID 0x50 and 11 22 33 44

  EXPECT_EQ(LIN_SendBreak(kLinDev, 3), 0);
  EXPECT_EQ(sent_record(sent(0x0F07)[2], 0)[4], 5);
  EXPECT_EQ(LIN_SlaveSetIDMode(kLinDev, 3, 0, w, 1), 0);
  EXPECT_EQ(sent_record(sent(0x0F08)[0], 0), wire_record(1, 3, 0, 1, 0xFB, {1, 0xFE}, 0xFE));
}

TEST_F(LinLegacy, InitNeedsTheIdentity) {
  m_ = plug_and_open(kLinDev);
  LIN_CONFIG cfg{19200, 0, 1};
  raw_reply(0x100, {});
  EXPECT_EQ(LIN_Init(kLinDev, 0, &cfg), LIN_EX_ERR_REPLY);
  EXPECT_EQ(LIN_Init(kLinDev, 0, nullptr), LIN_EX_ERR_PARAMETER);
}

}  // namespace
}  // namespace veltrix::test
