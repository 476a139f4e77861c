#include "dbc/text.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace veltrix::dbc {

std::vector<std::string> string_split(std::string_view text, std::string_view delimiters) {
  std::vector<std::string> out;
  if (delimiters.size() == 1) {  // the common case: lines are cut at spaces
    const char d = delimiters[0];
    const char* p = text.data();
    const char* end = p + text.size();
    while (p < end) {
      while (p < end && *p == d) ++p;
      if (p == end) break;
      const void* hit = std::memchr(p, d, size_t(end - p));
      const char* stop = hit ? static_cast<const char*>(hit) : end;
      out.emplace_back(p, size_t(stop - p));
      p = stop;
    }
    return out;
  }
  size_t pos = 0;
  while (pos < text.size()) {
    size_t begin = text.find_first_not_of(delimiters, pos);
    if (begin == std::string_view::npos) break;
    size_t end = text.find_first_of(delimiters, begin);
    if (end == std::string_view::npos) end = text.size();
    out.emplace_back(text.substr(begin, end - begin));
    pos = end;
  }
  return out;
}

void split_views(std::string_view text, char delimiter, std::vector<std::string_view>& out) {
  out.clear();
  const char* base = text.data();
  const size_t n = text.size();
  size_t i = 0;
  size_t start = 0;
  bool inToken = false;
#if defined(__SSE2__)
  // Sixteen bytes at a time: a mask of the delimiter bytes, and from it the positions
  // where a run of delimiters gives way to a token or a token to delimiters.
  const __m128i d = _mm_set1_epi8(delimiter);
  for (; i + 16 <= n; i += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(base + i));
    const uint32_t delims = uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, d)));
    const uint32_t before = (delims << 1) | (inToken ? 0u : 1u);  // bit k: byte k-1 delimits
    uint32_t changes = (delims ^ before) & 0xFFFFu;
    while (changes) {
      const size_t at = i + size_t(__builtin_ctz(changes));
      if (inToken) {
        out.emplace_back(base + start, at - start);
      } else {
        start = at;
      }
      inToken = !inToken;
      changes &= changes - 1;
    }
  }
#endif
  for (; i < n; ++i) {
    const bool delim = base[i] == delimiter;
    if (inToken && delim) {
      out.emplace_back(base + start, i - start);
      inToken = false;
    } else if (!inToken && !delim) {
      start = i;
      inToken = true;
    }
  }
  if (inToken) out.emplace_back(base + start, n - start);
}

void split_pieces(std::string_view text, char delimiter, std::vector<std::string_view>& out) {
  out.clear();
  if (text.empty()) return;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != delimiter) continue;
    out.push_back(text.substr(start, i - start));
    start = i + 1;
  }
  if (start < text.size()) out.push_back(text.substr(start));  // no piece after a final one
}

void split(const std::string& text, char delimiter, std::vector<std::string>& out) {
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find(delimiter, pos);
    if (end == std::string::npos) end = text.size();
    out.emplace_back(text, pos, end - pos);
    pos = end + 1;
  }
}

std::vector<std::string> split(const std::string& text, char delimiter) {
  std::vector<std::string> out;
  split(text, delimiter, out);
  return out;
}

std::string string_join(const std::vector<std::string>& parts, const std::string& separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += separator;
    out += parts[i];
  }
  return out;
}

std::string string_remove(std::string& text, const std::string& piece) {
  if (piece.empty()) return text;
  // Searching again from the start means a removal that joins two halves into a new
  // occurrence removes that one too.
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece)) {
    text.erase(at, piece.size());
  }
  return text;
}

void string_replace_all(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return;
  // Each search restarts at the beginning; a replacement that contains `from` would never
  // end, so such a pair resumes after the inserted text instead.
  const bool self_containing = to.find(from) != std::string::npos;
  size_t resume = 0;
  for (size_t at = text.find(from); at != std::string::npos;) {
    text.replace(at, from.size(), to);
    resume = at + to.size();
    at = text.find(from, self_containing ? resume : 0);
  }
}

void trim(std::string& text, const std::string& characters) {
  size_t end = text.find_last_not_of(characters);
  if (end == std::string::npos) {
    text.clear();
    return;
  }
  text.erase(end + 1);
  text.erase(0, text.find_first_not_of(characters));
}

int GetDoubleQuoteNum(std::string_view text) {
  return int(std::count(text.begin(), text.end(), '"'));
}

void remove_char(std::string& text, char c) {
  text.erase(std::remove(text.begin(), text.end(), c), text.end());
}

void append_without(std::string& out, std::string_view text, char c) {
  size_t pos = 0;
  while (pos < text.size()) {  // the stretches between occurrences, each in one copy
    size_t stop = text.find(c, pos);
    if (stop == std::string_view::npos) stop = text.size();
    out.append(text.data() + pos, stop - pos);
    pos = stop + 1;
  }
}

std::string without(std::string_view text, char c) {
  if (!contains(text, c)) return std::string(text);
  std::string out(text.size(), '\0');
  size_t n = 0;
  for (char k : text) {
    if (k != c) out[n++] = k;
  }
  out.resize(n);
  return out;
}

namespace {

// The C conversions need a terminated string; numbers in a file are short, so the copy
// lives on the stack unless the text is unusually long.
template <typename Fn>
auto with_terminated(std::string_view text, Fn&& convert) {
  char local[64];
  if (text.size() < sizeof local) {
    if (!text.empty()) std::memcpy(local, text.data(), text.size());  // an empty view may be null
    local[text.size()] = '\0';
    return convert(static_cast<const char*>(local));
  }
  const std::string copy(text);
  return convert(copy.c_str());
}

// Plain decimal digits, not starting with 0 (octal) unless the whole text is "0", and too
// few to overflow: the value the conversion would give, computed without it.
bool plain_decimal(std::string_view text, size_t maxDigits, uint64_t* value) {
  if (text.empty() || text.size() > maxDigits || (text[0] == '0' && text.size() > 1)) {
    return false;
  }
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + uint64_t(c - '0');
  }
  *value = v;
  return true;
}

}  // namespace

uint64_t read_unsigned_auto(std::string_view text) {
  uint64_t v;
  if (plain_decimal(text, 19, &v)) return v;
  return with_terminated(text, [](const char* s) { return std::strtoull(s, nullptr, 0); });
}

int64_t read_signed_decimal(std::string_view text) {
  return with_terminated(text, [](const char* s) { return int64_t(std::strtol(s, nullptr, 10)); });
}

int64_t read_signed_ll_decimal(std::string_view text) {
  return with_terminated(text, [](const char* s) { return int64_t(std::strtoll(s, nullptr, 10)); });
}

namespace {

// "[-]digits[.digits]" with at most 15 digits in all: the digits as an integer and the
// count after the point. Both the integer and the power of ten are then exact doubles, so
// one division rounds exactly as the conversion does.
bool plain_fraction(std::string_view text, uint64_t* digits, int* decimals) {
  uint64_t v = 0;
  int count = 0;
  int after = -1;  // digits after the point; -1 before any point
  for (char c : text) {
    if (c == '.' && after < 0) {
      after = 0;
      continue;
    }
    if (c < '0' || c > '9' || ++count > 15) return false;
    v = v * 10 + uint64_t(c - '0');
    if (after >= 0) ++after;
  }
  if (count == 0) return false;  // "", "." and "-" are left to the conversion
  *digits = v;
  *decimals = after < 0 ? 0 : after;
  return true;
}

}  // namespace

double read_double(std::string_view text) {
  static constexpr double kPowers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                       1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  // The sign is applied to the double, so "-0" gives -0.0 as the conversion does.
  const bool negative = !text.empty() && text[0] == '-';
  uint64_t digits;
  int decimals;
  if (plain_fraction(negative ? text.substr(1) : text, &digits, &decimals)) {
    const double d = double(digits) / kPowers[decimals];
    return negative ? -d : d;
  }
  return with_terminated(text, [](const char* s) { return std::strtod(s, nullptr); });
}

int64_t saturate_to_i64(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775808.0) return INT64_MAX;
  if (v < -9223372036854775808.0) return INT64_MIN;
  return int64_t(v);
}

uint64_t saturate_to_u64(double v) {
  // Values from 2^63 up go through the unsigned range; negative values wrap the way a
  // signed conversion followed by a reinterpretation does (-1 gives all ones).
  if (std::isnan(v)) return 0;
  if (v >= 18446744073709551616.0) return UINT64_MAX;
  if (v >= 9223372036854775808.0) return uint64_t(v);
  return uint64_t(saturate_to_i64(v));
}

int32_t saturate_to_i32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483648.0) return INT32_MAX;
  if (v <= -2147483649.0) return INT32_MIN;
  return int32_t(v);
}

}  // namespace veltrix::dbc
