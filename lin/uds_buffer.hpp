// The per-adapter, per-channel buffer of LIN frames that the diagnostic and LDF layers
// exchanged: LIN_UDS_BUFFER_SIZE records each, the oldest dropped first.
//
// Locking: each buffer is guarded by the LIN channel lock of its slot and channel (taken
// inside these functions, never held across I/O).
#pragma once

#include <cstdint>
#include <span>

#include "veltrix/lin.h"

namespace veltrix::lin {

inline constexpr int kBufferChannels = 4;  // the channel is taken modulo this

// The Reserved tag of a buffered record: bits 0..1 the channel, bits 2..4 the type of the
// request that produced it (1 request frame, 2 response poll).
inline uint8_t buffer_tag(uint8_t channel, uint8_t request_type) {
  return uint8_t((channel & 0x03) | (request_type & 0x07) << 2);
}

// All three return false for a slot outside 0..29.
bool buffer_append(int slot, uint8_t channel, std::span<const LIN_EX_MSG> recs);
// Takes up to out.size() records, oldest first; returns how many (or -1 for a bad slot).
int buffer_take(int slot, uint8_t channel, std::span<LIN_EX_MSG> out);
bool buffer_clear(int slot, uint8_t channel);

}  // namespace veltrix::lin
