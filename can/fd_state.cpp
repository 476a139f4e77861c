#include "can/fd_state.hpp"

#include "device/registry.hpp"

namespace veltrix::can {

FdState& fd_state() {
  static FdState* s = new FdState;
  return *s;
}

std::optional<int> fd_slot_of(uint32_t handle) {
  int slot = usb_list_get_index(handle);
  if (slot < 0 || slot >= kFdSlots) return std::nullopt;
  return slot;
}

FdPort* fd_port_state(int slot, unsigned port) {
  if (slot < 0 || slot >= kFdSlots || port >= unsigned(kFdPorts)) return nullptr;
  return &fd_state().slot[slot].port[port];
}

}  // namespace veltrix::can
