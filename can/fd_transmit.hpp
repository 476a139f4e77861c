// CAN FD sending.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "veltrix/canfd.h"

namespace veltrix::can {

// The 0x4002 payload of one batch; applies the bit-rate-switch rule to the records.
std::vector<uint8_t> build_send_payload(uint8_t port, std::span<CANFD_MSG> chunk);

int send_fd_frames(uint32_t handle, uint8_t port, CANFD_MSG* frames, uint32_t count);

}  // namespace veltrix::can
