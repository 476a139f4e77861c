// Every family's part of the firmware model, installed on each new adapter.
#include "sim/model.hpp"

#include "sim/device_services.hpp"

namespace veltrix::sim {

void install_families(Model& m) {
  install_device_services(m);
}

}  // namespace veltrix::sim
