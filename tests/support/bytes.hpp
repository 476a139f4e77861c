// Byte vectors in assertions: a mismatch prints both sides in hex and marks where they
// first differ, so a wrong wire payload reads at a glance.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace veltrix::test {

using Bytes = std::vector<uint8_t>;

inline std::string hex(const Bytes& b) {
  std::string s;
  char two[4];
  for (size_t i = 0; i < b.size(); ++i) {
    std::snprintf(two, sizeof two, "%02X", b[i]);
    if (i) s += ' ';
    s += two;
  }
  return s;
}

class BytesEqMatcher {
 public:
  using is_gtest_matcher = void;
  explicit BytesEqMatcher(Bytes want) : want_(std::move(want)) {}

  bool MatchAndExplain(const Bytes& got, std::ostream* os) const {
    if (got == want_) return true;
    if (os == nullptr) return false;
    size_t at = 0;
    while (at < got.size() && at < want_.size() && got[at] == want_[at]) ++at;
    *os << "\n     got (" << got.size() << " bytes): " << hex(got)
        << "\nexpected (" << want_.size() << " bytes): " << hex(want_)
        << "\n  first difference at byte " << at;
    return false;
  }
  void DescribeTo(std::ostream* os) const { *os << "equals " << hex(want_); }
  void DescribeNegationTo(std::ostream* os) const { *os << "differs from " << hex(want_); }

 private:
  Bytes want_;
};

// EXPECT_THAT(payload, BytesEq({0x01, 0x02}))
inline ::testing::Matcher<const Bytes&> BytesEq(Bytes want) {
  return BytesEqMatcher(std::move(want));
}

}  // namespace veltrix::test
