// Every family's part of the firmware model, installed on each new adapter.
#include "sim/adc.hpp"
#include "sim/can_bus.hpp"
#include "sim/canfd_bus.hpp"
#include "sim/device_services.hpp"
#include "sim/gpio.hpp"
#include "sim/i2c_bus.hpp"
#include "sim/lin_bus.hpp"
#include "sim/model.hpp"
#include "sim/pwm.hpp"
#include "sim/schedule_runner.hpp"
#include "sim/spi_bus.hpp"
#include "sim/uart.hpp"
#include "sim/uds_server.hpp"

namespace veltrix::sim {

void install_families(Model& m) {
  install_device_services(m);
  install_lin(m);
  install_can(m);
  install_canfd(m);
  install_schedules(m);
  install_i2c(m);
  install_spi(m);
  install_uds_server(m);
  install_uart(m);
  install_gpio(m);
  install_pwm(m);
  install_adc(m);
}

}  // namespace veltrix::sim
