// The SMBus helpers against the virtual sensor: request bytes, word order, PEC, blocks.
#include "tests/peripherals/i2c/i2c_fixture.hpp"

namespace veltrix::test {
namespace {

class Smbus : public I2cTest {};

TEST_F(Smbus, InitIsA7BitMasterWithTheOptionInByteZero) {
  ASSERT_EQ(SMBUS_Init(kI2cDev, 1, 100000, 0x01), 0);
  EXPECT_EQ(sent(0x700).at(0), (Bytes{1, 7, 1, 0, 0, 0x00, 0x01, 0x86, 0xA0, 0x01, 0x00}));
}

TEST_F(Smbus, WordsTravelHighByteFirst) {
  unsigned short w = 0;
  ASSERT_EQ(SMBUS_ReadWordProtocol(kI2cDev, 0, 0x48, 0x00, &w, 0), 0);
  EXPECT_EQ(w, 0x1234);
  ASSERT_EQ(SMBUS_WriteWordProtocol(kI2cDev, 0, 0x48, 0x01, 0xBEEF, 0), 0);
  with_channel(0, [](sim::I2cChannel& c) {
    EXPECT_EQ(c.sensor().regs[0x01], (Bytes{0xBE, 0xEF}));
  });
  ASSERT_EQ(SMBUS_ProcessCall(kI2cDev, 0, 0x48, 0x80, 0x1234, &w, 0), 0);
  EXPECT_EQ(w, 0xEDCB);
  EXPECT_EQ(sent(0x703).at(0), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0, 0, 0, 2, 0, 0x00}));
  EXPECT_EQ(sent(0x701).at(0), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0, 0x01, 0xBE, 0xEF}));
  EXPECT_EQ(sent(0x703).at(1), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0, 0, 0, 2, 0, 0x80, 0x12, 0x34}));
}

TEST_F(Smbus, ByteProtocolsAndQuickCommand) {
  unsigned char b = 0;
  ASSERT_EQ(SMBUS_ReadByteProtocol(kI2cDev, 0, 0x48, 0x10, &b, 1), 0);
  EXPECT_EQ(b, 0x5A);
  ASSERT_EQ(SMBUS_WriteByteProtocol(kI2cDev, 0, 0x48, 0x10, 0x66, 1), 0);
  ASSERT_EQ(SMBUS_WriteByte(kI2cDev, 0, 0x48, 0x10, 0), 0);  // send byte: selects 0x10
  ASSERT_EQ(SMBUS_ReadByte(kI2cDev, 0, 0x48, &b, 0), 0);     // receive byte
  EXPECT_EQ(b, 0x66);
  EXPECT_EQ(SMBUS_QuickCommand(kI2cDev, 0, 0x48, 0), 0);
  EXPECT_EQ(SMBUS_QuickCommand(kI2cDev, 0, 0x49, 1), IIC_STATUS_ADDR_NACK);
  EXPECT_EQ(sent(0x702).at(1), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0, 0, 0, 0, 0}));
  EXPECT_EQ(sent(0x701).back(), (Bytes{0, 0, 0x49, 0, 0, 0, 10, 0}));
  EXPECT_EQ(sent(0x701).at(0), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 1, 0x10, 0x66}));
}

struct PecCase {
  const char* name;
  bool sensor_corrupts;
  bool adapter_corrupts;
  bool write;
  int result;
};

TEST_F(Smbus, PecGoodAndBadInBothDirections) {
  const PecCase cases[] = {
      {"good read", false, false, false, 0},
      {"bad PEC from the sensor", true, false, false, IIC_STATUS_PEC_ERROR},
      {"good write", false, false, true, 0},
      {"bad PEC from the adapter", false, true, true, IIC_STATUS_PEC_ERROR},
  };
  for (const PecCase& c : cases) {
    with_channel(0, [&](sim::I2cChannel& ch) {
      ch.sensor().corrupt_pec = c.sensor_corrupts;
      ch.corrupt_host_pec = c.adapter_corrupts;
    });
    unsigned short w = 0xAAAA;
    int r = c.write ? SMBUS_WriteWordProtocol(kI2cDev, 0, 0x48, 0x02, 0x0102, 1)
                    : SMBUS_ReadWordProtocol(kI2cDev, 0, 0x48, 0x00, &w, 1);
    EXPECT_EQ(r, c.result) << c.name;
    if (!c.write) {
      EXPECT_EQ(w, c.result == 0 ? 0x1234 : 0xAAAA) << c.name;
    }
  }
  with_channel(0, [](sim::I2cChannel& ch) {
    EXPECT_EQ(ch.sensor().pec_errors, 1u);
    EXPECT_EQ(ch.sensor().regs[0x02], (Bytes{0x01, 0x02}));  // only the good write landed
  });
  for (const Bytes& p : sent(0x703)) EXPECT_EQ(p.at(11), 1);
}

TEST_F(Smbus, BlockReadWriteAndProcessCall) {
  std::vector<unsigned char> buf(SMBUS_BLOCK_MAX);
  int n = -1;
  ASSERT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x20, buf.data(), &n, 1), 0);
  ASSERT_EQ(n, 5);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 5), (Bytes{1, 2, 3, 4, 5}));
  unsigned char block[3] = {0x0A, 0x0B, 0x0C};
  ASSERT_EQ(SMBUS_BlockWrite(kI2cDev, 0, 0x48, 0x21, block, 3, 1), 0);
  ASSERT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x21, buf.data(), &n, 0), 0);
  EXPECT_EQ(n, 3);
  ASSERT_EQ(SMBUS_BlockProcessCall(kI2cDev, 0, 0x48, 0x81, block, 3, buf.data(), &n, 1), 0);
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 3), (Bytes{0x0C, 0x0B, 0x0A}));
  EXPECT_EQ(sent(0x708).at(0), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0x20, 1}));
  EXPECT_EQ(sent(0x707).at(0), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0x21, 1, 0x0A, 0x0B, 0x0C}));
  EXPECT_EQ(sent(0x709).at(0), (Bytes{0, 0, 0x48, 0, 0, 0, 10, 0x81, 1, 0x0A, 0x0B, 0x0C}));
}

TEST_F(Smbus, BlockReadStatusOnlyLeavesTheLengthAlone) {
  std::vector<unsigned char> buf(SMBUS_BLOCK_MAX, 0xEE);
  int n = 77;
  raw_reply(0x708, {0});
  EXPECT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x20, buf.data(), &n, 0), 0);
  EXPECT_EQ(n, 77);
  raw_reply(0x708, {5, 1, 2});
  EXPECT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x20, buf.data(), &n, 0), 5);
  EXPECT_EQ(n, 77);
  EXPECT_EQ(buf[0], 0xEE);
  EXPECT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x40, 0x20, buf.data(), &n, 0), IIC_STATUS_ADDR_NACK);
}

TEST_F(Smbus, BlockReadsReportTheTransportReadFailure) {
  std::vector<unsigned char> buf(SMBUS_BLOCK_MAX);
  int n = 0;
  fault(sim::FaultKind::WrongCode, 0x708, 0x70F);
  EXPECT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x20, buf.data(), &n, 0), IIC_ERR_READ);
  fault(sim::FaultKind::ShortHeader, 0x709);
  EXPECT_EQ(SMBUS_BlockProcessCall(kI2cDev, 0, 0x48, 0x81, buf.data(), 1, buf.data(), &n, 0),
            IIC_ERR_READ);
  // The plain transfers report the same fault as a failed reply.
  fault(sim::FaultKind::ShortHeader, 0x703);
  unsigned short w;
  EXPECT_EQ(SMBUS_ReadWordProtocol(kI2cDev, 0, 0x48, 0, &w, 0), IIC_ERR_REPLY);
}

TEST_F(Smbus, ABlockLongerThanTheBufferIsCut) {
  Bytes big(SMBUS_BLOCK_MAX + 50, 0x5C);
  big[0] = 0;
  raw_reply(0x708, big);
  std::vector<unsigned char> buf(SMBUS_BLOCK_MAX + 8, 0x11);
  int n = 0;
  EXPECT_EQ(SMBUS_BlockRead(kI2cDev, 0, 0x48, 0x20, buf.data(), &n, 0), 0);
  EXPECT_EQ(n, SMBUS_BLOCK_MAX);
  EXPECT_EQ(buf[SMBUS_BLOCK_MAX - 1], 0x5C);
  EXPECT_EQ(buf[SMBUS_BLOCK_MAX], 0x11);
}

}  // namespace
}  // namespace veltrix::test
