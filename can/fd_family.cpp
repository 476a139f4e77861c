// The CAN FD family's entry points as the classic calls reach them on the CAN FD model.
#include "can/fd_bridge.hpp"
#include "can/fd_config.hpp"
#include "can/fd_receive.hpp"
#include "can/fd_transmit.hpp"

namespace veltrix::can {
namespace {

int init(uint32_t h, uint8_t port, CANFD_CHANNEL_CONFIG* c) { return fd_init_port(h, port, c); }
int filter(uint32_t h, uint8_t port, CANFD_FILTER_RULE* r, uint8_t n) {
  return fd_set_filter(h, port, r, n);
}
int send(uint32_t h, uint8_t port, CANFD_MSG* f, uint32_t n) {
  return send_fd_frames(h, port, f, n);
}

}  // namespace

const CanFdFamily kCanFdFamily{
    init,          filter, fd_bus_error, send, fd_get_msgs, fd_start_get_port, fd_stop_get_port,
    fd_clear_port, fd_stop};

}  // namespace veltrix::can
