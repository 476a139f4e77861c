// Channel set-up, the request layouts of the master transfers and their reply rules.
#include "tests/peripherals/i2c/i2c_fixture.hpp"

namespace veltrix::test {
namespace {

class I2cMaster : public I2cTest {};

TEST_F(I2cMaster, InitSendsTheRecordAndNormalisesTheAddressWidth) {
  IIC_CONFIG c{400000, 0x1234, 1, 10, {0x01, 0xA5}, {7, 8}};
  ASSERT_EQ(IIC_Init(kI2cDev, 2, &c), 0);
  c.AddrBits = 8;
  c.Master = 0;
  ASSERT_EQ(IIC_Init(kI2cDev, 11, &c), 0);
  auto p = sent(0x700);
  ASSERT_EQ(p.size(), 2u);
  EXPECT_EQ(p[0], (Bytes{2, 10, 1, 0x12, 0x34, 0x00, 0x06, 0x1A, 0x80, 0x01, 0xA5}));
  EXPECT_EQ(p[1], (Bytes{11, 7, 0, 0x12, 0x34, 0x00, 0x06, 0x1A, 0x80, 0x01, 0xA5}));
}

TEST_F(I2cMaster, InitRejectsAnAcknowledgementWithDataAndKeepsTheOldRecord) {
  IIC_CONFIG c{100000, 0, 1, 7, {0, 0}, {0, 0}};
  ASSERT_EQ(IIC_Init(kI2cDev, 0, &c), 0);
  c.AddrBits = 10;
  raw_reply(0x700, {0x00});
  EXPECT_EQ(IIC_Init(kI2cDev, 0, &c), IIC_ERR_REPLY);
  // Still the 7-bit record: the scan probes 128 addresses.
  short found[IIC_SCAN_MAX];
  m_->clear_record();
  EXPECT_EQ(IIC_GetSlaveAddr(kI2cDev, 0, found), 2);
  EXPECT_EQ(sent(0x701).size(), 128u);
}

struct BadCall {
  const char* name;
  int (*call)();
  int code;
};

unsigned char g_buf[8];
short g_addrs[IIC_SCAN_MAX];

TEST_F(I2cMaster, RefusesBadArgumentsBeforeSendingAnything) {
  const BadCall cases[] = {
      {"channel 12", [] { return IIC_WriteBytes(kI2cDev, 12, 0x50, g_buf, 1, 10); }, -5},
      {"null write data", [] { return IIC_WriteBytes(kI2cDev, 0, 0x50, nullptr, 1, 10); }, -5},
      {"negative length", [] { return IIC_ReadBytes(kI2cDev, 0, 0x50, g_buf, -1, 10); }, -5},
      {"null read buffer", [] { return IIC_ReadBytes(kI2cDev, 0, 0x50, nullptr, 2, 10); }, -5},
      {"block overflow",
       [] { return IIC_BlockReadBytes(kI2cDev, 0, 0x50, g_buf, 0x10000, 0x10000, 0); }, -5},
      {"negative block", [] { return IIC_BlockWriteBytes(kI2cDev, 0, 0x50, g_buf, -1, 2, 0); }, -5},
      {"null config", [] { return IIC_Init(kI2cDev, 0, nullptr); }, -5},
      {"null scan output", [] { return IIC_GetSlaveAddr(kI2cDev, 0, nullptr); }, -5},
      {"null slave buffer", [] { return IIC_SlaveReadBytes(kI2cDev, 0, nullptr, 10); }, -5},
      {"null word", [] { return SMBUS_ReadWordProtocol(kI2cDev, 0, 0x48, 0, nullptr, 0); }, -5},
      {"null block",
       [] {
         int n;
         return SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x20, nullptr, &n, 0);
       },
       -5},
      {"unknown adapter", [] { return IIC_WriteBytes(0x12345678, 0, 0x50, g_buf, 1, 10); }, -2},
      {"unknown adapter scan", [] { return IIC_GetSlaveAddr(0x12345678, 0, g_addrs); }, -2},
  };
  for (const BadCall& c : cases) EXPECT_EQ(c.call(), c.code) << c.name;
  EXPECT_TRUE(m_->commands().empty());
}

TEST_F(I2cMaster, WriteAndReadRequestLayouts) {
  unsigned char w[3] = {0x00, 0x10, 0xAB};
  unsigned char r[4];
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 1, 0x50, w, 3, 0x01020304), 0);
  EXPECT_EQ(sent(0x701).at(0), (Bytes{1, 0x00, 0x50, 0x01, 0x02, 0x03, 0x04, 0, 0x00, 0x10, 0xAB}));
  wait_eeprom_ready(1);
  m_->clear_record();
  EXPECT_EQ(IIC_WriteReadBytes(kI2cDev, 1, 0x50, w, 2, r, 1, 0x0A), 0);
  EXPECT_EQ(r[0], 0xAB);
  EXPECT_EQ(IIC_ReadBytes(kI2cDev, 1, 0x50, r, 4, 0x20), 0);
  EXPECT_EQ(sent(0x703)[0], (Bytes{1, 0x00, 0x50, 0, 0, 0, 0x0A, 0, 0, 0, 1, 0, 0x00, 0x10}));
  EXPECT_EQ(sent(0x702)[0], (Bytes{1, 0x00, 0x50, 0, 0, 0, 0x20, 0, 0, 0, 4, 0}));
}

TEST_F(I2cMaster, EventAndBlockRequestLayouts) {
  unsigned char w[4] = {0x00, 0x00, 0xC1, 0xC2};
  unsigned char r[4];
  EXPECT_EQ(IIC_WriteBytesOfEvent(kI2cDev, 0, 0x50, w, 4, 0x0A0B0C0D, 2, 0x11223344), 0);
  wait_eeprom_ready();
  EXPECT_EQ(IIC_ReadBytesOfEvent(kI2cDev, 0, 0x50, r, 2, 7, 1, 0x00000105), 0);
  EXPECT_EQ(IIC_WriteReadBytesOfEvent(kI2cDev, 0, 0x50, w, 2, r, 2, 7, 1, 0x55667788), 0);
  EXPECT_EQ(r[0], 0xC1);
  EXPECT_EQ(r[1], 0xC2);
  unsigned char blocks[6] = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(IIC_BlockWriteBytes(kI2cDev, 0, 0x48, blocks, 3, 2, 500), 0);
  EXPECT_EQ(IIC_BlockReadBytes(kI2cDev, 0, 0x50, r, 2, 2, 500), 0);

  EXPECT_EQ(sent(0x70A).at(0), (Bytes{0, 0x00, 0x50, 0x0A, 0x0B, 0x0C, 0x0D, 2, 0x11, 0x22, 0x33,
                                      0x44, 0x00, 0x00, 0xC1, 0xC2}));
  // The read form carries only the three high-order bytes of the event time-out.
  EXPECT_EQ(sent(0x70B).at(0), (Bytes{0, 0x00, 0x50, 0, 0, 0, 2, 0, 0, 0, 7, 1, 0x00, 0x00, 0x01}));
  EXPECT_EQ(sent(0x70C).at(0),
            (Bytes{0, 0x00, 0x50, 0, 0, 0, 2, 0, 0, 0, 7, 1, 0x55, 0x66, 0x77, 0x88, 0x00, 0x00}));
  EXPECT_EQ(sent(0x70D).at(0),
            (Bytes{0, 0x00, 0x48, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0x01, 0xF4, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(sent(0x70E).at(0), (Bytes{0, 0x00, 0x50, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0x01, 0xF4}));
}

TEST_F(I2cMaster, EmptyAddressAndMissedEventReturnTheAdapterStatus) {
  unsigned char b[2] = {0x55, 0x66};
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 0, 0x33, b, 2, 10), IIC_STATUS_ADDR_NACK);
  EXPECT_EQ(IIC_ReadBytes(kI2cDev, 0, 0x33, b, 2, 10), IIC_STATUS_ADDR_NACK);
  EXPECT_EQ(b[0], 0x55);  // a failed read leaves the buffer alone
  with_channel(0, [](sim::I2cChannel& c) { c.event_never = true; });
  EXPECT_EQ(IIC_ReadBytesOfEvent(kI2cDev, 0, 0x50, b, 2, 1, 1, 100), IIC_STATUS_TIMEOUT);
}

struct ReadReply {
  Bytes payload;
  int result;
  Bytes buffer;  // the caller's 4 bytes afterwards (they start as 0xEE)
};

TEST_F(I2cMaster, ReadAcceptsOnlyStatusAloneOrStatusWithAllData) {
  const ReadReply cases[] = {
      {{0, 1, 2, 3, 4}, 0, {1, 2, 3, 4}},
      {{0}, 0, {0, 0, 0, 0}},  // status alone: zeros, never stale memory
      {{7}, 7, {0xEE, 0xEE, 0xEE, 0xEE}},
      {{7, 1, 2, 3, 4}, 7, {0xEE, 0xEE, 0xEE, 0xEE}},
      {{0, 1, 2}, IIC_ERR_REPLY, {0xEE, 0xEE, 0xEE, 0xEE}},
      {{0, 1, 2, 3, 4, 5, 6}, IIC_ERR_REPLY, {0xEE, 0xEE, 0xEE, 0xEE}},
      {{}, IIC_ERR_REPLY, {0xEE, 0xEE, 0xEE, 0xEE}},
  };
  for (const ReadReply& c : cases) {
    raw_reply(0x702, c.payload);
    Bytes buf(4, 0xEE);
    EXPECT_EQ(IIC_ReadBytes(kI2cDev, 0, 0x50, buf.data(), 4, 10), c.result) << c.payload.size();
    EXPECT_EQ(buf, c.buffer) << c.payload.size();
  }
  // The stream stayed framed through the long reply: a normal read still works.
  unsigned char b[1];
  EXPECT_EQ(IIC_ReadBytes(kI2cDev, 0, 0x48, b, 1, 10), 0);
}

TEST_F(I2cMaster, WriteNeedsExactlyOneStatusByte) {
  unsigned char b[1] = {0};
  raw_reply(0x701, {});
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 0, 0x48, b, 1, 10), IIC_ERR_REPLY);
  raw_reply(0x701, {0, 0});
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 0, 0x48, b, 1, 10), IIC_ERR_REPLY);
  raw_reply(0x701, {0xC8});
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 0, 0x48, b, 1, 10), 0xC8);
  fault(sim::FaultKind::WrongCode, 0x701, 0x702);
  EXPECT_EQ(IIC_WriteBytes(kI2cDev, 0, 0x48, b, 1, 10), IIC_ERR_REPLY);
}

TEST_F(I2cMaster, AnUnpluggedAdapterFailsEveryCallAndTheScanStopsAtOnce) {
  fault(sim::FaultKind::Unplug, 0x701);
  short found[IIC_SCAN_MAX];
  EXPECT_EQ(IIC_GetSlaveAddr(kI2cDev, 0, found), IIC_ERR_REPLY);
  // One probe, not 1024 of them against a device that is gone.
  EXPECT_EQ(sent(0x701).size(), 1u);
  unsigned char b[2];
  EXPECT_EQ(IIC_ReadBytes(kI2cDev, 0, 0x50, b, 2, 10), IIC_ERR_SEND);
}

TEST_F(I2cMaster, ScanProbes128AddressesOnA7BitChannel) {
  IIC_CONFIG c{100000, 0, 1, 7, {0, 0}, {0, 0}};
  ASSERT_EQ(IIC_Init(kI2cDev, 3, &c), 0);
  m_->clear_record();
  short found[IIC_SCAN_MAX];
  ASSERT_EQ(IIC_GetSlaveAddr(kI2cDev, 3, found), 2);
  EXPECT_EQ(found[0], 0x48);
  EXPECT_EQ(found[1], 0x50);
  auto p = sent(0x701);
  ASSERT_EQ(p.size(), 128u);
  for (size_t a = 0; a < p.size(); ++a)
    ASSERT_EQ(p[a], (Bytes{3, uint8_t(a >> 8), uint8_t(a), 0, 0, 0, 5, 0})) << a;
}

TEST_F(I2cMaster, ScanProbes1024AddressesOnAChannelNeverSetUp) {
  short found[IIC_SCAN_MAX];
  ASSERT_EQ(IIC_GetSlaveAddr(kI2cDev, 0, found), 2);
  auto p = sent(0x701);
  ASSERT_EQ(p.size(), 1024u);
  EXPECT_EQ(p.back(), (Bytes{0, 0x03, 0xFF, 0, 0, 0, 5, 0}));
}

TEST_F(I2cMaster, SlaveModeServesTheRemoteMaster) {
  with_channel(0, [](sim::I2cChannel& c) {
    c.master_read_budget = 3;
    c.slave_rx = {0xDE, 0xAD, 0xBE, 0xEF};
  });
  unsigned char out[5] = {1, 2, 3, 4, 5};
  EXPECT_EQ(IIC_SlaveWriteBytes(kI2cDev, 0, out, 5, 0x200), 3);
  EXPECT_EQ(IIC_SlaveWriteRemain(kI2cDev, 0), 2);
  std::vector<unsigned char> in(IIC_SLAVE_READ_MAX);
  EXPECT_EQ(IIC_SlaveReadBytes(kI2cDev, 0, in.data(), 50), 4);
  EXPECT_EQ(Bytes(in.begin(), in.begin() + 4), (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
  EXPECT_EQ(IIC_SlaveReadBytes(kI2cDev, 0, in.data(), 50), 0);
  with_channel(0, [](sim::I2cChannel& c) { EXPECT_EQ(c.master_got, (Bytes{1, 2, 3})); });
  EXPECT_EQ(sent(0x704)[0], (Bytes{0, 0, 0, 0x02, 0x00, 1, 2, 3, 4, 5}));
  EXPECT_EQ(sent(0x705)[0], (Bytes{0, 0, 0, 0, 50}));
  EXPECT_EQ(sent(0x706)[0], (Bytes{0}));
  // The count comes in the adapter's little-endian order.
  raw_reply(0x706, {0x34, 0x12});
  EXPECT_EQ(IIC_SlaveWriteRemain(kI2cDev, 0), 0x1234);
  raw_reply(0x706, {0x34});
  EXPECT_EQ(IIC_SlaveWriteRemain(kI2cDev, 0), IIC_ERR_REPLY);
}

TEST_F(I2cMaster, SlaveReadCutsAReplyLongerThanItsBuffer) {
  Bytes big(IIC_SLAVE_READ_MAX + 100, 0x77);
  raw_reply(0x705, big);
  std::vector<unsigned char> in(IIC_SLAVE_READ_MAX + 16, 0x11);
  EXPECT_EQ(IIC_SlaveReadBytes(kI2cDev, 0, in.data(), 10), IIC_SLAVE_READ_MAX);
  EXPECT_EQ(in[IIC_SLAVE_READ_MAX - 1], 0x77);
  EXPECT_EQ(in[IIC_SLAVE_READ_MAX], 0x11);
}

}  // namespace
}  // namespace veltrix::test
