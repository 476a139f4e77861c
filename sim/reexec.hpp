// Programs that build virtual adapters in-process (tests, benchmarks) must run with
// umockdev's preload library. ensure_umockdev() re-executes the program under
// umockdev-wrapper when it is not, with the sanitizer options that preloading needs.
#pragma once

namespace veltrix::sim {

// Returns only when already under umockdev; otherwise execs (or exits 127 on failure).
void ensure_umockdev(int argc, char** argv, const char* tsan_suppressions = nullptr);

}  // namespace veltrix::sim
