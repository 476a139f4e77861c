// Reception: direct reads, the poll into the per-port queues and the receive thread.
#pragma once

#include <cstdint>
#include <span>

#include "veltrix/can.h"

namespace veltrix::can {

// Reads what the adapter holds for the port into out (at most out.size() frames).
// Returns the count or a negative code.
int read_frames(uint32_t handle, uint8_t port, std::span<CAN_MSG> out);

// Puts a polled batch into the port's two queues: in time order, with the port bits set.
// The caller holds no adapter lock.
void queue_batch(uint32_t handle, unsigned port, std::span<CAN_MSG> batch);

}  // namespace veltrix::can
