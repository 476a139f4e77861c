#include "lin/lin_state.hpp"

#include "device/registry.hpp"

namespace veltrix::lin {

LinState& state() {
  // Never destroyed: an exchange may still be running on another thread at exit.
  static LinState* s = new LinState;
  return *s;
}

int slot_of(int handle) {
  int slot = usb_list_get_index(uint32_t(handle));
  return slot >= 0 && slot < kSlots ? slot : -1;
}

ExchangeResult lin_exchange(int handle, const Exchange& x) { return exchange(uint32_t(handle), x); }

int lin_code(const ExchangeResult& r) {
  switch (r.code) {
    case Transport::Ok: return LIN_EX_SUCCESS;
    case Transport::WriteFailed: return LIN_EX_ERR_SEND;
    default:
      return LIN_EX_ERR_REPLY;  // no, late, short or foreign reply
  }
}

int lin_ack_code(const ExchangeResult& r) {
  int code = lin_code(r);
  if (code == LIN_EX_SUCCESS && r.reply_len != 0) return LIN_EX_ERR_REPLY;
  return code;
}

Channel check_channel(int handle, uint8_t channel, bool need_init) {
  Channel c;
  c.slot = slot_of(handle);
  if (c.slot < 0 || channel >= LIN_EX_MAX_CHANNELS) {
    c.code = LIN_EX_ERR_PARAMETER;
  } else if (need_init && state().ex_init[c.slot][channel].load(std::memory_order_relaxed) == 0) {
    c.code = LIN_EX_ERR_NOT_INIT;
  }
  return c;
}

}  // namespace veltrix::lin
