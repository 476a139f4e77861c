// Open-addressing tables for the lookups done on every frame: message by name, signal by
// (message name, signal name), message by id. Built once after parsing; a lookup hashes
// the caller's text in place and never allocates.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veltrix::dbc {

class NameIndex {
 public:
  static constexpr uint32_t kMissing = UINT32_MAX;

  void reset(size_t expected);
  // Keeps the first value inserted under a key, so insertion in file order makes the
  // first match in file order win.
  // A key is one or two names; a table holding one-name keys passes b empty.
  void insert_first(std::string_view a, std::string_view b, uint32_t value);
  uint32_t find(std::string_view a, std::string_view b = {}) const;

 private:
  // Slots stay small so the probed table fits in cache; the key texts live apart.
  struct Slot {
    uint64_t hash = 0;
    uint32_t value = kMissing;
    uint32_t key = 0;  // index into keys_
  };
  struct Key {
    std::string a;
    std::string b;
  };
  static uint64_t hash_of(std::string_view a, std::string_view b);

  std::vector<Slot> slots_;
  std::vector<Key> keys_;
  size_t mask_ = 0;
};

class IdIndex {
 public:
  static constexpr uint32_t kMissing = UINT32_MAX;

  void reset(size_t expected);
  void insert_first(uint32_t id, uint32_t value);
  uint32_t find(uint32_t id) const {
    if (slots_.empty()) return kMissing;
    for (size_t i = mix(id) & mask_;; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (s.value == kMissing) return kMissing;
      if (s.id == id) return s.value;
    }
  }

 private:
  struct Slot {
    uint32_t id = 0;
    uint32_t value = kMissing;
  };
  static size_t mix(uint32_t id) { return size_t((uint64_t(id) * 0x9E3779B97F4A7C15ull) >> 32); }

  std::vector<Slot> slots_;
  size_t mask_ = 0;
};

}  // namespace veltrix::dbc
