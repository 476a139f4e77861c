// The reader's line rules, checked on small hand-written files.
#include <gtest/gtest.h>

#include "dbc_test_util.hpp"

namespace veltrix::dbc {
namespace {

using test::parse;
using test::signal_of;

TEST(DbcParse, IdsFrom2048AreExtendedAndNumbersTakeAnyBase) {
  auto db = parse(
      "BO_ 2048 A: 8 N\n"
      "BO_ 100 B: 8 N\n"
      "BO_ 0x64 C: 8 N\n"
      "BO_ 0100 D: 8 N\n"
      "BO_ 2047 E: 0x10 N\n"
      "BO_ 2147485672 F: 8 N\n"
      "BO_ 2024 G: 8 N\n");
  ASSERT_EQ(db->messages().size(), 7u);
  EXPECT_EQ(db->messages()[0].id, 2048u | 0x80000000u);
  EXPECT_EQ(db->messages()[1].id, 100u);
  EXPECT_EQ(db->messages()[2].id, 100u);
  EXPECT_EQ(db->messages()[3].id, 64u);
  EXPECT_EQ(db->messages()[4].id, 2047u);
  EXPECT_EQ(db->messages()[4].dlc, 16);
  EXPECT_EQ(db->messages()[5].id, 0x800007E8u);  // bit 31 already set: kept
  EXPECT_EQ(db->messages()[6].id, 2024u);        // below 2048: a standard id
}

TEST(DbcParse, MessageDefaultsAndFreeStandingColon) {
  auto db = parse("BO_ 5 Attached: 8 Node1\nBO_ 6 Loose : 7 Node2\n");
  ASSERT_EQ(db->messages().size(), 2u);
  const DBC_MESSAGE& a = db->messages()[0];
  const DBC_MESSAGE& b = db->messages()[1];
  EXPECT_EQ(a.name, "Attached");
  EXPECT_EQ(a.sender, "Node1");
  EXPECT_EQ(a.dlc, 8);
  EXPECT_EQ(a.cycleTime, 10u);
  EXPECT_EQ(a.enable, 1);
  EXPECT_EQ(a.isCanFd, 0);
  EXPECT_EQ(b.name, "Loose");
  EXPECT_EQ(b.dlc, 7);
  EXPECT_EQ(b.sender, "Node2");
}

TEST(DbcParse, LineEndingsAreNeverPartOfTokens) {
  auto lf = parse("BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"u\" A,B\n");
  auto crlf = parse("BO_ 1 M: 8 N\r\n SG_ S : 0|8@1+ (1,0) [0|0] \"u\" A,B\r\n");
  for (auto* db : {lf.get(), crlf.get()}) {
    EXPECT_EQ(db->messages()[0].sender, "N");
    EXPECT_EQ(test::names_of(signal_of(*db, 0, 0).receivers), (std::vector<std::string>{"A", "B"}));
  }
}

TEST(DbcParse, MotorolaStartBitBecomesTheLeastSignificantBit) {
  auto db = parse(
      "BO_ 1 M: 8 N\n"
      " SG_ Word : 7|16@0+ (1,0) [0|0] \"\" X\n"
      " SG_ Temp : 0|12@0- (0.01,250) [229.52|270.47] \"degK\" X\n"
      " SG_ Empty : 7|0@0+ (1,0) [0|1] \"\" X\n"
      " SG_ Intel : 3|4@1+ (1,0) [0|1] \"\" X\n");
  EXPECT_EQ(signal_of(*db, 0, 0).startBit, 8);
  EXPECT_EQ(signal_of(*db, 0, 0).byteOrder, MOTOROLA);
  EXPECT_EQ(signal_of(*db, 0, 1).startBit, 21);  // byte 0 bit 0 down to byte 2 bit 5
  EXPECT_EQ(signal_of(*db, 0, 1).isSigned, 1u);
  EXPECT_EQ(signal_of(*db, 0, 2).startBit, 8);  // length 0 yields start + 1
  EXPECT_EQ(signal_of(*db, 0, 3).startBit, 3);
  EXPECT_EQ(signal_of(*db, 0, 3).byteOrder, INTEL);
}

TEST(DbcParse, SignedIntelSignalWithSpacedUnitAndEmptyRange) {
  auto db = parse("BO_ 1 M: 8 N\n SG_ Speed : 0|12@1- (0.5,-10) [0|0] \"km h\" A,B;\n");
  const DBC_SIGNAL& s = signal_of(*db, 0, 0);
  EXPECT_EQ(s.name, "Speed");
  EXPECT_EQ(s.unit, "km h");
  EXPECT_EQ(test::names_of(s.receivers), (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(s.isSigned, 1u);
  EXPECT_EQ(s.factor, 0.5);
  EXPECT_EQ(s.offset, -10.0);
  EXPECT_EQ(s.minimum, -10.0);
  EXPECT_EQ(s.maximum, 2037.5);
  EXPECT_EQ(s.rawValue, 0u);
}

TEST(DbcParse, MultiplexTokens) {
  auto db = parse(
      "BO_ 1 M: 8 N\n"
      " SG_ Sw M : 0|4@1+ (1,0) [0|15] \"\" X\n"
      " SG_ A m3 : 8|8@1+ (1,0) [0|255] \"\" X\n"
      " SG_ B m0x10 : 8|8@1+ (1,0) [0|255] \"\" X\n"
      " SG_ Both m2M : 16|8@1+ (1,0) [0|255] \"\" X\n"
      " SG_ Plain : 24|8@1+ (1,0) [0|255] \"\" X\n"
      "SG_ Orphan : 0|8@1+ (1,0) [0|255] \"\" X\n");
  EXPECT_EQ(signal_of(*db, 0, 0).multiplexMode, MUX_SWITCH);
  EXPECT_EQ(signal_of(*db, 0, 1).multiplexMode, MUX_SELECTED);
  EXPECT_EQ(signal_of(*db, 0, 1).multiplexValue, 3);
  EXPECT_EQ(signal_of(*db, 0, 2).multiplexValue, 16);
  EXPECT_EQ(signal_of(*db, 0, 3).multiplexMode, MUX_SWITCH);
  EXPECT_EQ(signal_of(*db, 0, 4).multiplexMode, MUX_NONE);
  EXPECT_EQ(signal_of(*db, 0, 4).startBit, 24);
  EXPECT_EQ(db->messages()[0].signals.size(), 6u);  // a signal line without indent counts too
}

TEST(DbcParse, SignalsBeforeAnyMessageAreDropped) {
  auto db = parse(" SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\nBO_ 1 M: 8 N\n");
  ASSERT_EQ(db->messages().size(), 1u);
  EXPECT_TRUE(db->messages()[0].signals.empty());
}

TEST(DbcParse, CommentsValueTablesAndValueTypes) {
  auto db = parse(
      "BO_ 1 M: 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n"
      " SG_ F : 8|32@1- (1,0) [0|0] \"\" X\n"
      " SG_ G : 8|32@1- (1,0) [0|0] \"\" X\n"
      "BO_ 2 M2: 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n"
      "BO_ 2 M3: 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n"
      "CM_ BO_ 1 \"Frame; with \"quotes\"\";\n"
      "CM_ SG_ 2 S \"Shared text\";\n"
      "CM_ BU_ N \"node\";\n"
      "VAL_ 1 S 0 \"Off\" 1 \"On\" 1 \"Enabled\" -1 \"Minus\" 0x2 \"Two words\" 5 \"open ;\n"
      "SIG_VALTYPE_ 1 F : 1;\n"
      "SIG_VALTYPE_ 1 G : 7;\n");
  const DBC_MESSAGE& m = db->messages()[0];
  EXPECT_EQ(m.comment, "Frame with quotes");
  EXPECT_EQ(signal_of(*db, 1, 0).comment, "Shared text");
  EXPECT_EQ(signal_of(*db, 2, 0).comment, "Shared text");  // every message with the id
  const std::map<int32_t, std::string> table{
      {-1, "Minus"}, {0, "Off"}, {1, "Enabled"}, {2, "Two words"}};
  EXPECT_EQ(test::entries_of(m.signals[0].valueTable), table);
  EXPECT_EQ(m.signals[1].valueType, uint32_t(VALUE_FLOAT32));
  EXPECT_EQ(m.signals[2].valueType, uint32_t(VALUE_INTEGER));
}

TEST(DbcParse, AttributesCopiesAndPostPass) {
  auto db = parse(
      "BO_ 1 Cyc: 8 N\n"
      " SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n"
      "BO_ 2 Fd: 64 N\n"
      "BO_ 3 Ext: 8 N\n"
      "BO_ 2049 Std: 8 N\n"
      "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n"
      "BA_DEF_ SG_ \"GenSigStartValue\" INT 0 255;\n"
      "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"reserved\","
      "\"J1939PG\",\"StandardCAN_FD\",\"ExtendedCAN_FD\";\n"
      "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
      "BA_DEF_ \"DBName\" STRING;\n"
      "BA_DEF_DEF_ \"GenMsgCycleTime\" 100;\n"
      "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
      "BA_DEF_DEF_ \"Unknown\" 3;\n"
      "BA_ \"GenMsgCycleTime\" BO_ 1 50;\n"
      "BA_ \"GenMsgCycleTime\" BO_ 1 50;\n"
      "BA_ \"VFrameFormat\" BO_ 2 4;\n"
      "BA_ \"VFrameFormat\" BO_ 3 1;\n"
      "BA_ \"VFrameFormat\" BO_ 2147485697 0;\n"
      "BA_ \"VFrameFormat\" BO_ 1 99;\n"
      "BA_ \"GenSigStartValue\" SG_ 1 S 42;\n"
      "BA_ \"DBName\" \"Net\";\n"
      "BA_ \"GenMsgCycleTime\" BO_ 77 5;\n");
  const auto& msgs = db->messages();
  EXPECT_EQ(msgs[0].cycleTime, 50u);
  ASSERT_EQ(msgs[0].attributes.size(), 3u);  // two cycle-time copies and the bad format
  EXPECT_EQ(db->attributeCopy(msgs[0].attributes[0]).value, "50");
  EXPECT_EQ(db->attributeCopy(msgs[0].attributes[1]).value, "50");
  EXPECT_EQ(db->attributeCopy(msgs[0].attributes[1]).name, "GenMsgCycleTime");
  EXPECT_EQ(db->attributeCopy(msgs[0].attributes[2]).enumValues.size(), 6u);
  EXPECT_EQ(msgs[0].id, 1u);  // index 99 is out of range: nothing changes
  EXPECT_EQ(msgs[1].isCanFd, 1);
  EXPECT_EQ(msgs[1].bitRateSwitch, 1);  // the default, as no message assigned CANFD_BRS
  EXPECT_EQ(msgs[1].id, 2u);
  EXPECT_EQ(msgs[2].id, 0x80000003u);
  EXPECT_EQ(msgs[2].isCanFd, 0);
  EXPECT_EQ(msgs[3].id, 2049u);  // StandardCAN clears the extended bit
  EXPECT_EQ(msgs[1].cycleTime, 10u);
  const DBC_SIGNAL& s = msgs[0].signals[0];
  EXPECT_EQ(s.rawValue, 42u);
  ASSERT_EQ(s.attributes.size(), 1u);
  EXPECT_EQ(db->attributeCopy(s.attributes[0]).name, "GenSigStartValue");
  EXPECT_EQ(db->attributeCopy(s.attributes[0]).value, "42");
  // The definitions keep the last value assigned anywhere, not the default.
  EXPECT_EQ(db->attributeDefinitions()[0].value, "50");
  EXPECT_EQ(db->attributeDefinitions()[2].enumValues.size(), 6u);
  EXPECT_EQ(db->attributeDefinitions()[4].objectType, " ");
}

// A message copied into another database brings assignments whose definitions that
// database may not have: they read as an unnamed definition, never out of bounds.
TEST(DbcParse, AssignmentsFromAnotherDatabaseReadAsUnknownDefinitions) {
  auto with = parse(
      "BO_ 1 M: 8 N\n"
      "BA_DEF_ BO_ \"A\" INT 0 9;\n"
      "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 100;\n"
      "BA_ \"GenMsgCycleTime\" BO_ 1 20;\n");
  auto without = parse("BO_ 1 M: 8 N\n");
  DBC_MESSAGE copy;
  ASSERT_EQ(with->getMessage("M", &copy), 1);
  ASSERT_EQ(copy.attributes.size(), 1u);
  EXPECT_EQ(copy.attributes[0].definition, 1u);
  ASSERT_EQ(without->updateMessage("M", &copy), 1);
  const DBC_ATTRIBUTE a = without->attributeCopy(without->messages()[0].attributes[0]);
  EXPECT_EQ(a.name, "");
  EXPECT_EQ(a.value, "20");
  EXPECT_EQ(with->attributeCopy(copy.attributes[0]).name, "GenMsgCycleTime");
}

TEST(DbcParse, BitRateSwitchFollowsTheLastAssignment) {
  auto db = parse(
      "BO_ 1 Fd: 64 N\n"
      "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\";\n"
      "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
      "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
      "BA_ \"VFrameFormat\" BO_ 1 2;\n"
      "BA_ \"CANFD_BRS\" BO_ 1 0;\n");
  EXPECT_EQ(db->messages()[0].isCanFd, 1);
  EXPECT_EQ(db->messages()[0].bitRateSwitch, 0);
}

TEST(DbcParse, MissingNeededTokensRefuseTheFile) {
  struct Case {
    const char* text;
    size_t line;
  } cases[] = {
      {"BO_ 1 M: 8\n", 1},
      {"BO_ 1 M 8\n", 1},
      {"BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\nCM_ SG_ 1 S\n", 3},
      {"BA_DEF_ BO_ \"X\"\n", 1},
      {"BA_DEF_ BO_ \"X\" INT 0\n", 1},
      {"BO_ 1 M: 8 N\nBA_DEF_ BO_ \"X\" INT 0 1\nBA_ \"X\" BO_ 1\n", 3},
  };
  for (const Case& c : cases) {
    ParseFault fault;
    EXPECT_EQ(DBC_Decoder::fromText(c.text, &fault), nullptr) << c.text;
    EXPECT_EQ(fault.status, ParseStatus::MissingToken) << c.text;
    EXPECT_EQ(fault.line, c.line) << c.text;
  }
  // The same lines are harmless when they name nothing the handler must complete.
  EXPECT_TRUE(parse("CM_ SG_ 9 S\nBO_ 1 :: 8\nBA_ \"X\" BU_ N\n"));
}

TEST(DbcParse, ConstructorThrowsForRefusedFileAndIsEmptyForMissingFile) {
  test::TempFile bad("BO_ 1 M: 8\n");
  EXPECT_THROW(DBC_Decoder(bad.path(), "GBK"), DbcFormatError);
  DBC_Decoder none("/nonexistent/file.dbc", "GBK");
  EXPECT_TRUE(none.messages().empty());
}

TEST(DbcParse, NonUtf8BytesAreKept) {
  auto db = parse(
      "BO_ 1 M: 8 N\n SG_ T : 0|8@1+ (1,0) [0|0] \"\xB0"
      "C\" X\n");
  EXPECT_EQ(signal_of(*db, 0, 0).unit,
            "\xB0"
            "C");
}

TEST(DbcLookup, FirstMatchInFileOrderWins) {
  auto db = parse(
      "BO_ 1 Dup: 8 First\n"
      " SG_ A : 0|8@1+ (1,0) [0|0] \"\" X\n"
      "BO_ 2 Dup: 8 Second\n"
      " SG_ B : 0|8@1+ (1,0) [0|0] \"\" X\n"
      " SG_ B : 8|8@1+ (1,0) [0|0] \"\" X\n");
  DBC_MESSAGE copy;
  ASSERT_EQ(db->getMessage("Dup", &copy), 1);
  EXPECT_EQ(copy.sender, "First");
  DBC_SIGNAL* b = nullptr;
  ASSERT_EQ(db->getSignal("Dup", "B", &b), 1);  // found in the second message of the name
  EXPECT_EQ(b, &db->messages()[1].signals[0]);
  EXPECT_EQ(db->getSignal("dup", "B", &b), 0);  // case-sensitive
  DBC_SIGNAL renamed = *b;
  renamed.name = "C";
  ASSERT_EQ(db->updateSignal("Dup", "B", &renamed), 1);
  ASSERT_EQ(db->getSignal("Dup", "B", &b), 1);  // now the second B
  EXPECT_EQ(b, &db->messages()[1].signals[1]);
  EXPECT_EQ(db->getSignal("Dup", "C", &b), 1);

  // Renaming a whole message: the old name now finds the next message of that name, the
  // new name the renamed one, and its signals answer under the new name only.
  DBC_MESSAGE first = db->messages()[0];
  first.name = "Solo";
  ASSERT_EQ(db->updateMessage("Dup", &first), 1);
  EXPECT_EQ(db->findMessage("Dup"), 1u);
  EXPECT_EQ(db->findMessage("Solo"), 0u);
  EXPECT_EQ(db->getSignal("Dup", "A", &b), 0);
  ASSERT_EQ(db->getSignal("Solo", "A", &b), 1);
  EXPECT_EQ(b, &db->messages()[0].signals[0]);
}

}  // namespace
}  // namespace veltrix::dbc
