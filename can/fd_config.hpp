// The CAN FD family's configuration and query operations, for the family's other parts
// and for the classic calls diverted to it.
#pragma once

#include <cstdint>

#include "veltrix/canfd.h"

namespace veltrix::can {

int fd_init_port(uint32_t handle, uint8_t port, const CANFD_CHANNEL_CONFIG* config);
int fd_set_filter(uint32_t handle, uint8_t port, const CANFD_FILTER_RULE* rules, uint8_t count);
int fd_bus_error(uint32_t handle, uint8_t port, CANFD_BUS_ERROR* out);
int fd_tx_info(uint32_t handle, uint8_t port, CANFD_TX_INFO* out);
int fd_diagnostic(uint32_t handle, uint8_t port, CANFD_DIAGNOSTIC* out);

}  // namespace veltrix::can
