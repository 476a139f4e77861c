#include "dbc/name_index.hpp"

namespace veltrix::dbc {

namespace {

size_t table_size(size_t expected) {
  size_t n = 16;
  while (n < expected * 2 + 1) n <<= 1;  // at most half full: probes stay short
  return n;
}

// Name tables hold a slot per signal of the file, so they are filled up to two thirds:
// half the memory of a half-full table for about one more probe on a miss.
size_t name_table_size(size_t expected) {
  size_t n = 16;
  while (n < expected + expected / 2 + 1) n <<= 1;
  return n;
}

}  // namespace

void NameIndex::reset(size_t expected) {
  slots_.assign(name_table_size(expected), Slot{});
  mask_ = slots_.size() - 1;
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
