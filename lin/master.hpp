// The master exchange that the single-frame operations, UDS over LIN and the LDF layer
// put their frames on the bus with.
#pragma once

#include <cstdint>
#include <span>

#include "veltrix/lin.h"

namespace veltrix::lin {

// LIN_EX_MasterSync without the ABI wrapper; `out` has room for in.size() records.
int master_sync(int handle, uint8_t channel, std::span<const LIN_EX_MSG> in, LIN_EX_MSG* out);

// LIN_EX_SlaveGetData without the ABI wrapper; `out` has room for LIN_EX_MAX_CAPTURE_MSGS.
int slave_get_data(int handle, uint8_t channel, LIN_EX_MSG* out);

}  // namespace veltrix::lin
