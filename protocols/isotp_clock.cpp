#include "protocols/isotp_clock.hpp"

#include <chrono>
#include <thread>

namespace veltrix::isotp {
namespace {

uint64_t steady_now_us() {
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
}

void steady_sleep_us(uint32_t us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }

}  // namespace

Clock system_clock() { return Clock{steady_now_us, steady_sleep_us}; }

Clock active_clock = system_clock();

}  // namespace veltrix::isotp
