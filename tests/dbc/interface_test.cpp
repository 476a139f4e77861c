// The exported DBC functions, driven as an application would use them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/corpus.hpp"
#include "dbc_test_util.hpp"
#include "veltrix/dbc.h"

namespace veltrix::dbc {
namespace {

using test::kDirectDevice;
using test::TempFile;

const char kDatabase[] =
    "BO_ 256 Mux: 8 ECU\n"
    " SG_ Sel M : 0|8@1+ (1,0) [0|255] \"\" X\n"
    " SG_ A m1 : 8|16@1+ (0.5,0) [0|1000] \"V\" X\n"
    " SG_ B m3 : 8|8@1+ (1,0) [0|255] \"\" X\n"
    " SG_ C : 56|8@1+ (1,0) [0|255] \"\" X\n"
    "BO_ 2147483904 ExtMsg: 8 ECU\n"
    " SG_ E : 0|8@1+ (1,0) [0|255] \"\" X\n"
    "BO_ 300 Fd: 64 ECU\n"
    " SG_ Last : 504|8@1+ (1,0) [0|255] \"\" X\n"
    " SG_ Word : 7|16@0+ (1,0) [0|65535] \"\" X\n"
    "BO_ 301 Names: 5 Node_With_Long_Name\n"
    " SG_ T : 0|8@1+ (1,0) [0|0] \"\" X\n"
    " SG_ U : 8|8@1- (1,0) [-10|10] \"\" X\n"
    " SG_ Beyond : 64|8@1+ (1,0) [0|255] \"\" X\n"
    "BO_ 302 Plain: 8 ECU\n"
    " SG_ P m1 : 0|8@1+ (1,0) [0|255] \"\" X\n"
    " SG_ Q m2 : 0|4@1+ (1,0) [0|15] \"\" X\n"
    "VAL_ 301 T 0 \"Off\" 1 \"On\";\n"
    "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\";\n"
    "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
    "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
    "BA_ \"VFrameFormat\" BO_ 300 2;\n";

class DbcInterface : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = std::make_unique<TempFile>(kDatabase);
    h_ = DBC_ParserFile(kDirectDevice, file_->path());
    ASSERT_NE(h_, 0);
  }
  void TearDown() override { EXPECT_EQ(DBC_Release(h_), DBC_OK); }

  double get(const char* msg, const char* sig, int expect = DBC_OK) {
    double v = -12345;
    EXPECT_EQ(DBC_GetSignalValue(h_, msg, sig, &v), expect) << msg << "." << sig;
    return v;
  }
  static CAN_MSG frame(uint32_t id, uint8_t ext, std::initializer_list<uint8_t> bytes) {
    CAN_MSG f{};
    f.ID = id;
    f.ExtFlag = ext;
    f.DataLen = 8;
    std::copy(bytes.begin(), bytes.end(), f.Data);
    return f;
  }

  std::unique_ptr<TempFile> file_;
  long long h_ = 0;
};

TEST(DbcParserFile, RefusesUnknownDeviceMissingAndMalformedFiles) {
  TempFile good(kDatabase);
  EXPECT_EQ(DBC_ParserFile(0x12345678, good.path()), 0);  // a device never scanned
  EXPECT_EQ(DBC_ParserFile(kDirectDevice, "/nonexistent/x.dbc"), 0);
  EXPECT_EQ(DBC_ParserFile(kDirectDevice, nullptr), 0);
  TempFile noSender("BO_ 1 M: 8\n");
  EXPECT_EQ(DBC_ParserFile(kDirectDevice, noSender.path()), 0);
  TempFile noComment("BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\nCM_ SG_ 1 S\n");
  EXPECT_EQ(DBC_ParserFile(kDirectDevice, noComment.path()), 0);
  TempFile empty("");
  long long h = DBC_ParserFile(kDirectDevice, empty.path());
  ASSERT_NE(h, 0);
  EXPECT_EQ(DBC_GetMsgQuantity(h), 0);
  char name[64];
  EXPECT_EQ(DBC_GetMsgName(h, 0, name), DBC_ERR_NOT_FOUND);
  EXPECT_EQ(DBC_Release(h), DBC_OK);
}

TEST(DbcParserFile, ReleasedAndMadeUpHandlesAreRefused) {
  TempFile good(kDatabase);
  long long h = DBC_ParserFile(kDirectDevice, good.path());
  ASSERT_NE(h, 0);
  EXPECT_EQ(DBC_Release(h), DBC_OK);
  EXPECT_EQ(DBC_Release(h), DBC_ERR_HANDLE);
  EXPECT_EQ(DBC_GetMsgQuantity(h), DBC_ERR_HANDLE);
  long long again = DBC_ParserFile(kDirectDevice, good.path());  // reuses the slot
  EXPECT_NE(again, h);
  EXPECT_EQ(DBC_GetMsgQuantity(h), DBC_ERR_HANDLE);
  EXPECT_EQ(DBC_GetMsgQuantity(again), 5);
  EXPECT_EQ(DBC_Release(again), DBC_OK);
  double v;
  CAN_MSG f{};
  for (long long bad : {0LL, -1LL, 12345LL, 0x7FFFFFFF00000001LL}) {
    EXPECT_EQ(DBC_GetMsgQuantity(bad), DBC_ERR_HANDLE);
    EXPECT_EQ(DBC_GetSignalValue(bad, "Mux", "C", &v), DBC_ERR_HANDLE);
    EXPECT_EQ(DBC_SyncCANMsgToValue(bad, &f, 1), DBC_ERR_HANDLE);
    EXPECT_EQ(DBC_SyncValueToCANMsg(bad, "Mux", &f), DBC_ERR_HANDLE);
  }
}

TEST_F(DbcInterface, ListsMessagesSignalsAndPublishers) {
  char text[64];
  EXPECT_EQ(DBC_GetMsgQuantity(h_), 5);
  ASSERT_EQ(DBC_GetMsgName(h_, 3, text), DBC_OK);
  EXPECT_STREQ(text, "Names");
  EXPECT_EQ(DBC_GetMsgName(h_, 5, text), DBC_ERR_NOT_FOUND);
  EXPECT_EQ(DBC_GetMsgName(h_, -1, text), DBC_ERR_NOT_FOUND);
  EXPECT_EQ(DBC_GetMsgSignalQuantity(h_, "Mux"), 4);
  EXPECT_EQ(DBC_GetMsgSignalQuantity(h_, "mux"), DBC_ERR_NOT_FOUND);
  ASSERT_EQ(DBC_GetMsgSignalName(h_, "Mux", 3, text), DBC_OK);
  EXPECT_STREQ(text, "C");
  std::memset(text, 'x', sizeof text);
  EXPECT_EQ(DBC_GetMsgSignalName(h_, "Mux", 4, text), DBC_ERR_NOT_FOUND);
  EXPECT_EQ(text[0], 'x');  // nothing written on failure
  ASSERT_EQ(DBC_GetMsgPublisher(h_, "Names", text), DBC_OK);
  EXPECT_STREQ(text, "Node_With_Long_Name");
  EXPECT_EQ(DBC_GetMsgPublisher(h_, "None", text), DBC_ERR_NOT_FOUND);
  EXPECT_EQ(DBC_GetMsgPublisher(h_, nullptr, text), DBC_ERR_ARGUMENT);
  EXPECT_EQ(DBC_GetMsgName(h_, 0, nullptr), DBC_ERR_ARGUMENT);
  EXPECT_EQ(DBC_SetSignalValue(h_, "Mux", "Nope", 1), DBC_ERR_NOT_FOUND);
}

TEST_F(DbcInterface, SettingAMultiplexedSignalSelectsItInTheFrame) {
  ASSERT_EQ(DBC_SetSignalValue(h_, "Mux", "A", 100), DBC_OK);  // raw 200
  ASSERT_EQ(DBC_SetSignalValue(h_, "Mux", "B", 7), DBC_OK);
  ASSERT_EQ(DBC_SetSignalValue(h_, "Mux", "C", 0x5C), DBC_OK);
  CAN_MSG f{};
  f.TimeStamp = 0xDEADBEEF;
  f.TimeStampHigh = 0x42;
  f.FrameFlags = 0xFF;
  ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "Mux", &f), DBC_OK);
  const uint8_t withB[8] = {0x03, 0x07, 0, 0, 0, 0, 0, 0x5C};  // switch 3: B, not A
  EXPECT_EQ(0, std::memcmp(f.Data, withB, 8));
  EXPECT_EQ(f.ID, 256u);
  EXPECT_EQ(f.ExtFlag, 0);
  EXPECT_EQ(f.DataLen, 8);
  EXPECT_EQ(f.FrameFlags, 0);
  EXPECT_EQ(f.TimeStamp, 0xDEADBEEFu);
  EXPECT_EQ(f.TimeStampHigh, 0x42);

  ASSERT_EQ(DBC_SetSignalValue(h_, "Mux", "A", 100), DBC_OK);
  ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "Mux", &f), DBC_OK);
  const uint8_t withA[8] = {0x01, 0xC8, 0x00, 0, 0, 0, 0, 0x5C};
  EXPECT_EQ(0, std::memcmp(f.Data, withA, 8));

  // Without a switch every signal is written, later ones over earlier ones.
  ASSERT_EQ(DBC_SetSignalValue(h_, "Plain", "P", 0xAB), DBC_OK);
  ASSERT_EQ(DBC_SetSignalValue(h_, "Plain", "Q", 0x3), DBC_OK);
  ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "Plain", &f), DBC_OK);
  EXPECT_EQ(f.Data[0], 0xA3);
}

TEST_F(DbcInterface, ReadingFollowsTheSwitchOfTheLastReceivedFrame) {
  CAN_MSG rx = frame(256, 0, {0x03, 0x2A, 0x01, 0, 0, 0, 0, 0x11});
  ASSERT_EQ(DBC_SyncCANMsgToValue(h_, &rx, 1), DBC_OK);
  EXPECT_EQ(get("Mux", "Sel"), 3.0);
  EXPECT_EQ(get("Mux", "B"), 42.0);
  EXPECT_EQ(get("Mux", "C"), 17.0);
  // A was decoded too (raw 0x012A) but its multiplex value is not selected.
  EXPECT_EQ(get("Mux", "A", DBC_ERR_MUX_INACTIVE), -12345);
  char text[64];
  EXPECT_EQ(DBC_GetSignalValueStr(h_, "Mux", "A", text), DBC_ERR_MUX_INACTIVE);

  // Setting A selects switch 1 for sending, but reading still follows the received frame.
  ASSERT_EQ(DBC_SetSignalValue(h_, "Mux", "A", 1.5), DBC_OK);
  EXPECT_EQ(get("Mux", "A", DBC_ERR_MUX_INACTIVE), -12345);
  rx = frame(256, 0, {0x01, 0x03, 0x00});
  ASSERT_EQ(DBC_SyncCANMsgToValue(h_, &rx, 1), DBC_OK);
  EXPECT_EQ(get("Mux", "A"), 1.5);
  ASSERT_EQ(DBC_GetSignalValueStr(h_, "Mux", "A", text), DBC_OK);
  EXPECT_STREQ(text, "1.500000 V");
}

TEST_F(DbcInterface, FramesMatchMessagesByIdAndExtendedFlag) {
  CAN_MSG frames[3] = {frame(0x100, 1, {0x77}), frame(0x100, 0, {0x05}), frame(0x999, 0, {1})};
  ASSERT_EQ(DBC_SyncCANMsgToValue(h_, frames, 3), DBC_OK);
  EXPECT_EQ(get("ExtMsg", "E"), 0x77);
  EXPECT_EQ(get("Mux", "Sel"), 5.0);
  // A standard frame never reaches a message with an extended id.
  CAN_MSG std100 = frame(0x100, 0, {0x66});
  ASSERT_EQ(DBC_SyncCANMsgToValue(h_, &std100, 1), DBC_OK);
  EXPECT_EQ(get("ExtMsg", "E"), 0x77);
  EXPECT_EQ(DBC_SyncCANMsgToValue(h_, nullptr, 0), DBC_OK);
  EXPECT_EQ(DBC_SyncCANMsgToValue(h_, nullptr, 2), DBC_ERR_ARGUMENT);

  CAN_MSG tx{};
  ASSERT_EQ(DBC_SetSignalValue(h_, "ExtMsg", "E", 9), DBC_OK);
  ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "ExtMsg", &tx), DBC_OK);
  EXPECT_EQ(tx.ID, 0x100u);
  EXPECT_EQ(tx.ExtFlag, 1);
  EXPECT_EQ(tx.Data[0], 9);
}

TEST_F(DbcInterface, ClassicFramesCarryOnlyEightBytes) {
  // Beyond sits past byte 7: it never spills into the record and reads 0 from a frame.
  ASSERT_EQ(DBC_SetSignalValue(h_, "Names", "Beyond", 0xEE), DBC_OK);
  CAN_MSG tx[2] = {};
  tx[1].ID = 0xA5A5A5A5;
  ASSERT_EQ(DBC_SyncValueToCANMsg(h_, "Names", &tx[0]), DBC_OK);
  EXPECT_EQ(tx[0].DataLen, 5);
  EXPECT_EQ(tx[0].TimeStampHigh, 0);
  EXPECT_EQ(tx[1].ID, 0xA5A5A5A5u);
  CAN_MSG rx = frame(301, 0, {1, 2, 3, 4, 5, 6, 7, 8});
  ASSERT_EQ(DBC_SyncCANMsgToValue(h_, &rx, 1), DBC_OK);
  EXPECT_EQ(get("Names", "Beyond"), 0.0);
}

TEST_F(DbcInterface, CanFdFramesUseAll64Bytes) {
  ASSERT_EQ(DBC_SetSignalValue(h_, "Fd", "Last", 0xAB), DBC_OK);
  ASSERT_EQ(DBC_SetSignalValue(h_, "Fd", "Word", 0x1234), DBC_OK);
  CANFD_MSG tx;
  std::memset(&tx, 0xEE, sizeof tx);
  ASSERT_EQ(DBC_SyncValueToCANFDMsg(h_, "Fd", &tx), DBC_OK);
  uint8_t expect[64] = {0x12, 0x34};
  expect[63] = 0xAB;
  EXPECT_EQ(0, std::memcmp(tx.Data, expect, 64));
  EXPECT_EQ(tx.ID, 300u);
  EXPECT_EQ(tx.DLC, 64);
  EXPECT_EQ(tx.Flags, 0x05);  // CAN FD (bit 0) with the default bit-rate switch (bit 2)
  EXPECT_EQ(tx.Reserved, 0xEE);
  EXPECT_EQ(tx.TimeStamp, 0xEEEEEEEEu);

  CANFD_MSG rx{};
  rx.ID = 300;
  rx.Data[63] = 0x42;
  rx.Data[0] = 0xBE;
  rx.Data[1] = 0xEF;
  ASSERT_EQ(DBC_SyncCANFDMsgToValue(h_, &rx, 1), DBC_OK);
  EXPECT_EQ(get("Fd", "Last"), 0x42);
  EXPECT_EQ(get("Fd", "Word"), 0xBEEF);

  CANFD_MSG ext{};
  ext.ID = 0x80000100u;  // bit 31 marks the extended identifier
  ext.Data[0] = 0x31;
  ASSERT_EQ(DBC_SyncCANFDMsgToValue(h_, &ext, 1), DBC_OK);
  EXPECT_EQ(get("ExtMsg", "E"), 0x31);

  ASSERT_EQ(DBC_SyncValueToCANFDMsg(h_, "ExtMsg", &tx), DBC_OK);
  EXPECT_EQ(tx.ID, 0x80000100u);
  EXPECT_EQ(tx.Flags, 0);
  EXPECT_EQ(tx.DLC, 8);
}

TEST(DbcCanFdFlags, FdWithoutBitRateSwitchSetsOnlyTheFdBit) {
  TempFile f(
      "BO_ 300 Fd: 64 ECU\n"
      " SG_ S : 0|8@1+ (1,0) [0|255] \"\" X\n"
      "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\";\n"
      "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
      "BA_DEF_DEF_ \"CANFD_BRS\" \"0\";\n"
      "BA_ \"VFrameFormat\" BO_ 300 2;\n");
  long long h = DBC_ParserFile(kDirectDevice, f.path());
  ASSERT_NE(h, 0);
  CANFD_MSG tx{};
  ASSERT_EQ(DBC_SyncValueToCANFDMsg(h, "Fd", &tx), DBC_OK);
  EXPECT_EQ(tx.Flags, 0x01);  // bit 0 CAN FD, bit 2 (bit-rate switch) clear
  DBC_Release(h);
}

TEST_F(DbcInterface, ValuesAreClampedAndFormatted) {
  char text[64];
  ASSERT_EQ(DBC_SetSignalValue(h_, "Names", "U", 50), DBC_OK);
  EXPECT_EQ(get("Names", "U"), 10.0);
  ASSERT_EQ(DBC_SetSignalValue(h_, "Names", "U", -3), DBC_OK);
  ASSERT_EQ(DBC_GetSignalValueStr(h_, "Names", "U", text), DBC_OK);
  EXPECT_STREQ(text, "-3.000000 ");  // the space stays with an empty unit
  ASSERT_EQ(DBC_SetSignalValue(h_, "Names", "T", 1), DBC_OK);
  ASSERT_EQ(DBC_GetSignalValueStr(h_, "Names", "T", text), DBC_OK);
  EXPECT_STREQ(text, "On");
  ASSERT_EQ(DBC_SetSignalValue(h_, "Names", "T", 200), DBC_OK);
  ASSERT_EQ(DBC_GetSignalValueStr(h_, "Names", "T", text), DBC_OK);
  EXPECT_STREQ(text, "200");
  EXPECT_EQ(DBC_GetSignalValueStr(h_, "Names", "T", nullptr), DBC_ERR_ARGUMENT);
  EXPECT_EQ(DBC_GetSignalValue(h_, "Names", "T", nullptr), DBC_ERR_ARGUMENT);
}

// Sets every signal of every message of a file to a value in its range, packs the frame,
// decodes it again and compares; counts the signal values compared in *checked.
void round_trip_every_signal(const std::string& path, size_t* checked_out) {
  long long h = DBC_ParserFile(kDirectDevice, path.c_str());
  ASSERT_NE(h, 0);
  auto meta = DBC_Decoder::load(path, nullptr);  // ranges and layouts, to pick values
  ASSERT_TRUE(meta);
  uint64_t pattern = 0x9E3779B97F4A7C15ull;
  size_t checked = 0;
  for (uint32_t mi = 0; mi < meta->messages().size(); ++mi) {
    const DBC_MESSAGE& m = meta->messages()[mi];
    if (meta->findMessage(m.name) != mi) continue;  // a repeated name reaches the first
    std::vector<std::pair<std::string, double>> sent;
    for (const DBC_SIGNAL& s : m.signals) {
      if (s.multiplexMode == MUX_SELECTED) continue;  // only one of them travels
      pattern = pattern * 6364136223846793005ull + 1442695040888963407ull;
      DBC_SIGNAL probe = s;
      probe.rawValue = pattern >> 20;
      const double value = DBC_Decoder::getSignalRealValue(&probe);
      if (value < s.minimum || value > s.maximum) continue;  // would be clamped
      ASSERT_EQ(DBC_SetSignalValue(h, m.name.c_str(), s.name.c_str(), value), DBC_OK);
      sent.emplace_back(s.name, value);
    }
    if (m.dlc > 8) {  // only a CAN FD record carries the bytes past the eighth
      CANFD_MSG f{};
      ASSERT_EQ(DBC_SyncValueToCANFDMsg(h, m.name.c_str(), &f), DBC_OK);
      EXPECT_EQ(f.ID, m.id);
      ASSERT_EQ(DBC_SyncCANFDMsgToValue(h, &f, 1), DBC_OK);
    } else {
      CAN_MSG f{};
      ASSERT_EQ(DBC_SyncValueToCANMsg(h, m.name.c_str(), &f), DBC_OK);
      EXPECT_EQ(f.ID | (uint32_t(f.ExtFlag) << 31), m.id);
      EXPECT_EQ(f.DataLen, m.dlc);
      ASSERT_EQ(DBC_SyncCANMsgToValue(h, &f, 1), DBC_OK);
    }
    for (const auto& [name, value] : sent) {
      double back = 0;
      ASSERT_EQ(DBC_GetSignalValue(h, m.name.c_str(), name.c_str(), &back), DBC_OK);
      EXPECT_DOUBLE_EQ(back, value) << m.name << "." << name;
      ++checked;
    }
  }
  EXPECT_EQ(DBC_Release(h), DBC_OK);
  *checked_out = checked;
}

TEST(DbcInterfaceFixture, EverySignalOfTheSuitesFileRoundTripsThroughAFrame) {
  size_t checked = 0;
  round_trip_every_signal(test::fixture("body_gateway.dbc"), &checked);
  EXPECT_GE(checked, 15u);
}

TEST(DbcInterfaceFixture, AClassicRecordNeverCarriesALengthBeyondItsEightBytes) {
  const long long h = DBC_ParserFile(kDirectDevice, test::fixture("body_gateway.dbc").c_str());
  ASSERT_NE(h, 0);
  CAN_MSG f{};
  f.DataLen = 0xEE;
  ASSERT_EQ(DBC_SyncValueToCANMsg(h, "ICM_Display", &f), DBC_OK);  // 64 bytes in the file
  EXPECT_EQ(f.DataLen, 8);
  ASSERT_EQ(DBC_SyncValueToCANMsg(h, "BCM_Lamps", &f), DBC_OK);
  EXPECT_EQ(f.DataLen, 6);
  EXPECT_EQ(DBC_Release(h), DBC_OK);
}

class DbcInterfaceCorpus : public veltrix::test::CorpusTest {};

TEST_F(DbcInterfaceCorpus, EverySignalOfALargeFileRoundTripsThroughAFrame) {
  size_t checked = 0;
  round_trip_every_signal(test::corpus("vw_mlb.dbc"), &checked);
  EXPECT_GT(checked, 500u);
}

}  // namespace
}  // namespace veltrix::dbc
