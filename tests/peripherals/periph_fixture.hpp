// Shared set-up of the peripheral suites: one open adapter and fault helpers.
#pragma once

#include <gtest/gtest.h>

#include <mutex>

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
  void inject(const sim::Fault& f) {
    std::scoped_lock g(sim::sim_mutex());
    m_->inject(f);
  }
  void fault(sim::FaultKind kind, uint32_t code, uint32_t arg = 0) {
    inject(test::fault(kind, code, arg));
  }
  // The adapter answers `code` with exactly this header and payload.
  void raw_reply(uint32_t code, const Bytes& payload) { inject(test::raw_reply(code, payload)); }

  uint32_t dev_ = 0;
  std::shared_ptr<sim::Model> m_;
};

}  // namespace veltrix::test
