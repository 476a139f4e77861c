// Shared helpers of the device-services suites.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "device/wire.hpp"
#include "sim/device_services.hpp"
#include "tests/support/sim_fixture.hpp"

namespace veltrix::test {

// Runs f on the adapter's device-services state under the model lock.
template <typename F>
auto with_services(sim::Model& m, F f) {
  std::scoped_lock g(sim::sim_mutex());
  return f(sim::device_services(m));
}

inline Bytes be32(uint32_t v) {
  Bytes b(4);
  wire::put_be32(b.data(), v);
  return b;
}

inline Bytes cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace veltrix::test
