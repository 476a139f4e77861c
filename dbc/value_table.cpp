#include "dbc/value_table.hpp"

#include <algorithm>
#include <stdexcept>

namespace veltrix::dbc {

ValueTable::ValueTable(std::vector<std::pair<int32_t, std::string_view>> assigned) {
  // Stable sorting keeps a key's assignments in file order, so the last of each run wins.
  std::stable_sort(assigned.begin(), assigned.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string_view> texts;
  std::vector<uint32_t> keys;
  texts.reserve(assigned.size());
  keys.reserve(assigned.size());
  for (size_t i = 0; i < assigned.size(); ++i) {
    if (i + 1 < assigned.size() && assigned[i + 1].first == assigned[i].first) continue;
    keys.push_back(uint32_t(assigned[i].first));
    texts.push_back(assigned[i].second);
  }
  block_ = TextBlock(texts, keys);
}

size_t ValueTable::indexOf(int32_t key) const {
  size_t lo = 0, hi = size();
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    const int32_t k = int32_t(block_.tag(mid));
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
  *text = block_.text(i);
  return true;
}

std::string_view ValueTable::at(int32_t key) const {
  const size_t i = indexOf(key);
  if (i == size()) throw std::out_of_range("no text for this value");
  return block_.text(i);
}

}  // namespace veltrix::dbc
