// libFuzzer target: every operation that reads an adapter reply, run against a fake
// adapter whose replies are the fuzz input. See harness.hpp for the input layout.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/reply/fake_clock.hpp"
#include "fuzz/reply/fake_usb.hpp"
#include "fuzz/reply/harness.hpp"

using namespace veltrix::fuzz;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  FastTime fast;
  set_up();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 + kStepBytes) return -1;  // not even one step: not worth keeping
  FastTime fast;
  static const Responder ack = acknowledge_everything();
  restore_baseline(ack);
  size_t steps = 1 + data[0] % kMaxSteps;
  std::span<const uint8_t> rest(data + 1, size - 1);
  size_t step_bytes = std::min(rest.size(), steps * kStepBytes);
  queue_in(rest.subspan(step_bytes));
  run_steps(rest.first(step_bytes), steps);
  reset_in();
  return 0;
}
