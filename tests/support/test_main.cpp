// main() of the tests that use virtual adapters. A binary started directly re-executes
// itself under umockdev-wrapper; listing the tests needs no testbed and runs as it is.
#include <gtest/gtest.h>

#include <cstring>

#include "sim/reexec.hpp"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i) listing = listing || !std::strcmp(argv[i], "--gtest_list_tests");
  if (!listing) veltrix::sim::ensure_umockdev(argc, argv, VELTRIX_TSAN_SUPPRESSIONS);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
