#include "ldf/text.hpp"

#include <charconv>
#include <cmath>
#include <limits>

namespace veltrix::ldf {

std::vector<std::string_view> split(std::string_view s, char sep) {
  std::vector<std::string_view> out;
  size_t start = 0;
  for (;;) {
    size_t at = s.find(sep, start);
    if (at == std::string_view::npos) {
      out.push_back(s.substr(start));
      return out;
    }
    out.push_back(s.substr(start, at - start));
    start = at + 1;
  }
}

std::string_view braced_block(std::string_view s, size_t open) {
  if (open >= s.size()) return {};
  size_t depth = 0;
  for (size_t i = open; i < s.size(); ++i) {
    if (s[i] == '{') {
      ++depth;
    } else if (s[i] == '}' && depth > 0 && --depth == 0) {
      return s.substr(open, i - open + 1);
    }
  }
  return s.substr(open);
}

std::string_view strip_braces(std::string_view s) {
  if (!s.empty() && s.front() == '{') s.remove_prefix(1);
  if (!s.empty() && s.back() == '}') s.remove_suffix(1);
  return s;
}

std::string_view unquote(std::string_view s) {
  if (!s.empty() && s.front() == '"') s.remove_prefix(1);
  if (!s.empty() && s.back() == '"') s.remove_suffix(1);
  return s;
}

namespace {

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 99;
}

std::string_view skip_blanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  return s;
}

int64_t parse_with_base(std::string_view s, bool base_prefix) {
  s = skip_blanks(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  unsigned base = 10;
  if (base_prefix && s.size() >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  } else if (base_prefix && s.size() >= 2 && s[0] == '0') {
    base = 8;
  }
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  uint64_t value = 0;
  for (char c : s) {
    unsigned d = unsigned(digit_value(c));
    if (d >= base) break;
    value = value > (kMax - d) / base ? kMax : value * base + d;
  }
  if (!negative) return int64_t(value);  // keeps the bit pattern of 64-bit values
  if (value >= uint64_t(1) << 63) return std::numeric_limits<int64_t>::min();
  return -int64_t(value);
}

}  // namespace

int64_t parse_int(std::string_view s) { return parse_with_base(s, true); }
int64_t parse_dec(std::string_view s) { return parse_with_base(s, false); }

double parse_decimal(std::string_view s) {
  s = skip_blanks(s);
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  double value = 0;
  auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || !std::isfinite(value)) return 0;
  return value;
}

int32_t sat_i32(int64_t v) {
  if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return int32_t(v);
}

int32_t sat_i32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  if (v <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  return int32_t(v);
}

int64_t sat_i64(double v) {
  if (std::isnan(v)) return 0;
  // 2^63 is the first double beyond INT64_MAX; -2^63 itself is representable.
  if (v >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (v < -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return int64_t(v);
}

float sat_f32(double v) {
  if (std::isnan(v)) return 0;
  constexpr double kMax = std::numeric_limits<float>::max();
  if (v > kMax) return std::numeric_limits<float>::max();
  if (v < -kMax) return -std::numeric_limits<float>::max();
  return float(v);
}

uint64_t GetDataMask(int bits) {
  if (bits < 1) return 0;
  if (bits >= 64) return ~uint64_t(0);
  return (uint64_t(1) << bits) - 1;
}

}  // namespace veltrix::ldf
