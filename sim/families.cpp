// Every family's part of the firmware model, installed on each new adapter.
#include "sim/model.hpp"

namespace veltrix::sim {

void install_families(Model& m) {
  (void)m;
}

}  // namespace veltrix::sim
