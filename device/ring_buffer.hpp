// The bounded message queue of every receive path (CAN, CAN FD, ISO-TP, LIN): a ring of
// fixed capacity that keeps the newest entries. Appending to a full ring drops the oldest
// entry (never the new one) and counts the drop. O(1) append and drop, and no allocation
// per entry: the storage is allocated once, on the first append, so the many queues of
// adapter slots that are never used cost nothing.
//
// Not synchronised: the owner guards each ring with its channel data lock.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace veltrix {

template <typename T>
class RingBuffer {
 public:
  explicit RingBuffer(size_t capacity) : capacity_(capacity) {}

  size_t capacity() const { return capacity_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Entries discarded because the ring was full, since construction.
  uint64_t dropped() const { return dropped_; }

  // Appends v; a full ring first discards its oldest entry. Returns true when an entry
  // was discarded. A ring of capacity 0 keeps nothing: the new entry counts as dropped.
  bool push(const T& v) {
    if (capacity_ == 0) {
      ++dropped_;
      return true;
    }
    if (!slots_) slots_ = std::make_unique<T[]>(capacity_);
    bool drop = size_ == capacity_;
    if (drop) {
      head_ = next(head_);
      --size_;
      ++dropped_;
    }
    slots_[wrap(head_ + size_)] = v;
    ++size_;
    return drop;
  }

  // Appends every entry of src in order, with the same drop rule. Returns the number
  // of entries discarded.
  size_t push_all(std::span<const T> src) {
    size_t drops = 0;
    for (const T& v : src) drops += push(v) ? 1 : 0;
    return drops;
  }

  // The oldest entry, or null when empty.
  const T* peek() const { return size_ ? &slots_[head_] : nullptr; }

  // Removes the oldest entry into out; false when empty.
  bool pop(T& out) {
    if (size_ == 0) return false;
    out = slots_[head_];
    head_ = next(head_);
    --size_;
    return true;
  }

  // Moves up to out.size() entries, oldest first, into out. Returns how many.
  size_t drain(std::span<T> out) {
    size_t n = std::min(out.size(), size_);
    size_t first = std::min(n, capacity_ - head_);  // up to the end of the storage
    std::copy_n(slots_.get() + head_, first, out.data());
    std::copy_n(slots_.get(), n - first, out.data() + first);
    head_ = wrap(head_ + n);
    size_ -= n;
    return n;
  }

  // Empties the ring and keeps its storage.
  void clear() {
    head_ = 0;
    size_ = 0;
  }

  // Empties the ring and gives its storage back.
  void release() {
    clear();
    slots_.reset();
  }

 private:
  size_t wrap(size_t i) const { return i >= capacity_ ? i - capacity_ : i; }
  size_t next(size_t i) const { return wrap(i + 1); }

  size_t capacity_;
  std::unique_ptr<T[]> slots_;
  size_t head_ = 0;  // index of the oldest entry
  size_t size_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace veltrix
