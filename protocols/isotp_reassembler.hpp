// Reassembly of one received message from its frames, without any I/O: the response
// reader feeds it the frames of the peer and sends a flow control when told to.
#pragma once

#include <cstddef>
#include <cstdint>

#include "protocols/isotp_frames.hpp"

namespace veltrix::isotp {

class Reassembler {
 public:
  enum class Step {
    More,         // keep feeding
    FlowControl,  // a first frame arrived: answer with flow control, then keep feeding
    Done,         // length() bytes arrived
    Error,        // error() says why
  };

  // Writes at most capacity bytes to out; a longer message is still followed to its end.
  Reassembler(const FramePlan& p, uint8_t* out, size_t capacity)
      : plan_(p), out_(out), capacity_(capacity) {}

  // One frame of n bytes (n <= 64, the buffer holds 64 and is zero beyond n).
  Step feed(const uint8_t* f, int n);

  uint32_t length() const { return total_; }
  int error() const { return error_; }

 private:
  Step fail(int code) {
    error_ = code;
    return Step::Error;
  }
  void put(uint64_t at, const uint8_t* src, uint64_t n);

  FramePlan plan_;
  uint8_t* out_;
  size_t capacity_;
  uint8_t expected_ = 1;
  uint32_t received_ = 0;
  uint32_t total_ = 0;
  int error_ = 0;
};

}  // namespace veltrix::isotp
