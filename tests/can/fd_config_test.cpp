// CAN FD lengths, record conversions, timing, initialisation, filters and the status
// queries, with the exact bytes the adapter receives.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "tests/can/can_fixture.hpp"

namespace veltrix::test {
namespace {

constexpr uint32_t kFd = 0x53000001;

// (data bytes, coded DLC, bytes that code stands for)
class FdLength : public ::testing::TestWithParam<std::tuple<int, int, int>> {};

TEST_P(FdLength, BytesToCodeAndBack) {
  auto [bytes, code, back] = GetParam();
  EXPECT_EQ(DataBytesToDlc(uint8_t(bytes)), code);
  EXPECT_EQ(DlcToDataBytes(uint8_t(code)), back);
}

INSTANTIATE_TEST_SUITE_P(Table, FdLength,
                         ::testing::Values(std::make_tuple(0, 0, 0), std::make_tuple(8, 8, 8),
                                           std::make_tuple(9, 9, 12), std::make_tuple(12, 9, 12),
                                           std::make_tuple(13, 10, 16), std::make_tuple(17, 11, 20),
                                           std::make_tuple(21, 12, 24), std::make_tuple(25, 13, 32),
                                           std::make_tuple(33, 14, 48), std::make_tuple(49, 15, 64),
                                           std::make_tuple(64, 15, 64),
                                           std::make_tuple(200, 15, 64)));

TEST(FdLengthCodes, OutsideTheCodesIsZero) {
  EXPECT_EQ(DlcToDataBytes(16), 0);
  EXPECT_EQ(DlcToDataBytes(255), 0);
}

TEST(FdConversion, ClassicToFdAndBack) {
  CAN_MSG c[2] = {};
  c[0].ID = 0x1ABCDEF;
  c[0].ExtFlag = 1;
  c[0].DataLen = 8;
  c[0].Data[7] = 0x5A;
  c[0].FrameFlags = 1;
  c[0].TimeStamp = 0x80000001;
  c[0].TimeStampHigh = 0x01;
  c[1].ID = 0x123;
  c[1].DataLen = 2;
  CANFD_MSG fd[2];
  std::memset(fd, 0xEE, sizeof fd);
  CAN2CANFD(c, fd, 2);
  EXPECT_EQ(fd[0].ID, 0x81ABCDEFu);
  EXPECT_EQ(fd[0].DLC, 8);
  EXPECT_EQ(fd[0].Flags, 0);
  EXPECT_EQ(fd[0].Data[7], 0x5A);
  // 0x180000001 x 10 = 0xF0000000A.
  EXPECT_EQ(fd[0].TimeStamp, 0x0000000Au);
  EXPECT_EQ(fd[0].TimeStampHigh, 0x0F);
  EXPECT_EQ(fd[1].ID, 0x123u);
  EXPECT_EQ(fd[1].Data[2], 0);  // beyond DataLen: cleared

  CAN_MSG back[2];
  CANFD2CAN(fd, back, 2);
  EXPECT_EQ(back[0].ID, 0x1ABCDEFu);
  EXPECT_EQ(back[0].ExtFlag, 1);
  EXPECT_EQ(back[0].FrameFlags, 0);  // the remote flag does not travel
  EXPECT_EQ(back[0].TimeStamp, 0x80000001u);
  EXPECT_EQ(back[0].TimeStampHigh, 1);
  EXPECT_EQ(back[1].ExtFlag, 0);

  CAN_MSG untouched{};
  untouched.ID = 7;
  CANFD2CAN(fd, &untouched, 0);
  EXPECT_EQ(untouched.ID, 7u);
}

class CanFdConfig : public CanTest {};

// (handle, nominal, data, result, nominal SJW/Seg1/Seg2/prescaler, data phase)
struct SpeedCase {
  uint32_t handle;
  int nominal, data, result;
  std::array<uint8_t, 4> nbt, dbt;
};

class FdSpeed : public ::testing::TestWithParam<SpeedCase> {};

TEST_P(FdSpeed, TableRows) {
  const SpeedCase& k = GetParam();
  CANFD_CHANNEL_CONFIG c;
  std::memset(&c, 0xAB, sizeof c);
  ASSERT_EQ(CANFD_GetCANSpeedArg(k.handle, &c, k.nominal, k.data), k.result);
  if (k.result != 0) {
    CANFD_CHANNEL_CONFIG untouched;
    std::memset(&untouched, 0xAB, sizeof untouched);
    EXPECT_EQ(std::memcmp(&c, &untouched, sizeof c), 0);
    return;
  }
  EXPECT_EQ(c.Mode, 0);
  EXPECT_EQ(c.IsoCrc, 1);
  EXPECT_EQ(c.AutoRetransmit, 1);
  EXPECT_EQ(c.Terminator, 1);
  EXPECT_EQ((std::array<uint8_t, 4>{c.NBT_SJW, c.NBT_Seg1, c.NBT_Seg2, c.NBT_Prescaler}), k.nbt);
  EXPECT_EQ((std::array<uint8_t, 4>{c.DBT_SJW, c.DBT_Seg1, c.DBT_Seg2, c.DBT_Prescaler}), k.dbt);
  EXPECT_EQ(c.Reserved[0], 0xAB);
}

INSTANTIATE_TEST_SUITE_P(
    Rates, FdSpeed,
    ::testing::Values(SpeedCase{kFd, 500000, 2000000, 0, {2, 59, 20, 1}, {2, 14, 5, 1}},
                      SpeedCase{kFd, 500000, 2500000, -4, {}, {}},
                      SpeedCase{kFd, 900000, 2000000, -4, {}, {}},
                      SpeedCase{kFd, 10000, 10000, 0, {2, 183, 66, 16}, {2, 29, 10, 100}},
                      SpeedCase{0x50000001, 1000000, 10000000, 0, {2, 29, 10, 1}, {1, 2, 1, 1}},
                      // Classic clocks: the data phase stays as the caller had it.
                      SpeedCase{0x41000001, 1000000, 1, 0, {2, 15, 5, 2}, {0xAB, 0xAB, 0xAB, 0xAB}},
                      SpeedCase{
                          0x31000001, 5000, 1, 0, {1, 16, 3, 0xE8}, {0xAB, 0xAB, 0xAB, 0xAB}}),
    [](const ::testing::TestParamInfo<SpeedCase>& i) {
      return "Model" + std::to_string(i.param.handle >> 24) + "_" +
             std::to_string(i.param.nominal) + "_" + std::to_string(i.param.data);
    });

TEST_F(CanFdConfig, InitSendsTheRecordVerbatim) {
  auto m = plug_and_open(kFd);
  CANFD_CHANNEL_CONFIG c{};
  ASSERT_EQ(CANFD_GetCANSpeedArg(kFd, &c, 500000, 2000000), 0);
  c.Reserved[7] = 0x77;
  ASSERT_EQ(CANFD_Init(kFd, 1, &c), 0);
  EXPECT_EQ(payloads(*m, 0x4000).back(),
            (Bytes{1, 0, 1, 1, 1, 1, 59, 20, 2, 1, 14, 5, 2, 0, 0, 0, 0, 0, 0, 0, 0x77}));
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x4000, 1));
  EXPECT_EQ(CANFD_Init(kFd, 1, &c), CANFD_ERR_USB_READ_FAIL);
  EXPECT_EQ(CANFD_Init(kFd, 1, nullptr), CANFD_ERR_PARAMETER);
  EXPECT_EQ(CANFD_Init(0x53000099, 1, &c), CANFD_ERR_USB_WRITE_FAIL);
}

TEST_F(CanFdConfig, FilterRulesAndEmptySet) {
  auto m = plug_and_open(kFd);
  CANFD_FILTER_RULE r[2] = {};
  r[0] = {1, 3, {0xAA, 0xBB}, 0x80012345u, 0x9FFFFFFFu};
  r[1] = {0, 4, {0, 0}, 0x123, 0xFFFFFFFFu};
  ASSERT_EQ(CANFD_SetFilter(kFd, 0, r, 2), 0);
  EXPECT_EQ(payloads(*m, 0x4001).back(),
            (Bytes{0, 1, 3, 0xAA, 0xBB, 0x45, 0x23, 0x01, 0x80, 0xFF, 0xFF, 0xFF, 0x9F,  //
                   0, 4, 0, 0,    0x23, 0x01, 0,    0,    0xFF, 0xFF, 0xFF, 0xFF}));
  ASSERT_EQ(CANFD_SetFilter(kFd, 1, nullptr, 0), 0);
  EXPECT_EQ(payloads(*m, 0x4001).back(), Bytes{1});
  std::vector<CANFD_FILTER_RULE> many(43);
  m->clear_record();
  EXPECT_EQ(CANFD_SetFilter(kFd, 0, many.data(), 43), CANFD_ERR_PARAMETER);
  EXPECT_EQ(CANFD_SetFilter(kFd, 0, nullptr, 1), CANFD_ERR_PARAMETER);
  EXPECT_TRUE(m->commands().empty());
}

TEST_F(CanFdConfig, QueriesNeedTheirExactLength) {
  auto m = open_fd(kFd);
  CANFD_BUS_ERROR e{};
  sim::Fault raw = fault(sim::FaultKind::RawReply, 0x4005);
  raw.raw = {0, 0, 0x40, 0x05, 0, 0, 0, 4, 0x11, 0x22, 0x33, 0x44};
  m->inject(raw);
  ASSERT_EQ(CANFD_GetBusError(kFd, 1, &e), 0);
  EXPECT_EQ(e.TxErrorCounter, 0x11);
  EXPECT_EQ(e.RxErrorCounter, 0x22);
  EXPECT_EQ(e.Reserved[1], 0x44);
  EXPECT_EQ(payloads(*m, 0x4005).back(), Bytes{1});

  CANFD_BUS_ERROR before = e;
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x4005, 1));
  EXPECT_EQ(CANFD_GetBusError(kFd, 1, &e), CANFD_ERR_USB_READ_FAIL);
  m->inject(fault(sim::FaultKind::WrongCode, 0x4005, 0x4004));
  EXPECT_EQ(CANFD_GetBusError(kFd, 1, &e), CANFD_ERR_USB_READ_FAIL);
  EXPECT_EQ(std::memcmp(&before, &e, sizeof e), 0);

  CANFD_DIAGNOSTIC d{};
  ASSERT_EQ(CANFD_GetDiagnostic(kFd, 0, &d), 0);
  EXPECT_EQ(d.Data[3], 0);  // started, no errors
  m->inject(fault(sim::FaultKind::ShortHeader, 0x4004));
  EXPECT_EQ(CANFD_GetDiagnostic(kFd, 0, &d), CANFD_ERR_USB_READ_FAIL);

  CANFD_TX_INFO t{};
  m->inject(fault(sim::FaultKind::ExtraPayload, 0x400A, 2));
  EXPECT_EQ(CANFD_SendMsgStatus(kFd, 0, &t), CANFD_ERR_USB_READ_FAIL);
  EXPECT_EQ(CANFD_SendMsgStatus(kFd, 0, nullptr), CANFD_ERR_PARAMETER);
  ASSERT_EQ(CANFD_SendMsgStatus(kFd, 0, &t), 0);
}

}  // namespace
}  // namespace veltrix::test
