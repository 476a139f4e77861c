// A benchmark times only what it has checked: a handle that was never created or a call
// that fails would otherwise be measured as fast. Every check that fails ends the program
// with a message and a non-zero status, so `make bench` fails instead of printing a figure.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace veltrix::bench {

[[noreturn]] inline void fail(const char* what) {
  std::fprintf(stderr, "benchmark check failed: %s\n", what);
  std::fflush(stderr);
  std::_Exit(2);
}

inline void check(bool ok, const char* what) {
  if (!ok) fail(what);
}

}  // namespace veltrix::bench
