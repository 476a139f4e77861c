#include "protocols/vci/vci_state.hpp"

namespace veltrix::vci {

VciState& state() {
  // Never destroyed: application threads may still call in while the process exits.
  static VciState* s = new VciState;
  return *s;
}

}  // namespace veltrix::vci
