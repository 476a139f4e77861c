// The texts a signal's raw values stand for ("VAL_" lines): keys in ascending order, each
// once, the last text given for a key kept.
//
// Most signals have no table and a table is read far more often than built, so a table is
// one heap block (nothing at all when empty): a count, the sorted keys with the offsets of
// their texts, then the texts, each followed by a zero byte so it can be handed out as a C
// string. A text keeps every byte the file gave it, a zero byte included; its length comes
// from the offsets, never from the terminator.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace veltrix::dbc {

class ValueTable {
 public:
  struct Entry {
    int32_t key;
    std::string_view text;  // zero-terminated in the table
  };

  ValueTable() = default;
  // From (key, text) pairs in the order they were assigned: a later pair of a key replaces
  // the earlier one.
  explicit ValueTable(std::vector<std::pair<int32_t, std::string_view>> assigned);
  ValueTable(const ValueTable& other);
  ValueTable& operator=(const ValueTable& other);
  ValueTable(ValueTable&&) noexcept = default;
  ValueTable& operator=(ValueTable&&) noexcept = default;

  bool empty() const { return size() == 0; }
  size_t size() const { return words_ ? words_[kCount] : 0; }
  // Entry i in ascending key order; i below size().
  Entry operator[](size_t i) const;
  // Whether the table has key; if so *text is its text (text->data() is zero-terminated).
  bool find(int32_t key, std::string_view* text) const;
  std::string_view at(int32_t key) const;  // throws std::out_of_range for a missing key

  friend bool operator==(const ValueTable& a, const ValueTable& b);

 private:
  // words_[kCount] entries; words_[kWords] words in all; then per entry the key and the
  // byte offset of its text within the text area, then the end offset of the last text.
  static constexpr size_t kCount = 0;
  static constexpr size_t kWords = 1;
  static constexpr size_t kHeader = 2;

  const char* texts() const {
    return reinterpret_cast<const char*>(words_.get() + kHeader + 2 * size() + 1);
  }
  size_t indexOf(int32_t key) const;  // size() when missing
  uint32_t offset(size_t i) const { return words_[kHeader + 2 * i + 1]; }
  uint32_t textEnd(size_t i) const {
    return i + 1 < size() ? offset(i + 1) : words_[kHeader + 2 * size()];
  }

  std::unique_ptr<uint32_t[]> words_;
};

}  // namespace veltrix::dbc
