// Pure translations between the VCI records and the CAN/CAN FD families: no state, no
// adapter traffic.
#pragma once

#include <cstdint>
#include <optional>

#include "veltrix/can.h"
#include "veltrix/canfd.h"
#include "veltrix/vci.h"

namespace veltrix::vci {

// The timing row for a bit rate (bit/s) on the model the handle's top byte names: the
// first row whose rate agrees in whole kbit/s. Null when none does or the rate is 0.
const CAN_TIMING_ENTRY* timing_row(uint32_t handle, uint32_t bit_rate);

// Classic port configuration for the row and the VCI mode byte.
CAN_CHANNEL_CONFIG classic_config(const CAN_TIMING_ENTRY& row, uint8_t vci_mode);

// CAN FD port configuration: the same row fills the nominal and the data phase.
CANFD_CHANNEL_CONFIG fd_config(const CAN_TIMING_ENTRY& row, uint8_t vci_mode);

// The one acceptance rule the code/mask pair stands for (bank 0, enabled).
CAN_FILTER_RULE filter_rule(const VCI_INIT_CONFIG& c);

// A received frame as the VCI record; bytes past DataLen are 0.
VCI_CAN_OBJ to_obj(const CAN_MSG& m);

// A record to send; the time fields stay 0.
CAN_MSG to_can(const VCI_CAN_OBJ& o);

}  // namespace veltrix::vci
