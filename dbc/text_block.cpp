#include "dbc/text_block.hpp"

#include <cstring>
#include <limits>
#include <stdexcept>

namespace veltrix::dbc {

TextBlock::TextBlock(const std::vector<std::string_view>& texts,
                     const std::vector<uint32_t>& tags) {
  if (texts.empty()) return;
  const size_t count = texts.size();
  const size_t tagged = tags.empty() ? 0 : 1;
  if (tagged && tags.size() != count) throw std::invalid_argument("one tag per text");
  size_t bytes = 0;
  for (std::string_view t : texts) bytes += t.size() + 1;
  const size_t words = kHeader + count * tagged + count + 1 + (bytes + 3) / 4;
  if (bytes > std::numeric_limits<uint32_t>::max() ||
      words > std::numeric_limits<uint32_t>::max()) {
    throw std::length_error("text block");
  }
  words_.reset(new uint32_t[words]());  // zeroed: terminators and padding included
  words_[kCount] = uint32_t(count);
  words_[kWords] = uint32_t(words);
  words_[kTagged] = uint32_t(tagged);
  if (tagged) std::memcpy(words_.get() + kHeader, tags.data(), count * sizeof(uint32_t));
  uint32_t* ends = words_.get() + kHeader + count * tagged;
  char* out = reinterpret_cast<char*>(ends + count + 1);
  uint32_t at = 0;
  for (size_t i = 0; i < count; ++i) {
    ends[i] = at;
    std::memcpy(out + at, texts[i].data(), texts[i].size());
    at += uint32_t(texts[i].size() + 1);
  }
  ends[count] = at;
}

TextBlock::TextBlock(const TextBlock& other) {
  if (!other.words_) return;
  const size_t words = other.words_[kWords];
  words_.reset(new uint32_t[words]);
  std::memcpy(words_.get(), other.words_.get(), words * sizeof(uint32_t));
}

TextBlock& TextBlock::operator=(const TextBlock& other) {
  if (this != &other) *this = TextBlock(other);
  return *this;
}

bool operator==(const TextBlock& a, const TextBlock& b) {
  // A block's words follow from its texts and tags alone (padding is zeroed).
  if (!a.words_ || !b.words_) return a.size() == b.size();
  return a.words_[TextBlock::kWords] == b.words_[TextBlock::kWords] &&
         std::memcmp(a.words_.get(), b.words_.get(),
                     a.words_[TextBlock::kWords] * sizeof(uint32_t)) == 0;
}

}  // namespace veltrix::dbc
