#include "sim/can_controller.hpp"

#include "sim/device_services.hpp"

namespace veltrix::sim::can_ctl {

uint64_t device_time(Model& m, uint64_t unit_us) {
  DeviceServices& d = device_services(m);
  return ((d.clock_us() - d.timestamp_zero_us) / unit_us) & kTimeMask;
}

}  // namespace veltrix::sim::can_ctl
