// Putting a handle's frames on the bus through the LIN channel family.
#pragma once

#include <cstdint>

namespace veltrix::ldf {

// How the host waits out a schedule entry's delay between two exchanges of
// LDF_ExeSchToBus. A plain sleep by default; tests put a recorder here so that they can
// check the delays without measuring time. Not guarded: set it before driving handles.
using BusWait = void (*)(uint32_t ms);
extern BusWait bus_wait;

}  // namespace veltrix::ldf
