// One seed for every randomised test: VELTRIX_TEST_SEED repeats a run.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace veltrix::test {

// The seed from VELTRIX_TEST_SEED, or a fresh one; printed either way so a failing run
// can be repeated exactly.
inline unsigned test_seed(const char* what) {
  const char* s = std::getenv("VELTRIX_TEST_SEED");
  const unsigned seed = s ? unsigned(std::strtoul(s, nullptr, 0)) : std::random_device{}();
  std::printf("%s: seed %u (VELTRIX_TEST_SEED=%u repeats it)\n", what, seed, seed);
  return seed;
}

}  // namespace veltrix::test
