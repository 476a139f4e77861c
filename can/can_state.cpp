#include "can/can_state.hpp"

#include "device/registry.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::can {

CanState& state() {
  static CanState* s = new CanState;
  return *s;
}

std::optional<int> slot_of(uint32_t handle) {
  int slot = usb_list_get_index(handle);
  if (slot < 0 || slot >= kSlots) return std::nullopt;
  return slot;
}

CanPort* port_state(int slot, unsigned port) {
  if (slot < 0 || slot >= kSlots || port >= unsigned(kPorts)) return nullptr;
  return &state().slot[slot].port[port];
}

void count_clamped(uint32_t handle, size_t n) {
  if (auto slot = slot_of(handle)) state().slot[*slot].clamped_records.fetch_add(n);
}

uint64_t clamped_records(uint32_t handle) {
  auto slot = slot_of(handle);
  return slot ? state().slot[*slot].clamped_records.load() : 0;
}

uint32_t host_timestamp(int slot) {
  const CanSlot& s = state().slot[slot];
  uint64_t elapsed_ms = GetTimestampOfDay() - s.time_start.load(std::memory_order_relaxed);
  return s.timestamp_error.load(std::memory_order_relaxed) + uint32_t(elapsed_ms * 10);
}

}  // namespace veltrix::can
