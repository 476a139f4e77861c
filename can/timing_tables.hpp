// Lookups in the constant bit-timing tables.
#pragma once

#include <cstdint>

#include "veltrix/can.h"

namespace veltrix::can {

// The table CAN_GetCANSpeedArg uses for a handle: chosen by its top four bits only (0x5
// the 40 MHz nominal table, 0x4 the 42 MHz one, else the 100 MHz one). This is a wider
// test than the CAN FD model test on purpose: handles 0x50.. to 0x52.. get 40 MHz values
// but are initialised as classic ports.
const CAN_TIMING_ENTRY* timing_table_for(uint32_t handle);

// The first row whose rate equals bit_rate exactly, or null.
const CAN_TIMING_ENTRY* find_rate(const CAN_TIMING_ENTRY* table, uint32_t bit_rate);

// Rate in bit/s of the first two-byte timing-register row with both bytes equal, or 0.
uint32_t btr_rate(uint8_t timing0, uint8_t timing1);

}  // namespace veltrix::can
