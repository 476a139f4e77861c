// Every family's part of the firmware model, installed on each new adapter.
#include "sim/model.hpp"

#include "sim/adc.hpp"
#include "sim/can_bus.hpp"
#include "sim/device_services.hpp"
#include "sim/gpio.hpp"
#include "sim/lin_bus.hpp"
#include "sim/pwm.hpp"
#include "sim/uart.hpp"

namespace veltrix::sim {

void install_families(Model& m) {
  install_device_services(m);
  install_lin(m);
  install_can(m);
  install_uart(m);
  install_gpio(m);
  install_pwm(m);
  install_adc(m);
}

}  // namespace veltrix::sim
