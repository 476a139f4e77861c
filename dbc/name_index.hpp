// Open-addressing tables for the lookups done on every frame: message by name, signal by
// (message name, signal name), message by id. Built once after parsing; a lookup hashes
// the caller's text in place and never allocates.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace veltrix::dbc {

// A name table keeps no text of its own: a slot holds a key's hash and the value stored
// under it, and the names a value stands for are read from the database's records by the
// `same` callable the caller passes (same(value) is true when the record behind value has
// exactly the key being looked up). Holding no copies halves what the tables cost, at
// one rule: the table describes the records as they were when it was filled, so whoever
// renames, adds or removes records refills it (DBC_Decoder::rebuildIndexes) before the next
// lookup. `same` must check that a value still names a record, so a table left stale by a
// caller who broke the rule answers wrongly but never reads out of bounds.
class NameIndex {
 public:
  static constexpr uint32_t kMissing = UINT32_MAX;

  static uint64_t hash_of(std::string_view a, std::string_view b = {}) {
    return hash_bytes(hash_bytes(0x243F6A8885A308D3ull, a), b);
  }

  void reset(size_t expected);

  // Stores value under the key hashed to h unless a value whose record has that key is
  // there already (same(existing) true), so insertion in file order makes the first match
  // in file order win. Returns whether value was stored.
  template <class Same>
  bool insert_first(uint64_t h, uint32_t value, const Same& same) {
    const uint32_t tag = tag_of(h);
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.value == kMissing) {
        s = Slot{tag, value};
        return true;
      }
      if (s.tag == tag && same(s.value)) return false;
    }
  }

  template <class Same>
  uint32_t find(uint64_t h, const Same& same) const {
    if (slots_.empty()) return kMissing;
    const uint32_t tag = tag_of(h);
    for (size_t i = h & mask_;; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (s.value == kMissing) return kMissing;
      if (s.tag == tag && same(s.value)) return s.value;
    }
  }

 private:
  // Slots stay small so the probed table fits in cache. The low bits of a hash choose the
  // slot and the high half is kept to skip most keys that merely share a slot; equal tags
  // still go to `same`, so a shortened hash costs a comparison, never a wrong answer.
  struct Slot {
    uint32_t tag = 0;
    uint32_t value = kMissing;
  };
  static uint32_t tag_of(uint64_t h) { return uint32_t(h >> 32); }

  static uint64_t mix(uint64_t h, uint64_t w) {
    h = (h ^ w) * 0x9E3779B97F4A7C15ull;
    return h ^ (h >> 31);
  }
  template <class W>
  static uint64_t load(const char* p) {
    W w;
    std::memcpy(&w, p, sizeof w);
    return w;
  }
  // Names are hashed on every signal read, so only the first and last eight bytes and the
  // length go in: names of a database differ there almost always, and a rare collision
  // only costs one more probe (keys are always compared in full).
  static uint64_t hash_bytes(uint64_t h, std::string_view s) {
    const char* p = s.data();
    const size_t n = s.size();
    uint64_t lo, hi;
    if (n >= 8) {
      lo = load<uint64_t>(p);
      hi = load<uint64_t>(p + n - 8);
    } else if (n >= 4) {
      lo = load<uint32_t>(p);
      hi = load<uint32_t>(p + n - 4);
    } else {
      lo = n ? (uint64_t(uint8_t(p[0])) | uint64_t(uint8_t(p[n / 2])) << 8 |
                uint64_t(uint8_t(p[n - 1])) << 16)
             : 0;
      hi = 0;
    }
    return mix(mix(h, lo ^ (uint64_t(n) << 56)), hi);
  }

  std::vector<Slot> slots_;
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
