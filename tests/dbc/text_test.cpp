#include "dbc/text.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace veltrix::dbc {
namespace {

using Tokens = std::vector<std::string>;

TEST(DbcText, SplitCollapsesDelimiterRunsAndDropsEmptyTokens) {
  EXPECT_EQ(string_split("  BO_  12 Name:;", " ;"), (Tokens{"BO_", "12", "Name:"}));
  EXPECT_EQ(string_split("", " "), Tokens{});
  EXPECT_EQ(string_split("   ", " "), Tokens{});
  // Only the given set separates: a tab stays inside the token.
  EXPECT_EQ(string_split("\tSG_ x", " "), (Tokens{"\tSG_", "x"}));
}

TEST(DbcText, SplitAtCharKeepsInnerEmptyPiecesButNoTrailingOne) {
  EXPECT_EQ(split("A,,B", ','), (Tokens{"A", "", "B"}));
  EXPECT_EQ(split("A,B,", ','), (Tokens{"A", "B"}));
  EXPECT_EQ(split(",A", ','), (Tokens{"", "A"}));
  EXPECT_EQ(split("", ','), Tokens{});
}

TEST(DbcText, RemoveRestartsFromTheBeginning) {
  std::string s = "aabbb";
  // Removing "ab" joins "a" and "bb" into a new "ab", which goes as well.
  EXPECT_EQ(string_remove(s, "ab"), "b");
  EXPECT_EQ(s, "b");
}

TEST(DbcText, ReplaceAllAndJoin) {
  std::string s = "7|16@0+";
  string_replace_all(s, "|", " ");
  string_replace_all(s, "@", " ");
  EXPECT_EQ(s, "7 16 0+");
  std::string grows = "xx";
  string_replace_all(grows, "x", "xx");  // a replacement containing its pattern terminates
  EXPECT_EQ(grows, "xxxx");
  EXPECT_EQ(string_join({"km", "h"}, " "), "km h");
  EXPECT_EQ(string_join({}, ","), "");
}

TEST(DbcText, TrimTakesTheEndThenTheStart) {
  std::string s = ";;BA_ x;;";
  trim(s, ";");
  EXPECT_EQ(s, "BA_ x");
  std::string all = "\"\"";
  trim(all, "\"");
  EXPECT_EQ(all, "");
}

TEST(DbcText, QuoteCountAndLenientNumbers) {
  EXPECT_EQ(GetDoubleQuoteNum("\"km"), 1);
  EXPECT_EQ(GetDoubleQuoteNum("\"\""), 2);
  EXPECT_EQ(read_unsigned_auto("0x64"), 100u);
  EXPECT_EQ(read_unsigned_auto("0100"), 64u);
  EXPECT_EQ(read_unsigned_auto("abc"), 0u);
  EXPECT_EQ(read_double("0.5x"), 0.5);
  EXPECT_EQ(saturate_to_u64(-1.0), UINT64_MAX);
  EXPECT_EQ(saturate_to_u64(1e30), UINT64_MAX);
  EXPECT_EQ(saturate_to_u64(9223372036854775808.0), 9223372036854775808ull);
  EXPECT_EQ(saturate_to_i64(std::nan("")), 0);
  EXPECT_EQ(saturate_to_i32(-3.9), -3);
  EXPECT_EQ(saturate_to_i32(1e12), INT32_MAX);
}

// The line splitter works on blocks of sixteen bytes: tokens and runs of spaces that start,
// end or straddle a block edge must come out as the one-character-at-a-time cut gives them.
TEST(DbcText, ViewSplitMatchesTheCopyingSplitAcrossBlockEdges) {
  uint32_t seed = 12345;
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    const int length = round % 70;
    for (int i = 0; i < length; ++i) {
      seed = seed * 1103515245u + 12345u;
      text += "  \tab;"[(seed >> 16) % 6];
    }
    std::vector<std::string_view> views;
    split_views(text, ' ', views);
    EXPECT_EQ(Tokens(views.begin(), views.end()), string_split(text, " ")) << '"' << text << '"';
  }
}

// Numbers that look plain are read without the C conversions; the results must be theirs.
TEST(DbcText, NumbersReadLikeTheLenientConversions) {
  struct Case {
    const char* text;
    uint64_t asUnsigned;
    double asDouble;
  } cases[] = {
      {"0", 0, 0.0},
      {"7", 7, 7.0},
      {"007", 7, 7.0},  // octal for an id, decimal for a double
      {"08", 0, 8.0},   // not an octal digit: the id stops at "0"
      {"0x1F", 31, 31.0},
      {"9999999999999999999", 9999999999999999999ull, 1e19},
      {"18446744073709551616", UINT64_MAX, 18446744073709551616.0},
      {"123456789012345", 123456789012345ull, 123456789012345.0},
      {"1234567890123456789", 1234567890123456789ull, 1234567890123456789.0},
      {"-5", uint64_t(-5), -5.0},
      {"+5", 5, 5.0},
      {"1e3", 1, 1000.0},
      {"\t12", 12, 12.0},
      {"0.024", 0, 0.024},
      {"-7.22", uint64_t(-7), -7.22},
      {"0.1234567890123456", 0, 0.1234567890123456},  // 16 digits: left to the conversion
      {".5", 0, 0.5},
      {"5.", 5, 5.0},
      {".", 0, 0.0},
      {"1..2", 1, 1.0},
      {"", 0, 0.0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(read_unsigned_auto(c.text), c.asUnsigned) << c.text;
    EXPECT_EQ(read_double(c.text), c.asDouble) << c.text;
  }
  EXPECT_TRUE(std::signbit(read_double("-0")));
  // A view stops at its own end, whatever digits follow it in the buffer.
  const std::string_view digits = "12345";
  EXPECT_EQ(read_unsigned_auto(digits.substr(0, 2)), 12u);
  EXPECT_EQ(read_double(digits.substr(0, 3)), 123.0);
}

}  // namespace
}  // namespace veltrix::dbc
