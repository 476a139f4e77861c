// How the ISO-TP layer reads time and pauses. The real clock by default; tests install a
// virtual clock so that STmin pauses, send retries and time-outs are checked exactly and
// without waiting. Not guarded: set it before any transfer runs.
#pragma once

#include <cstdint>

namespace veltrix::isotp {

struct Clock {
  uint64_t (*now_us)();        // monotonic time
  void (*sleep_us)(uint32_t);  // pause the calling thread
};

// The clock in use; tests assign their own and restore system_clock().
extern Clock active_clock;
Clock system_clock();

}  // namespace veltrix::isotp
