// A short list of texts, with an optional 32-bit tag each, kept in one heap block (none at
// all when the list is empty): the records of a database hold many small lists (receivers,
// value tables) that are built once and then only read, where one block instead of a
// container of strings saves both the per-string objects and the allocations.
//
// A text keeps every byte it was given, zero bytes included: its length comes from the
// stored offsets. Each is followed by a zero byte, so text(i).data() is a C string.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace veltrix::dbc {

class TextBlock {
 public:
  TextBlock() = default;
  // tags is empty or as long as texts. Throws std::length_error beyond 32-bit offsets.
  TextBlock(const std::vector<std::string_view>& texts, const std::vector<uint32_t>& tags);
  TextBlock(const TextBlock& other);
  TextBlock& operator=(const TextBlock& other);
  TextBlock(TextBlock&&) noexcept = default;
  TextBlock& operator=(TextBlock&&) noexcept = default;

  size_t size() const { return words_ ? words_[kCount] : 0; }
  // i below size(); tag() only for a block built with tags.
  uint32_t tag(size_t i) const { return words_[kHeader + i]; }
  std::string_view text(size_t i) const {
    const uint32_t* ends = offsets();
    return {texts() + ends[i], size_t(ends[i + 1] - ends[i] - 1)};
  }

  // Same texts and tags.
  friend bool operator==(const TextBlock& a, const TextBlock& b);

 private:
  // words_[kCount] texts, words_[kWords] words in all, words_[kTagged] 1 when tagged; then
  // the tags, the count + 1 start offsets (the last one is the end), then the bytes.
  static constexpr size_t kCount = 0;
  static constexpr size_t kWords = 1;
  static constexpr size_t kTagged = 2;
  static constexpr size_t kHeader = 3;

  const uint32_t* offsets() const { return words_.get() + kHeader + size() * words_[kTagged]; }
  const char* texts() const { return reinterpret_cast<const char*>(offsets() + size() + 1); }

  std::unique_ptr<uint32_t[]> words_;
};

}  // namespace veltrix::dbc
