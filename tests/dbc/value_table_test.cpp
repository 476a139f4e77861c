// Value tables and receiver lists as the reader builds them, and as copies keep them.
#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

#include "dbc_test_util.hpp"

namespace veltrix::dbc {
namespace {

struct TableCase {
  const char* what;
  std::string text;  // what follows the signal name on the line
  std::map<int32_t, std::string> entries;
};

class DbcValueTable : public ::testing::TestWithParam<TableCase> {};

TEST_P(DbcValueTable, KeysAscendLastTextWinsAndLookupsAgree) {
  const TableCase& c = GetParam();
  const ValueTable table = DBC_Decoder::getValueTable(c.text);
  EXPECT_EQ(test::entries_of(table), c.entries);
  for (const auto& [key, text] : c.entries) {
    std::string_view found;
    ASSERT_TRUE(table.find(key, &found)) << key;
    EXPECT_EQ(found, text);
    EXPECT_EQ(found.data()[found.size()], '\0');  // handed out as a C string
    EXPECT_EQ(table.at(key), text);
  }
  std::string_view untouched = "kept";
  EXPECT_FALSE(table.find(123456, &untouched));
  EXPECT_EQ(untouched, "kept");
  EXPECT_THROW(table.at(123456), std::out_of_range);

  const ValueTable copy = table;  // signals with one id share a line's table by copying
  EXPECT_TRUE(copy == table);
  EXPECT_EQ(test::entries_of(copy), c.entries);
  ValueTable assigned = DBC_Decoder::getValueTable("9 \"other\"");
  assigned = copy;
  EXPECT_EQ(test::entries_of(assigned), c.entries);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DbcValueTable,
    ::testing::Values(
        TableCase{"repeated key", "1 \"a\" 2 \"b\" 1 \"c\" 1 \"d\"", {{1, "d"}, {2, "b"}}},
        TableCase{"signed order", "3 \"c\" -2 \"m\" 0 \"z\"", {{-2, "m"}, {0, "z"}, {3, "c"}}},
        TableCase{"extremes",
                  "0x7FFFFFFF \"max\" 0x80000000 \"min\"",
                  {{INT_MIN, "min"}, {INT_MAX, "max"}}},
        TableCase{"empty texts", "5 \"\" 4 \"x\" 6 \"\"", {{4, "x"}, {5, ""}, {6, ""}}},
        TableCase{"unterminated last pair", "1 \"a\" 2 \"b", {{1, "a"}}},
        TableCase{"zero byte inside",
                  std::string("7 \"a\0b\" 8 \"c\"", 14),
                  {{7, std::string("a\0b", 3)}, {8, "c"}}},
        TableCase{"no pairs", "", {}}),
    [](const auto& info) {
      std::string name = info.param.what;
      for (char& ch : name)
        if (ch == ' ') ch = '_';
      return name;
    });

}  // namespace
}  // namespace veltrix::dbc

namespace veltrix::dbc {
namespace {

// Receivers are the last token of a signal line split at commas, each piece kept as written.
TEST(DbcReceivers, PiecesOfTheLastTokenSurviveCopiesAndUpdates) {
  struct Case {
    const char* token;
    std::vector<std::string> names;
  };
  const Case cases[] = {
      {"A,B", {"A", "B"}},
      {"A,,B", {"A", "", "B"}},
      {"A,", {"A"}},
      {",A", {"", "A"}},
      {"Node_Name_Longer_Than_Sixteen,Y", {"Node_Name_Longer_Than_Sixteen", "Y"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.token);
    auto db = test::parse(std::string("BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" ") + c.token +
                          "\n");
    ASSERT_EQ(db->messages().size(), 1u);
    ASSERT_EQ(db->messages()[0].signals.size(), 1u);
    const NameList& parsed = db->messages()[0].signals[0].receivers;
    EXPECT_EQ(test::names_of(parsed), c.names);
    for (size_t i = 0; i < parsed.size(); ++i) EXPECT_EQ(parsed[i].data()[parsed[i].size()], '\0');

    DBC_SIGNAL copy;
    ASSERT_EQ(db->getSignal("M", "S", &copy), 1);
    EXPECT_TRUE(copy.receivers == parsed);
    copy.receivers = NameList({"Z"});
    ASSERT_EQ(db->updateSignal("M", "S", &copy), 1);
    EXPECT_EQ(test::names_of(db->messages()[0].signals[0].receivers),
              (std::vector<std::string>{"Z"}));
  }
}

// Signals naming the same receivers share one list: replacing one signal's list leaves the
// others as read, and a copy taken out of the database keeps its list after the database
// is gone.
TEST(DbcReceivers, SharedListsKeepValueSemantics) {
  auto db = test::parse(
      "BO_ 1 M: 8 N\n"
      " SG_ A : 0|8@1+ (1,0) [0|0] \"\" X,Y\n"
      " SG_ B : 8|8@1+ (1,0) [0|0] \"\" X,Y\n"
      "BO_ 2 P: 8 N\n"
      " SG_ C : 0|8@1+ (1,0) [0|0] \"\" X,Y\n");
  DBC_SIGNAL a;
  ASSERT_EQ(db->getSignal("M", "A", &a), 1);
  a.receivers = NameList({"Z"});
  ASSERT_EQ(db->updateSignal("M", "A", &a), 1);
  const std::vector<std::string> xy{"X", "Y"};
  EXPECT_EQ(test::names_of(db->messages()[0].signals[0].receivers), std::vector<std::string>{"Z"});
  EXPECT_EQ(test::names_of(db->messages()[0].signals[1].receivers), xy);
  EXPECT_EQ(test::names_of(db->messages()[1].signals[0].receivers), xy);

  DBC_SIGNAL kept;
  ASSERT_EQ(db->getSignal("P", "C", &kept), 1);
  db.reset();
  EXPECT_EQ(test::names_of(kept.receivers), xy);
}

}  // namespace
}  // namespace veltrix::dbc
