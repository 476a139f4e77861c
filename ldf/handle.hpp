// Opening a handle without the bus: the file parsed into a fresh LDF_CODING that records
// the device, channel and role. LDF_ParserFile (ldf/bus.cpp) adds the channel set-up.
#pragma once

#include "veltrix/ldf.h"

namespace veltrix::ldf {

// A new handle, or nullptr when the path is null, memory runs out or the parse fails.
// Initialized stays 0. Free it with LDF_Release.
LDF_CODING* parse_handle(int dev, unsigned char lin_index, unsigned char is_master,
                         const char* path);

}  // namespace veltrix::ldf
