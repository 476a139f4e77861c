// The seam between the classic CAN calls and the CAN FD family. On the CAN FD model
// (handle top byte 0x53 or 0x54) every CAN_ operation converts its records and calls the
// CAN FD family's counterpart through this table. The table is the CAN FD family's own
// unless a test installs a stand-in.
#pragma once

#include <cstdint>

#include "veltrix/can.h"
#include "veltrix/canfd.h"

namespace veltrix::can {

struct CanFdFamily {
  int (*init)(uint32_t handle, uint8_t port, CANFD_CHANNEL_CONFIG* config);
  int (*set_filter)(uint32_t handle, uint8_t port, CANFD_FILTER_RULE* rules, uint8_t count);
  int (*get_bus_error)(uint32_t handle, uint8_t port, CANFD_BUS_ERROR* out);
  int (*send)(uint32_t handle, uint8_t port, CANFD_MSG* frames, uint32_t count);
  int (*get_msg)(uint32_t handle, uint8_t port, CANFD_MSG* frames, int capacity);
  int (*start_get)(uint32_t handle, uint8_t port);
  int (*stop_get)(uint32_t handle, uint8_t port);
  int (*clear)(uint32_t handle, uint8_t port);
  int (*stop)(uint32_t handle, uint8_t port);
};

// The CAN FD family's own entry points.
extern const CanFdFamily kCanFdFamily;

// Installs a stand-in for the CAN FD family; null puts the family's own table back.
void set_canfd_family(const CanFdFamily* family);

// The diverted operations; each returns the CAN FD family's result as it comes.
int fd_init(uint32_t handle, uint8_t port, const CAN_CHANNEL_CONFIG& config);
int fd_filter(uint32_t handle, uint8_t port, const CAN_FILTER_RULE& rule);
int fd_status(uint32_t handle, uint8_t port, CAN_BUS_STATUS* status);
int fd_send(uint32_t handle, uint8_t port, CAN_MSG* frames, uint32_t count);
int fd_get(uint32_t handle, uint8_t port, CAN_MSG* frames, int capacity);
int fd_start_get(uint32_t handle, uint8_t port);
int fd_stop_get(uint32_t handle, uint8_t port);
int fd_clear(uint32_t handle, uint8_t port);
int fd_stop_port(uint32_t handle, uint8_t port);

}  // namespace veltrix::can
