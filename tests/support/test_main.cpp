// main() of the tests that use virtual adapters: the process must run with umockdev's
// preload library, so a binary started directly re-executes itself under
// umockdev-wrapper. Listing the tests needs no testbed and runs as it is.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool under_umockdev() {
  const char* p = std::getenv("LD_PRELOAD");
  return p != nullptr && std::strstr(p, "umockdev-preload") != nullptr;
}

bool only_listing(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (!under_umockdev() && !only_listing(argc, argv)) {
    // The sanitizer runtimes would refuse a preload that comes before them, and the USB
    // emulation's own libraries are not built for ThreadSanitizer.
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);
    setenv("TSAN_OPTIONS", "halt_on_error=1:suppressions=" VELTRIX_TSAN_SUPPRESSIONS, 0);
    std::vector<char*> args;
    args.push_back(const_cast<char*>("umockdev-wrapper"));
    for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execvp("umockdev-wrapper", args.data());
    std::perror("umockdev-wrapper");
    return 127;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
