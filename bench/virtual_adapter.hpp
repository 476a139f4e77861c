// Benchmarks against the virtual adapter open one adapter per program and keep it open for
// every benchmark in it. A set-up that fails ends the program (see bench_check.hpp): a
// benchmark must never time calls on an adapter that is not there.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "bench/bench_check.hpp"
#include "sim/model.hpp"
#include "sim/testbed.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::bench {

// Adds a virtual adapter with this serial number, scans and opens it, then runs `configure`
// (channel set-up, contents of the virtual parts); ends the program when either fails. Runs
// once per program: later calls return the adapter opened by the first.
inline std::shared_ptr<sim::Model> open_virtual_adapter(
    uint32_t serial, const std::function<bool(sim::Model&)>& configure = {}) {
  static std::shared_ptr<sim::Model> model = [&] {
    sim::Identity id;
    id.serial = serial;
    auto m = sim::Testbed::instance().add_adapter(id);
    USB_ScanDevice(nullptr);
    check(USB_OpenDevice(serial) == 1, "the virtual adapter did not open");
    check(!configure || configure(*m), "the virtual adapter's set-up failed");
    return m;
  }();
  return model;
}

// Makes the adapter answer `code` with the command's own payload: a round trip that measures
// the transport alone.
inline bool install_echo(sim::Model& m, uint32_t code) {
  m.on(code, [code](sim::Model&, const sim::Command& c) {
    return std::optional<sim::Reply>(sim::Reply{code, c.payload});
  });
  return true;
}

}  // namespace veltrix::bench
