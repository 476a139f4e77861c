// The bounded queue between a stream's completion routine and ADC_GetData.
//
// Frames are stored in one block allocated when the stream starts, so a frame costs no
// allocation; when the block is full the oldest frame is dropped and counted. Everything
// is guarded by the queue's own mutex, a leaf lock held only for a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace veltrix::adc {

class FrameQueue {
 public:
  // Empties the queue and sizes it for frames of frame_bytes, keeping at most max_bytes
  // (at least one frame). False if the storage cannot be allocated.
  bool reset(uint32_t frame_bytes, size_t max_bytes);
  // Appends a frame of n bytes (cut to the frame size), dropping the oldest when full.
  void push(const uint8_t* p, size_t n);
  // Moves whole frames into out while another frame fits into room_bytes; a frame that
  // came short is padded with zeros. Returns the number of frames moved.
  size_t pop_into(uint8_t* out, size_t room_bytes);
  uint32_t dropped() const;
  size_t frames() const;
  uint32_t frame_bytes() const;

 private:
  mutable std::mutex mutex_;
  std::unique_ptr<uint8_t[]> store_;  // guarded by mutex_; capacity_ slots of frame_bytes_
  std::vector<uint32_t> counts_;      // guarded by mutex_; bytes held in each slot
  size_t capacity_ = 0;               // guarded by mutex_
  size_t head_ = 0;                   // guarded by mutex_; oldest slot
  size_t size_ = 0;                   // guarded by mutex_
  uint32_t frame_bytes_ = 0;          // guarded by mutex_
  uint32_t dropped_ = 0;              // guarded by mutex_
};

}  // namespace veltrix::adc
