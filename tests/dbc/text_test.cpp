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

}  // namespace
}  // namespace veltrix::dbc
