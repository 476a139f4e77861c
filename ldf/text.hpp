// Small text helpers of the LDF reader: splitting at separator characters, brace
// matching, and the number readers. They work on std::string_view slices of the cleaned
// text, never read past a slice and never depend on the C locale.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace veltrix::ldf {

// Pieces between separators, empty pieces kept ("a;;b;" gives a, "", b, "").
std::vector<std::string_view> split(std::string_view s, char sep);

// The braced block starting at s[open] == '{', up to and including the brace that closes
// it; the rest of s when it never closes.
std::string_view braced_block(std::string_view s, size_t open);

// s without one leading '{' and one trailing '}'.
std::string_view strip_braces(std::string_view s);

// Walks a section body of "name{...}name{...}" entries, calling fn(name, inner) for each
// entry with a non-empty name (inner without its outer braces). Blocks are cut by brace
// matching, so entries whose bodies hold braces of their own stay whole.
template <typename Fn>
void for_each_named_block(std::string_view body, Fn&& fn) {
  size_t pos = 0;
  while (pos < body.size()) {
    const size_t open = body.find('{', pos);
    if (open == std::string_view::npos) return;
    const std::string_view name = body.substr(pos, open - pos);
    const std::string_view block = braced_block(body, open);
    pos = open + block.size();
    if (!name.empty()) fn(name, strip_braces(block));
  }
}

// s without one leading and one trailing double quote.
std::string_view unquote(std::string_view s);

// Integer with base prefix: decimal, 0x hexadecimal, leading-0 octal; optional sign; the
// number ends at the first character that is not a digit of its base. Values above
// INT64_MAX keep their 64-bit pattern (0xFFFFFFFFFFFFFFFF reads as -1); beyond 64 bits
// the magnitude saturates. No digits give 0.
int64_t parse_int(std::string_view s);

// Decimal integer (a leading 0 is not octal: bit offsets and sizes such as "08").
int64_t parse_dec(std::string_view s);

// Leading decimal number ("15ms" gives 15, "3.5E+02" gives 350); the unit text after it
// is ignored. No number, or one that is not finite, gives 0.
double parse_decimal(std::string_view s);

// Conversions that saturate instead of invoking undefined behaviour on out-of-range or
// NaN input (NaN gives 0). Fractions are truncated toward zero.
int32_t sat_i32(int64_t v);
int32_t sat_i32(double v);
int64_t sat_i64(double v);
float sat_f32(double v);

// All ones in the low min(bits, 64) bits; 0 for fewer than 1 bit.
uint64_t GetDataMask(int bits);

}  // namespace veltrix::ldf
