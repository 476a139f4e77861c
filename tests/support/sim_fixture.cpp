#include "tests/support/sim_fixture.hpp"

#include "veltrix/usb_device.h"

namespace veltrix::test {

void SimTest::SetUp() {
  static int cases_in_this_process = 0;
  if (++cases_in_this_process > 1)
    GTEST_FAIL() << "virtual-adapter tests run one case per process; use --gtest_filter "
                    "(CTest does this)";
}

std::shared_ptr<sim::Model> SimTest::plug(uint32_t serial, const std::string& port,
                                          sim::Speed speed) {
  sim::Identity id;
  id.serial = serial;
  id.speed = speed;
  return bed().add_adapter(id, port);
}

std::shared_ptr<sim::Model> SimTest::plug_and_open(uint32_t serial, const std::string& port,
                                                   sim::Speed speed) {
  auto m = plug(serial, port, speed);
  EXPECT_GE(USB_ScanDevice(nullptr), 1);
  EXPECT_EQ(USB_OpenDevice(serial), 1);
  m->clear_record();
  return m;
}

std::vector<Bytes> payloads(const sim::Model& m, uint32_t code) {
  std::vector<Bytes> out;
  for (const sim::Command& c : m.commands_with_code(code)) out.push_back(c.payload);
  return out;
}

}  // namespace veltrix::test
