// Virtual time for the reply fuzzer. While a thread is inside a FastTime scope, every
// sleep returns at once and moves that thread's monotonic clock and gettimeofday forward
// by the time it asked to sleep, so reply time-outs, polling loops and schedule delays run
// to their end without waiting. clock_gettime(CLOCK_REALTIME) stays real: the fuzzer's
// time-out alarm reads it on the same thread. Other threads keep real time and sleeps.
#pragma once

namespace veltrix::fuzz {

class FastTime {
 public:
  FastTime();
  ~FastTime();
  FastTime(const FastTime&) = delete;
  FastTime& operator=(const FastTime&) = delete;
};

}  // namespace veltrix::fuzz
