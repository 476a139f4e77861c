// Text helpers of the DBC reader. Their exact token rules shape what the parser accepts,
// so they are kept small and literal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veltrix::dbc {

// Cuts text at any character of the delimiter set. Runs of delimiters count as one and
// empty tokens never appear (leading and trailing delimiters vanish).
std::vector<std::string> string_split(std::string_view text, std::string_view delimiters);
// The same cut at one delimiter character, as views into text; out is cleared first and
// keeps its capacity, so a reader that reuses it does not allocate per line.
void split_views(std::string_view text, char delimiter, std::vector<std::string_view>& out);

// Cuts text at every delimiter. Empty pieces between delimiters are kept; a trailing
// delimiter does not make a final empty piece, and an empty text gives no pieces.
std::vector<std::string> split(const std::string& text, char delimiter);
void split(const std::string& text, char delimiter, std::vector<std::string>& out);
// split's pieces as views into text; out is cleared first.
void split_pieces(std::string_view text, char delimiter, std::vector<std::string_view>& out);

std::string string_join(const std::vector<std::string>& parts, const std::string& separator);

// Deletes every occurrence of piece, in place; returns the result as well.
std::string string_remove(std::string& text, const std::string& piece);
void string_replace_all(std::string& text, const std::string& from, const std::string& to);

// Removes characters of the set from the end, then from the start.
void trim(std::string& text, const std::string& characters);

int GetDoubleQuoteNum(std::string_view text);

void remove_char(std::string& text, char c);
// Appends text to out without any character c.
void append_without(std::string& out, std::string_view text, char c);

// For the short tokens of a line a plain scan is cheaper than a library search.
inline bool contains(std::string_view text, char c) {
  for (char k : text) {
    if (k == c) return true;
  }
  return false;
}

// A new string of text without any character c, allocated at the text's size: a database
// keeps thousands of these, and growing a string by appending leaves spare room in it.
std::string without(std::string_view text, char c);

// Lenient number reading: text that is not a number reads as 0; "0x" is hexadecimal and a
// leading "0" octal where the base is automatic.
// Each reads a copy of the text ending at its last character, so what follows the text in
// a larger buffer never becomes part of the number.
uint64_t read_unsigned_auto(std::string_view text);
int64_t read_signed_decimal(std::string_view text);
int64_t read_signed_ll_decimal(std::string_view text);
double read_double(std::string_view text);

// Conversions that never invoke undefined behaviour: NaN gives 0, values beyond the range
// give the nearest end.
int64_t saturate_to_i64(double v);
uint64_t saturate_to_u64(double v);
int32_t saturate_to_i32(double v);

}  // namespace veltrix::dbc
