#include "device/transport.hpp"

#include "device/locks.hpp"

namespace veltrix {

ExchangeResult exchange_locked(uint32_t handle, const Exchange& x) {
  ExchangeResult res;
  USB_MSG msg{x.cmd, uint32_t(x.payload.size()), const_cast<uint8_t*>(x.payload.data())};
  const int send_ms = x.send_timeout_ms > 0 ? x.send_timeout_ms : x.timeout_ms;
  int r = x.canfd_channel >= 0 ? send_canfd_packet(handle, uint8_t(x.canfd_channel), &msg, send_ms)
                               : send_packet(handle, &msg, send_ms);
  if (r != 0) {
    res.code = static_cast<Transport>(r);
    return res;
  }
  if (x.want == Reply::None) return res;
  // A null buffer would make any payload count as unexpected; point at an empty one.
  static uint8_t no_room[1];
  msg.cmd = x.reply_cmd ? x.reply_cmd : x.cmd;
  msg.len = 0;
  msg.data = x.reply.empty() ? no_room : x.reply.data();
  const uint32_t expected = msg.cmd;
  size_t copied = 0;
  Transport t = get_packet(handle, &msg, x.reply.size(), x.timeout_ms, &copied);
  // A bare header with a foreign code passes the packet reader (it has no payload to
  // misplace), but for the command waiting on it, it is still the wrong reply.
  if (t == Transport::Ok && msg.cmd != expected) t = Transport::WrongCode;
  res.code = t;
  res.reply_cmd = msg.cmd;
  res.reply_len = msg.len;
  res.copied = copied;
  return res;
}

ExchangeResult exchange(uint32_t handle, const Exchange& x) {
  AdapterLock guard(handle);
  return exchange_locked(handle, x);
}

}  // namespace veltrix
