// Shared set-up of the peripheral suites: one open adapter and fault helpers.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <string>

#include "tests/support/sim_fixture.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::test {

// Threads of this process: a stream or reader thread left behind by a stop shows here.
inline size_t thread_count() {
  size_t n = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

// How a test takes an adapter away from a running stream.
enum class Takeaway { Close, UnplugThenClose };
inline std::string takeaway_name(const ::testing::TestParamInfo<Takeaway>& info) {
  return info.param == Takeaway::Close ? "Close" : "UnplugThenClose";
}

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

  void take_away(Takeaway how) {
    if (how == Takeaway::UnplugThenClose) bed().unplug(dev_);
    const int closed = USB_CloseDevice(dev_);
    if (how == Takeaway::Close) {
      EXPECT_EQ(closed, 1);
    }
  }

  uint32_t dev_ = 0;
  std::shared_ptr<sim::Model> m_;
};

}  // namespace veltrix::test
