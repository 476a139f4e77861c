// Builders for the virtual adapter's misbehaviour: faults and hand-made reply frames.
#pragma once

#include <cstdint>
#include <vector>

#include "device/wire.hpp"
#include "sim/model.hpp"

namespace veltrix::test {

// A fault that hits the next command with `code` (0: whatever comes next).
inline sim::Fault fault(sim::FaultKind kind, uint32_t code, uint32_t arg = 0, int times = 1) {
  sim::Fault f;
  f.kind = kind;
  f.match_code = code;
  f.arg = arg;
  f.times = times;
  return f;
}

// A complete reply frame as the adapter puts it on the wire: code, length, payload.
inline std::vector<uint8_t> reply_frame(uint32_t code, const std::vector<uint8_t>& payload) {
  wire::PayloadBuilder b(8 + payload.size());
  b.be32(code).be32(uint32_t(payload.size())).bytes(payload);
  return b.vec();
}

// The next command with `code` is answered by this payload instead of the model's reply.
inline sim::Fault raw_reply(uint32_t code, const std::vector<uint8_t>& payload) {
  sim::Fault f = fault(sim::FaultKind::RawReply, code);
  f.raw = reply_frame(code, payload);
  return f;
}

}  // namespace veltrix::test
