#include "sim/reexec.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace veltrix::sim {

void ensure_umockdev(int argc, char** argv, const char* tsan_suppressions) {
  const char* preload = std::getenv("LD_PRELOAD");
  if (preload != nullptr && std::strstr(preload, "umockdev-preload") != nullptr) return;
  // The sanitizer runtimes would refuse a preload that comes before them, and the USB
  // emulation's own libraries are not built for ThreadSanitizer.
  setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
  if (tsan_suppressions != nullptr) {
    std::string tsan = std::string("halt_on_error=1:suppressions=") + tsan_suppressions;
    setenv("TSAN_OPTIONS", tsan.c_str(), 0);
  }
  std::vector<char*> args;
  args.push_back(const_cast<char*>("umockdev-wrapper"));
  for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);
  execvp("umockdev-wrapper", args.data());
  std::perror("umockdev-wrapper");
  std::exit(127);
}

}  // namespace veltrix::sim
