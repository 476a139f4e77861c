// CAN FD reception: direct reads, the poll into the two queues of a port and the receive
// thread.
#pragma once

#include <cstdint>
#include <span>

#include "veltrix/canfd.h"

namespace veltrix::can {

// Decodes the elements of a read reply into out (at most out.size() frames); an element
// cut short by the end of the reply ends the decoding. Returns the number of frames.
size_t decode_elements(std::span<const uint8_t> reply, unsigned port, std::span<CANFD_MSG> out);

// Appends a polled batch to the port's queue and then to its ISO-TP queue (drop-oldest).
// The caller holds no adapter lock.
void queue_fd_batch(uint32_t handle, unsigned port, std::span<const CANFD_MSG> batch);

int fd_read(uint32_t handle, uint8_t port, std::span<CANFD_MSG> out);
int fd_start_get_port(uint32_t handle, uint8_t port);
int fd_stop_get_port(uint32_t handle, uint8_t port);
int fd_get_msgs(uint32_t handle, uint8_t port, CANFD_MSG* out, int capacity);
int fd_clear_port(uint32_t handle, uint8_t port);
int fd_stop(uint32_t handle, uint8_t port);

}  // namespace veltrix::can
