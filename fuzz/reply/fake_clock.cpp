#include "fuzz/reply/fake_clock.hpp"

#include <sanitizer/common_interface_defs.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace veltrix::fuzz {
namespace {

thread_local bool t_fast = false;
// Time slept virtually so far; only ever grows, so the clocks seen inside fast scopes
// never run backwards.
thread_local int64_t t_skipped_ns = 0;

// Saturates instead of overflowing: callers may ask for "forever".
constexpr int64_t kClockReadNs = 1000000;

int64_t to_ns(const timespec& t) {
  int64_t ns = 0;
  if (__builtin_mul_overflow(int64_t(t.tv_sec), int64_t(1000000000), &ns) ||
      __builtin_add_overflow(ns, int64_t(t.tv_nsec), &ns))
    return t.tv_sec < 0 ? INT64_MIN : INT64_MAX;
  return ns;
}

timespec from_ns(int64_t ns) { return timespec{time_t(ns / 1000000000), long(ns % 1000000000)}; }

// No call of the library has a reason to wait this long; a longer sleep is a hang,
// whatever reply it was computed from.
constexpr int64_t kLongestSleepNs = int64_t(3600) * 1000000000;

void skip(int64_t ns) {
  if (ns > kLongestSleepNs) {
    std::fprintf(stderr, "fake clock: a sleep of %lld s\n", (long long)(ns / 1000000000));
    __sanitizer_print_stack_trace();
    std::abort();
  }
  if (ns > 0) t_skipped_ns += ns;
}

int real_clock_gettime(clockid_t id, timespec* ts) {
  return int(syscall(SYS_clock_gettime, id, ts));
}

}  // namespace

FastTime::FastTime() { t_fast = true; }
FastTime::~FastTime() { t_fast = false; }

}  // namespace veltrix::fuzz

using namespace veltrix::fuzz;

// Exported, so that the C++ runtime's sleeps and clocks bind to these as well.
#define FAKE_CLOCK_API __attribute__((visibility("default")))

extern "C" {

FAKE_CLOCK_API int clock_gettime(clockid_t id, struct timespec* ts) {
  int r = real_clock_gettime(id, ts);
  // The wall clock stays real: the fuzzer's own time-out alarm reads it on this thread.
  if (r != 0 || !t_fast || id == CLOCK_REALTIME) return r;
  // Each look at the clock costs a little time, so that a loop that polls without
  // sleeping (an exchange refused before it reaches the adapter) still reaches its end.
  skip(kClockReadNs);
  ts->tv_sec += time_t(t_skipped_ns / 1000000000);
  ts->tv_nsec += long(t_skipped_ns % 1000000000);
  if (ts->tv_nsec >= 1000000000) {
    ++ts->tv_sec;
    ts->tv_nsec -= 1000000000;
  }
  return r;
}

// The library's millisecond wall clock (frame times) advances with the sleeps.
FAKE_CLOCK_API int gettimeofday(struct timeval* tv, void*) {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  if (t_fast) ts = from_ns(to_ns(ts) + t_skipped_ns);
  *tv = timeval{ts.tv_sec, suseconds_t(ts.tv_nsec / 1000)};
  return 0;
}

FAKE_CLOCK_API int nanosleep(const struct timespec* req, struct timespec* rem) {
  if (!t_fast) return int(syscall(SYS_nanosleep, req, rem));
  if (req) skip(to_ns(*req));
  if (rem) *rem = timespec{};
  return 0;
}

FAKE_CLOCK_API int clock_nanosleep(clockid_t id, int flags, const struct timespec* req,
                                   struct timespec* rem) {
  if (!t_fast) return int(syscall(SYS_clock_nanosleep, id, flags, req, rem));
  if (req == nullptr) return 0;
  if (flags & TIMER_ABSTIME) {
    timespec now{};
    clock_gettime(id, &now);
    int64_t until = to_ns(*req), from = to_ns(now);
    if (until > from) skip(until - from);
  } else {
    skip(to_ns(*req));
  }
  return 0;
}

FAKE_CLOCK_API int usleep(useconds_t us) {
  if (!t_fast) {
    timespec ts = from_ns(int64_t(us) * 1000);
    return int(syscall(SYS_nanosleep, &ts, nullptr));
  }
  skip(int64_t(us) * 1000);
  return 0;
}

}  // extern "C"
