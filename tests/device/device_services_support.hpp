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

// A complete reply frame as the adapter would put it on the wire.
inline Bytes frame(uint32_t code, const Bytes& payload) {
  wire::PayloadBuilder b(8 + payload.size());
  b.be32(code).be32(uint32_t(payload.size())).bytes(payload);
  return b.vec();
}

inline sim::Fault fault(sim::FaultKind kind, uint32_t code, uint32_t arg = 0) {
  sim::Fault f;
  f.kind = kind;
  f.match_code = code;
  f.arg = arg;
  return f;
}

// The next command with this code is answered by this reply frame instead.
inline sim::Fault raw_reply(uint32_t code, const Bytes& payload) {
  sim::Fault f = fault(sim::FaultKind::RawReply, code);
  f.raw = frame(code, payload);
  return f;
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
