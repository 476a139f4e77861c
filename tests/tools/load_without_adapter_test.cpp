// The file loaders that need no adapter: the same database or description as the loaders
// bound to an adapter, which keep refusing an unknown device.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "veltrix/dbc.h"
#include "veltrix/ldf.h"

namespace {

const std::string kCorpus = VELTRIX_CORPUS_DIR;

TEST(LoadWithoutAdapter, DbcFileGivesAWorkingDatabase) {
  const std::string path = kCorpus + "/dbc/motohawk.dbc";
  EXPECT_EQ(DBC_ParserFile(0x12345678, path.c_str()), 0) << "no adapter is registered";
  long long db = DBC_LoadFile(path.c_str());
  ASSERT_NE(db, 0);
  EXPECT_EQ(DBC_GetMsgQuantity(db), 1);
  char name[64];
  ASSERT_EQ(DBC_GetMsgName(db, 0, name), DBC_OK);
  EXPECT_STREQ(name, "ExampleMessage");

  // Temperature: 12 signed bits, big-endian, most significant at bit 0 of byte 0:
  //   byte 0 bit 0 | byte 1 bits 7-0 | byte 2 bits 7-5  =  1 11100000 000 = 0xF00 = -256
  // then scale 0.01, offset 250.
  CAN_MSG rx{};
  rx.ID = 496;
  rx.DataLen = 8;
  rx.Data[0] = 0xA5;
  rx.Data[1] = 0xE0;
  ASSERT_EQ(DBC_SyncCANMsgToValue(db, &rx, 1), DBC_OK);
  double kelvin = 0;
  ASSERT_EQ(DBC_GetSignalValue(db, "ExampleMessage", "Temperature", &kelvin), DBC_OK);
  EXPECT_DOUBLE_EQ(kelvin, 250 + 0.01 * -256);
  EXPECT_EQ(DBC_Release(db), DBC_OK);
}

TEST(LoadWithoutAdapter, DbcRefusals) {
  EXPECT_EQ(DBC_LoadFile(nullptr), 0);
  EXPECT_EQ(DBC_LoadFile("/nonexistent/file.dbc"), 0);
  const std::string bad = testing::TempDir() + "/missing_sender.dbc";
  std::FILE* f = std::fopen(bad.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("VERSION \"\"\nBO_ 100 Msg: 8\n", f);
  std::fclose(f);
  EXPECT_EQ(DBC_LoadFile(bad.c_str()), 0) << "a BO_ line without a sender is refused";
}

TEST(LoadWithoutAdapter, LdfFileGivesAHandleForReadersAndCodecButNotTheBus) {
  const std::string path = kCorpus + "/ldf/j2602_1.ldf";
  EXPECT_EQ(LDF_ParserFile(0x12345678, 0, 1, path.c_str()), nullptr);
  LDF_CODING* h = LDF_LoadFile(path.c_str());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->DevHandle, 0);
  EXPECT_EQ(h->Initialized, 0);
  EXPECT_EQ(LDF_GetLINSpeed(h), 19200);
  EXPECT_EQ(LDF_GetFrameQuantity(h), 2);
  EXPECT_EQ(LDF_GetSchQuantity(h), 1);
  char name[64];
  ASSERT_EQ(LDF_GetSchName(h, 0, name), 0);
  EXPECT_STREQ(name, "MySchedule1");

  // InternalLightsRequest: 2 bits at bit 0 of VL1_CEM_Frm1 (1 byte).
  ASSERT_EQ(LDF_SetSignalValue(h, "VL1_CEM_Frm1", "InternalLightsRequest", 2), 0);
  unsigned char raw[8] = {0};
  ASSERT_EQ(LDF_GetFrameRawValue(h, "VL1_CEM_Frm1", raw), 0);
  EXPECT_EQ(raw[0], 0xFE) << "value 2 in bits 0-1, uncovered bits filled with ones";

  EXPECT_EQ(LDF_ExeSchToBus(h, "MySchedule1", 1), -3);
  EXPECT_EQ(LDF_ExeFrameToBus(h, "VL1_CEM_Frm1", 1), -3);
  EXPECT_EQ(LDF_Release(h), 0);
}

TEST(LoadWithoutAdapter, LdfRefusals) {
  EXPECT_EQ(LDF_LoadFile(nullptr), nullptr);
  EXPECT_EQ(LDF_LoadFile("/nonexistent/file.ldf"), nullptr);
}

}  // namespace
