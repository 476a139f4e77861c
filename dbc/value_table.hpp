// The texts a signal's raw values stand for ("VAL_" lines): keys in ascending order, each
// once, the last text given for a key kept. Most signals have none, and a table is read far
// more often than built, so it is a TextBlock tagged with the keys: nothing when empty,
// one block otherwise.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "dbc/text_block.hpp"

namespace veltrix::dbc {

class ValueTable {
 public:
  struct Entry {
    int32_t key;
    std::string_view text;  // text.data() is zero-terminated
  };

  ValueTable() = default;
  // From (key, text) pairs in the order they were assigned: a later pair of a key replaces
  // the earlier one.
  explicit ValueTable(std::vector<std::pair<int32_t, std::string_view>> assigned);

  bool empty() const { return size() == 0; }
  size_t size() const { return block_.size(); }
  // Entry i in ascending key order; i below size().
  Entry operator[](size_t i) const { return Entry{int32_t(block_.tag(i)), block_.text(i)}; }
  // Whether the table has key; if so *text is its text (untouched otherwise).
  bool find(int32_t key, std::string_view* text) const;
  std::string_view at(int32_t key) const;  // throws std::out_of_range for a missing key

  friend bool operator==(const ValueTable& a, const ValueTable& b) { return a.block_ == b.block_; }

 private:
  size_t indexOf(int32_t key) const;  // size() when missing

  TextBlock block_;
};

}  // namespace veltrix::dbc
