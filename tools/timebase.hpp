// Wall-clock time for the adapter's frame times. The adapter counts in 100 us units from
// its own reset; a log needs epoch time. An anchor pairs one adapter reading with the
// host's clock, and each frame is placed by its distance from the previous one, so the
// adapter counter may wrap (32 bits of 100 us: about 119 hours) during a long recording.
#pragma once

#include <cstdint>

namespace veltrix::tools {

class FrameClock {
 public:
  // wall_us: host time in microseconds since the epoch when the adapter read ticks.
  FrameClock(uint64_t wall_us, uint32_t ticks) : wall_us_(wall_us), last_ticks_(ticks) {}

  // Epoch microseconds of a frame stamped with ticks (low 32 bits of the frame time).
  // Frames must come roughly in order: within 59 hours of the one before.
  uint64_t wall_us(uint32_t ticks);

 private:
  uint64_t wall_us_;
  uint32_t last_ticks_;
  int64_t elapsed_ticks_ = 0;  // from the anchor to last_ticks_
};

// The host's clock in microseconds since the epoch.
uint64_t now_wall_us();

}  // namespace veltrix::tools
