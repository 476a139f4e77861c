#include "peripherals/adc/adc_state.hpp"

namespace veltrix::adc {

AdcState& state() {
  // Never destroyed: a reader thread may still run while the process exits.
  static AdcState* s = new AdcState;
  return *s;
}

}  // namespace veltrix::adc
