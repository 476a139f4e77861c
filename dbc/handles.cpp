#include "dbc/handles.hpp"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace veltrix::dbc {

namespace {

// 1024 chunks of 1024 slots: a million databases alive at once is far beyond any use,
// and chunks are only allocated as handles are needed.
constexpr uint32_t kChunkSlots = 1024;
constexpr uint32_t kChunks = 1024;

struct Slot {
  std::atomic<DBC_Decoder*> db{nullptr};
  std::atomic<uint32_t> generation{1};  // 31 bits, never 0, so handles stay positive
};

struct HandleTable {
  std::atomic<Slot*> chunks[kChunks] = {};
  std::mutex lock;  // guards free_slots, used and chunk creation
  std::vector<uint32_t> free_slots;
  uint32_t used = 0;
};

HandleTable& table() {
  static HandleTable* t = new HandleTable();  // never destroyed: handles outlive statics
  return *t;
}

Slot* slot_of(HandleTable& t, uint32_t index) {
  const uint32_t chunk = index / kChunkSlots;
  if (chunk >= kChunks) return nullptr;
  Slot* c = t.chunks[chunk].load(std::memory_order_acquire);
  return c ? &c[index % kChunkSlots] : nullptr;
}

long long make_handle(uint32_t index, uint32_t generation) {
  return (static_cast<long long>(generation) << 32) | (static_cast<long long>(index) + 1);
}

}  // namespace

long long register_database(std::unique_ptr<DBC_Decoder> db) {
  HandleTable& t = table();
  std::scoped_lock guard(t.lock);
  uint32_t index;
  if (!t.free_slots.empty()) {
    index = t.free_slots.back();
    t.free_slots.pop_back();
  } else {
    if (t.used >= kChunks * kChunkSlots) return 0;
    index = t.used++;
    const uint32_t chunk = index / kChunkSlots;
    if (!t.chunks[chunk].load(std::memory_order_relaxed)) {
      t.chunks[chunk].store(new Slot[kChunkSlots], std::memory_order_release);
    }
  }
  Slot* s = slot_of(t, index);
  s->db.store(db.release(), std::memory_order_release);
  return make_handle(index, s->generation.load(std::memory_order_relaxed));
}

DBC_Decoder* database_of(long long handle) {
  if (handle <= 0) return nullptr;
  const uint64_t h = static_cast<uint64_t>(handle);
  const uint32_t low = uint32_t(h);
  if (low == 0) return nullptr;
  Slot* s = slot_of(table(), low - 1);
  if (!s || s->generation.load(std::memory_order_acquire) != uint32_t(h >> 32)) return nullptr;
  return s->db.load(std::memory_order_acquire);
}

bool release_database(long long handle) {
  HandleTable& t = table();
  std::scoped_lock guard(t.lock);
  DBC_Decoder* db = database_of(handle);
  if (!db) return false;
  const uint32_t index = uint32_t(static_cast<uint64_t>(handle)) - 1;
  Slot* s = slot_of(t, index);
  s->db.store(nullptr, std::memory_order_release);
  uint32_t next = (s->generation.load(std::memory_order_relaxed) + 1) & 0x7FFFFFFFu;
  s->generation.store(next ? next : 1, std::memory_order_release);
  t.free_slots.push_back(index);
  delete db;
  return true;
}

}  // namespace veltrix::dbc
