#include "peripherals/adc/frame_queue.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace veltrix::adc {

bool FrameQueue::reset(uint32_t frame_bytes, size_t max_bytes) {
  std::scoped_lock g(mutex_);
  const size_t cap = std::max<size_t>(1, max_bytes / std::max<uint32_t>(frame_bytes, 1));
  // Allocated without initialising: pages are only touched as frames arrive.
  store_.reset(new (std::nothrow) uint8_t[cap * frame_bytes]);
  if (!store_) {
    capacity_ = size_ = 0;
    return false;
  }
  counts_.assign(cap, 0);
  capacity_ = cap;
  head_ = size_ = 0;
  frame_bytes_ = frame_bytes;
  dropped_ = 0;
  return true;
}

void FrameQueue::push(const uint8_t* p, size_t n) {
  std::scoped_lock g(mutex_);
  if (capacity_ == 0) return;
  if (size_ == capacity_) {
    head_ = (head_ + 1) % capacity_;
    --size_;
    ++dropped_;
  }
  const size_t at = (head_ + size_) % capacity_;
  n = std::min<size_t>(n, frame_bytes_);
  if (n) std::memcpy(store_.get() + at * frame_bytes_, p, n);
  counts_[at] = uint32_t(n);
  ++size_;
}

size_t FrameQueue::pop_into(uint8_t* out, size_t room_bytes) {
  std::scoped_lock g(mutex_);
  size_t moved = 0;
  while (size_ > 0 && frame_bytes_ > 0 && room_bytes >= frame_bytes_) {
    const uint8_t* src = store_.get() + head_ * frame_bytes_;
    const size_t n = counts_[head_];
    std::memcpy(out, src, n);
    std::memset(out + n, 0, frame_bytes_ - n);
    out += frame_bytes_;
    room_bytes -= frame_bytes_;
    head_ = (head_ + 1) % capacity_;
    --size_;
    ++moved;
  }
  return moved;
}

uint32_t FrameQueue::dropped() const {
  std::scoped_lock g(mutex_);
  return dropped_;
}

size_t FrameQueue::frames() const {
  std::scoped_lock g(mutex_);
  return size_;
}

uint32_t FrameQueue::frame_bytes() const {
  std::scoped_lock g(mutex_);
  return frame_bytes_;
}

}  // namespace veltrix::adc
