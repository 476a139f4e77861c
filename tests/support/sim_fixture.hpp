// Fixture for tests that drive the library against virtual adapters through the real
// libusb. Each test case runs in its own process, so the testbed and the library start
// empty every time.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/model.hpp"
#include "sim/testbed.hpp"
#include "tests/support/bytes.hpp"
#include "tests/support/faults.hpp"

namespace veltrix::test {

class SimTest : public ::testing::Test {
 protected:
  // The testbed and the library's state live as long as the process: one test case per
  // process (CTest runs them so). A second case in the same process is refused clearly.
  void SetUp() override;

  sim::Testbed& bed() { return sim::Testbed::instance(); }

  // Plugs in an adapter; the port path may be empty (next free root port).
  std::shared_ptr<sim::Model> plug(uint32_t serial, const std::string& port = "",
                                   sim::Speed speed = sim::Speed::High);
  // Plugs in an adapter, scans and opens it; fails the test if that does not work.
  std::shared_ptr<sim::Model> plug_and_open(uint32_t serial, const std::string& port = "",
                                            sim::Speed speed = sim::Speed::High);
};

// The payloads of every recorded command with the given code.
std::vector<Bytes> payloads(const sim::Model& m, uint32_t code);

}  // namespace veltrix::test
