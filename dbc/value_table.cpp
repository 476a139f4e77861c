#include "dbc/value_table.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace veltrix::dbc {

ValueTable::ValueTable(std::vector<std::pair<int32_t, std::string_view>> assigned) {
  // Stable sorting keeps a key's assignments in file order, so the last of each run wins.
  std::stable_sort(assigned.begin(), assigned.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  size_t kept = 0;
  for (size_t i = 0; i < assigned.size(); ++i) {
    if (i + 1 < assigned.size() && assigned[i + 1].first == assigned[i].first) continue;
    assigned[kept++] = assigned[i];
  }
  assigned.resize(kept);
  if (assigned.empty()) return;

  size_t textBytes = 0;
  for (const auto& [key, text] : assigned) textBytes += text.size() + 1;
  const size_t textWords = (textBytes + sizeof(uint32_t) - 1) / sizeof(uint32_t);
  const size_t words = kHeader + 2 * kept + 1 + textWords;
  // Offsets and counts are 32-bit; a line that long cannot come from a file we read.
  if (words > std::numeric_limits<uint32_t>::max() / sizeof(uint32_t))
    throw std::length_error("value table");

  words_.reset(new uint32_t[words]());
  words_[kCount] = uint32_t(kept);
  words_[kWords] = uint32_t(words);
  char* out = const_cast<char*>(texts());
  uint32_t at = 0;
  for (size_t i = 0; i < kept; ++i) {
    words_[kHeader + 2 * i] = uint32_t(assigned[i].first);
    words_[kHeader + 2 * i + 1] = at;
    std::memcpy(out + at, assigned[i].second.data(), assigned[i].second.size());
    at += uint32_t(assigned[i].second.size() + 1);  // the zero byte is already there
  }
  words_[kHeader + 2 * kept] = at;
}

ValueTable::ValueTable(const ValueTable& other) {
  if (!other.words_) return;
  const size_t words = other.words_[kWords];
  words_.reset(new uint32_t[words]);
  std::memcpy(words_.get(), other.words_.get(), words * sizeof(uint32_t));
}

ValueTable& ValueTable::operator=(const ValueTable& other) {
  if (this != &other) *this = ValueTable(other);
  return *this;
}

ValueTable::Entry ValueTable::operator[](size_t i) const {
  return Entry{int32_t(words_[kHeader + 2 * i]),
               std::string_view(texts() + offset(i), textEnd(i) - offset(i) - 1)};
}

size_t ValueTable::indexOf(int32_t key) const {
  size_t lo = 0, hi = size();
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    const int32_t k = int32_t(words_[kHeader + 2 * mid]);
    if (k == key) return mid;
    if (k < key) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return size();
}

bool ValueTable::find(int32_t key, std::string_view* text) const {
  const size_t i = indexOf(key);
  if (i == size()) return false;
  *text = (*this)[i].text;
  return true;
}

std::string_view ValueTable::at(int32_t key) const {
  const size_t i = indexOf(key);
  if (i == size()) throw std::out_of_range("no text for this value");
  return (*this)[i].text;
}

bool operator==(const ValueTable& a, const ValueTable& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const ValueTable::Entry x = a[i], y = b[i];
    if (x.key != y.key || x.text != y.text) return false;
  }
  return true;
}

}  // namespace veltrix::dbc
