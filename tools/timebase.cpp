#include "tools/timebase.hpp"

#include <sys/time.h>

namespace veltrix::tools {

uint64_t FrameClock::wall_us(uint32_t ticks) {
  // The unsigned difference read as signed is the step even across a wrap of the counter.
  elapsed_ticks_ += int32_t(ticks - last_ticks_);
  last_ticks_ = ticks;
  const int64_t us = int64_t(wall_us_) + elapsed_ticks_ * 100;
  return us < 0 ? 0 : uint64_t(us);
}

uint64_t now_wall_us() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return uint64_t(tv.tv_sec) * 1000000u + uint64_t(tv.tv_usec);
}

}  // namespace veltrix::tools
