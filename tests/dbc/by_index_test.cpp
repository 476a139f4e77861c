// The index-based functions agree with the name-based ones, decode a whole frame in one
// call, and refuse bad handles, indexes and pointers with the documented codes.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "dbc_test_util.hpp"
#include "veltrix/dbc.h"

namespace veltrix::dbc {
namespace {

class DbcByIndex : public ::testing::Test {
 protected:
  void SetUp() override {
    h_ = DBC_ParserFile(test::kDirectDevice, test::fixture("body_gateway.dbc").c_str());
    ASSERT_NE(h_, 0);
  }
  void TearDown() override { DBC_Release(h_); }
  long long h_ = 0;
};

TEST_F(DbcByIndex, NamesResolveToFilePositions) {
  EXPECT_EQ(DBC_GetMsgIndex(h_, "GW_Status"), 0);
  EXPECT_EQ(DBC_GetMsgIndex(h_, "DCU_Sensors"), 2);
  EXPECT_EQ(DBC_GetMsgIndexById(h_, 512), 2);
  EXPECT_EQ(DBC_GetMsgIndexById(h_, 0x80000000u | 0x311u), 3);
  EXPECT_EQ(DBC_GetMsgIndexById(h_, 0x311), DBC_ERR_NOT_FOUND);  // standard id, not extended
  EXPECT_EQ(DBC_GetSignalIndex(h_, 0, "GW_Temp"), 3);
  EXPECT_EQ(DBC_GetSignalCount(h_, 2), 6);
}

TEST_F(DbcByIndex, RefusalsTable) {
  double v = 0;
  CAN_MSG f{};
  struct Case {
    const char* what;
    int got;
    int want;
  };
  const Case cases[] = {
      {"unknown message name", DBC_GetMsgIndex(h_, "Nope"), DBC_ERR_NOT_FOUND},
      {"NULL message name", DBC_GetMsgIndex(h_, nullptr), DBC_ERR_ARGUMENT},
      {"dead handle", DBC_GetMsgIndex(h_ + 1, "GW_Status"), DBC_ERR_HANDLE},
      {"unknown signal", DBC_GetSignalIndex(h_, 0, "Nope"), DBC_ERR_NOT_FOUND},
      {"signal of another message", DBC_GetSignalIndex(h_, 1, "GW_Temp"), DBC_ERR_NOT_FOUND},
      {"NULL signal name", DBC_GetSignalIndex(h_, 0, nullptr), DBC_ERR_ARGUMENT},
      {"message index -1", DBC_GetSignalCount(h_, -1), DBC_ERR_NOT_FOUND},
      {"message index 5", DBC_GetSignalCount(h_, 5), DBC_ERR_NOT_FOUND},
      {"signal index 5 of 5", DBC_GetSignalValueByIndex(h_, 0, 5, &v), DBC_ERR_NOT_FOUND},
      {"signal index -1", DBC_SetSignalValueByIndex(h_, 0, -1, 1.0), DBC_ERR_NOT_FOUND},
      {"NULL value", DBC_GetSignalValueByIndex(h_, 0, 0, nullptr), DBC_ERR_ARGUMENT},
      {"NULL frame", DBC_DecodeCANMsg(h_, nullptr, nullptr, nullptr, 0), DBC_ERR_ARGUMENT},
      {"NULL values with room", DBC_DecodeCANMsg(h_, &f, nullptr, nullptr, 4), DBC_ERR_ARGUMENT},
      {"frame of no message", DBC_DecodeCANMsg(h_, &f, nullptr, nullptr, 0), DBC_ERR_NOT_FOUND},
      {"encode into NULL", DBC_EncodeCANMsgByIndex(h_, 0, nullptr), DBC_ERR_ARGUMENT},
      {"encode message 9", DBC_EncodeCANMsgByIndex(h_, 9, &f), DBC_ERR_NOT_FOUND},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
}

TEST_F(DbcByIndex, DecodesAWholeFrameAsTheNameBasedCallsDo) {
  CAN_MSG f{};
  f.ID = 256;
  f.DataLen = 8;
  const uint8_t data[8] = {0x5A, 0x34, 0x12, 0x81, 0xC0, 0x00, 0x00, 0x7E};
  std::copy(data, data + 8, f.Data);
  int msg = -1;
  double values[8];
  std::fill(values, values + 8, -1.0);
  ASSERT_EQ(DBC_DecodeCANMsg(h_, &f, &msg, values, 8), 5);
  EXPECT_EQ(msg, 0);
  EXPECT_EQ(values[5], -1.0);  // beyond the message's signals: untouched
  // The same frame through the name-based path gives the same values.
  ASSERT_EQ(DBC_SyncCANMsgToValue(h_, &f, 1), DBC_OK);
  const char* names[] = {"GW_Counter", "GW_Mode", "GW_Voltage", "GW_Temp", "GW_Crc"};
  for (int i = 0; i < 5; ++i) {
    double by_name = 0, by_index = 0;
    ASSERT_EQ(DBC_GetSignalValue(h_, "GW_Status", names[i], &by_name), DBC_OK);
    ASSERT_EQ(DBC_GetSignalValueByIndex(h_, 0, i, &by_index), DBC_OK);
    EXPECT_EQ(values[i], by_name) << names[i];
    EXPECT_EQ(by_index, by_name) << names[i];
  }
  EXPECT_EQ(values[0], 0xA);                 // bits 0..3
  EXPECT_EQ(values[1], 5);                   // bits 4..6
  EXPECT_DOUBLE_EQ(values[2], 0x234 * 0.01);  // bits 8..19
  EXPECT_EQ(values[4], 0x7E);
  // A capacity below the count writes only that many values.
  double two[2] = {-1, -1};
  EXPECT_EQ(DBC_DecodeCANMsg(h_, &f, nullptr, two, 1), 5);
  EXPECT_EQ(two[1], -1.0);
}

TEST_F(DbcByIndex, MultiplexedSignalsTheSwitchDoesNotSelectReadAsNaN) {
  const int msg = DBC_GetMsgIndex(h_, "DCU_Sensors");
  ASSERT_GE(msg, 0);
  CANFD_MSG f{};
  f.ID = 512;
  f.DLC = 16;
  f.Data[0] = 1;  // switch: Sens_Light
  f.Data[1] = 0x10;
  f.Data[2] = 0x27;
  double v[6];
  ASSERT_EQ(DBC_DecodeCANFDMsg(h_, &f, nullptr, v, 6), 6);
  EXPECT_EQ(v[0], 1);
  EXPECT_TRUE(std::isnan(v[1]));  // Sens_Rain (m0)
  EXPECT_EQ(v[2], 10000);         // Sens_Light (m1)
  double light = 0;
  EXPECT_EQ(DBC_GetSignalValueByIndex(h_, msg, 1, &light), DBC_ERR_MUX_INACTIVE);
  ASSERT_EQ(DBC_GetSignalValueByIndex(h_, msg, 2, &light), DBC_OK);
  EXPECT_EQ(light, 10000);
}

TEST_F(DbcByIndex, EncodesByIndexAsByName) {
  const int lamps = DBC_GetMsgIndex(h_, "BCM_Lamps");
  ASSERT_GE(lamps, 0);
  const int dim = DBC_GetSignalIndex(h_, lamps, "Lamp_Dim");
  ASSERT_EQ(DBC_SetSignalValueByIndex(h_, lamps, dim, 40.0), DBC_OK);
  ASSERT_EQ(DBC_SetSignalValueByIndex(h_, lamps, 0, 2), DBC_OK);
  CAN_MSG by_index{}, by_name{};
  ASSERT_EQ(DBC_EncodeCANMsgByIndex(h_, lamps, &by_index), DBC_OK);
  ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "BCM_Lamps", &by_name), DBC_OK);
  EXPECT_EQ(std::vector<uint8_t>(by_index.Data, by_index.Data + 8),
            std::vector<uint8_t>(by_name.Data, by_name.Data + 8));
  EXPECT_EQ(by_index.Data[0], 0x02);
  EXPECT_EQ(by_index.Data[1], 100);  // 40 % at 0.4 per bit
  EXPECT_EQ(by_index.ExtFlag, 1);
  EXPECT_EQ(by_index.ID, 0x18FF0001u);
  EXPECT_EQ(by_index.DataLen, 6);
}

}  // namespace
}  // namespace veltrix::dbc
