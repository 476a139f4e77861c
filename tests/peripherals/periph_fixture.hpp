// Shared set-up of the peripheral suites: one open adapter and fault helpers.
#pragma once

#include <gtest/gtest.h>

#include <mutex>

#include "device/wire.hpp"
#include "tests/support/sim_fixture.hpp"

namespace veltrix::test {

class PeriphTest : public SimTest {
 protected:
  void open(uint32_t serial) {
    dev_ = serial;
    m_ = plug_and_open(serial);
  }
  template <typename F>
  auto with_sim(F f) {
    std::scoped_lock g(sim::sim_mutex());
    return f(*m_);
  }
  std::vector<Bytes> sent(uint32_t code) { return payloads(*m_, code); }
  void fault(sim::FaultKind kind, uint32_t code, uint32_t arg = 0) {
    sim::Fault f;
    f.kind = kind;
    f.match_code = code;
    f.arg = arg;
    m_->inject(f);
  }
  // The adapter answers `code` with exactly this header and payload.
  void raw_reply(uint32_t code, const Bytes& payload) {
    sim::Fault f;
    f.kind = sim::FaultKind::RawReply;
    f.match_code = code;
    wire::PayloadBuilder b;
    b.be32(code).be32(uint32_t(payload.size())).bytes(payload);
    f.raw = b.vec();
    m_->inject(f);
  }

  uint32_t dev_ = 0;
  std::shared_ptr<sim::Model> m_;
};

}  // namespace veltrix::test
