#include "dbc/name_index.hpp"

#include <cstring>

namespace veltrix::dbc {

namespace {

size_t table_size(size_t expected) {
  size_t n = 16;
  while (n < expected * 2 + 1) n <<= 1;  // at most half full: probes stay short
  return n;
}

}  // namespace

void NameIndex::reset(size_t expected) {
  slots_.assign(table_size(expected), Slot{});
  keys_.clear();
  keys_.reserve(expected);
  mask_ = slots_.size() - 1;
}

namespace {

inline uint64_t mix(uint64_t h, uint64_t w) {
  h = (h ^ w) * 0x9E3779B97F4A7C15ull;
  return h ^ (h >> 31);
}

inline uint64_t load64(const char* p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}

inline uint64_t load32(const char* p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  return w;
}

// Names are hashed on every signal read, so only the first and last eight bytes and the
// length go in: names of a database differ there almost always, and a rare collision only
// costs one more probe (keys are always compared in full).
inline uint64_t hash_bytes(uint64_t h, std::string_view s) {
  const char* p = s.data();
  const size_t n = s.size();
  uint64_t lo, hi;
  if (n >= 8) {
    lo = load64(p);
    hi = load64(p + n - 8);
  } else if (n >= 4) {
    lo = load32(p);
    hi = load32(p + n - 4);
  } else {
    lo = n ? (uint64_t(uint8_t(p[0])) | uint64_t(uint8_t(p[n / 2])) << 8 |
              uint64_t(uint8_t(p[n - 1])) << 16)
           : 0;
    hi = 0;
  }
  return mix(mix(h, lo ^ (uint64_t(n) << 56)), hi);
}

}  // namespace

uint64_t NameIndex::hash_of(std::string_view a, std::string_view b) {
  return hash_bytes(hash_bytes(0x243F6A8885A308D3ull, a), b);
}

void NameIndex::insert_first(std::string_view a, std::string_view b, uint32_t value) {
  const uint64_t h = hash_of(a, b);
  for (size_t i = h & mask_;; i = (i + 1) & mask_) {
    Slot& s = slots_[i];
    if (s.value == kMissing) {
      s.hash = h;
      s.value = value;
      s.key = uint32_t(keys_.size());
      keys_.push_back(Key{std::string(a), std::string(b)});
      return;
    }
    if (s.hash == h && keys_[s.key].a == a && keys_[s.key].b == b) return;
  }
}

uint32_t NameIndex::find(std::string_view a, std::string_view b) const {
  if (slots_.empty()) return kMissing;
  const uint64_t h = hash_of(a, b);
  for (size_t i = h & mask_;; i = (i + 1) & mask_) {
    const Slot& s = slots_[i];
    if (s.value == kMissing) return kMissing;
    if (s.hash == h && keys_[s.key].a == a && keys_[s.key].b == b) return s.value;
  }
}

void IdIndex::reset(size_t expected) {
  slots_.assign(table_size(expected), Slot{});
  mask_ = slots_.size() - 1;
}

void IdIndex::insert_first(uint32_t id, uint32_t value) {
  for (size_t i = mix(id) & mask_;; i = (i + 1) & mask_) {
    Slot& s = slots_[i];
    if (s.value == kMissing) {
      s = Slot{id, value};
      return;
    }
    if (s.id == id) return;
  }
}

}  // namespace veltrix::dbc
