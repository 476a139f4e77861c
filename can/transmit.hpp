// Sending frames and reading the adapter's transmit progress.
#pragma once

#include <cstdint>

#include "veltrix/can.h"

namespace veltrix::can {

int get_send_info(uint32_t handle, uint8_t port, CAN_TX_INFO* out);

}  // namespace veltrix::can
