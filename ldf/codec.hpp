// Frame packing and signal value conversion.
//
// A frame's data is one 64-bit little-endian word: data byte 0 holds bits 0..7, byte 1
// bits 8..15, and so on. A signal of Size bits at StartBit occupies
//
//   bit 63 ...        StartBit+Size-1 ... StartBit ...          0
//       [ other bits ][       signal value       ][ other bits ]
//
// and a signal crossing bit 63 loses its upper bits.
#pragma once

#include <cstdint>
#include <string>

#include "veltrix/ldf.h"

namespace veltrix::ldf {

// The packed word; bits no signal covers are ones when fill, else zeros.
uint64_t pack_word(const LDF_LIN_FRAME& frame, bool fill);

// Writes frame.Size bytes of the packed word to data. Returns the byte count, or -3 when
// the device of the latest load was not registered.
int pack(const LDF_LIN_FRAME& frame, bool fill, uint8_t* data);

// Reads frame.Size bytes of data into the frame's signals. Byte count or -3.
int unpack(LDF_LIN_FRAME& frame, const uint8_t* data);

// Raw value to physical value: an equal logical value keeps the raw value, else the first
// physical range holding it scales it, else the raw value stands.
double raw_to_physical(const LDF_LIN_SIGNAL& s);

// Physical value to raw value, stored in s.Value. The value must not be NaN.
void physical_to_raw(LDF_LIN_SIGNAL& s, double value);

// Logical text, "%f %s" of the physical value and unit, or the raw value in decimal.
std::string value_text(const LDF_LIN_SIGNAL& s);

}  // namespace veltrix::ldf
