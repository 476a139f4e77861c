#include "lin/uds_buffer.hpp"

#include <vector>

#include "device/locks.hpp"
#include "device/ring_buffer.hpp"
#include "lin/lin_state.hpp"
#include "veltrix/lin_uds.h"

namespace veltrix::lin {
namespace {

constexpr uint32_t kSlotHandleBase = 0xFF000000u;  // the handle that stands for a slot

struct Buffers {
  // One ring per slot and channel, at slot * kBufferChannels + channel. Each is guarded by
  // the LIN channel lock of (slot handle, channel); its storage comes with the first append.
  std::vector<RingBuffer<LIN_EX_MSG>> rings;
  Buffers() {
    rings.reserve(size_t(kSlots) * kBufferChannels);
    for (int i = 0; i < kSlots * kBufferChannels; ++i) rings.emplace_back(LIN_UDS_BUFFER_SIZE);
  }
  RingBuffer<LIN_EX_MSG>& at(int slot, uint8_t channel) {
    return rings[size_t(slot) * kBufferChannels + channel % kBufferChannels];
  }
};

Buffers& buffers() {
  static Buffers b;
  return b;
}

// The lock is keyed by the slot, so every handle form that names one adapter shares it.
ChannelLock lock_for(int slot, uint8_t channel) {
  return ChannelLock(LockFamily::Lin, kSlotHandleBase | uint32_t(slot), channel % kBufferChannels);
}

bool valid(int slot) { return slot >= 0 && slot < kSlots; }

}  // namespace

bool buffer_append(int slot, uint8_t channel, std::span<const LIN_EX_MSG> recs) {
  if (!valid(slot)) return false;
  ChannelLock g = lock_for(slot, channel);
  buffers().at(slot, channel).push_all(recs);
  return true;
}

int buffer_take(int slot, uint8_t channel, std::span<LIN_EX_MSG> out) {
  if (!valid(slot)) return -1;
  ChannelLock g = lock_for(slot, channel);
  return int(buffers().at(slot, channel).drain(out));
}

bool buffer_clear(int slot, uint8_t channel) {
  if (!valid(slot)) return false;
  ChannelLock g = lock_for(slot, channel);
  buffers().at(slot, channel).clear();
  return true;
}

}  // namespace veltrix::lin
