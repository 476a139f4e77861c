// ISO-TP requests and responses on a CAN or CAN FD port, sent through the family's send
// call and read from the port's ISO-TP queue.
#include "protocols/can_uds.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

#include "can/can_state.hpp"
#include "can/fd_state.hpp"
#include "device/abi.hpp"
#include "device/locks.hpp"
#include "protocols/isotp_clock.hpp"
#include "protocols/isotp_frames.hpp"
#include "protocols/isotp_reassembler.hpp"
#include "veltrix/canfd.h"

namespace veltrix::isotp {
namespace {

constexpr uint32_t kId29 = 0x1FFFFFFF;

uint64_t now_us() { return active_clock.now_us(); }
bool expired(uint64_t start_us, uint32_t timeout_ms) {
  return now_us() - start_us >= uint64_t(timeout_ms) * 1000;
}

// The oldest frame of a port's ISO-TP queue, taken without asking the adapter; false when
// the queue is empty (or the adapter or port has none).
template <typename Port>
bool take_queued(Port* ps, uint32_t h, uint8_t port, auto* m) {
  if (ps == nullptr) return false;
  ChannelLock g(LockFamily::CanData, h, int(port));
  return ps->uds.pop(*m);
}

// The two kinds of port differ only in their frame record and the family calls that carry
// it; everything above (retries, flow control, segmenting) is shared.
//
// take(): the family's queue helper polls the adapter whenever no receive thread does,
// even when the queue already holds frames. A long message arrives in one poll, so
// taking its frames through the helper would cost one empty poll per frame: frames
// already queued are taken first, and the helper (and its poll) is asked only when the
// queue is empty. The frames come in the same order either way.
struct ClassicLink {
  using Msg = CAN_MSG;
  static constexpr uint8_t kFrameMax = kClassicLength;
  static int send(uint32_t h, uint8_t port, Msg* m, uint32_t n) {
    return CAN_SendMsg(h, port, m, n);
  }
  // Sent frames go into the application's receive stream, marked as ours and with the port.
  static void echo(uint32_t h, uint8_t port, std::span<Msg> frames) {
    for (Msg& m : frames) m.FrameFlags |= uint8_t(CAN_MSG_FLAG_TX | can::port_bits(port));
    CAN_SetCANMsgToBuffer(h, port, frames.data(), int(frames.size()));
  }
  static int take(uint32_t h, uint8_t port, Msg* m) {
    const auto slot = can::slot_of(h);
    if (slot && take_queued(can::port_state(*slot, port), h, port, m)) return 1;
    return CAN_GetCANMsgFromUDSBuffer(h, port, m, 1);
  }
  static void clear(uint32_t h, uint8_t port) { CAN_ClearCANMsgFromUDSBuffer(h, port); }
  static void fill(Msg& m, uint32_t id, const CAN_UDS_ADDR& a, const uint8_t* b, int n) {
    CAN_UDS_FillCANMsg(m, id, a, b, n);
  }
  static bool extended(const Msg& m) { return (m.ExtFlag & 1) != 0; }
  static uint32_t id(const Msg& m) { return m.ID & kId29; }
  static int length(const Msg& m) { return std::min<int>(m.DataLen, kFrameMax); }
  static const uint8_t* data(const Msg& m) { return m.Data; }
};

struct FdLink {
  using Msg = CANFD_MSG;
  static constexpr uint8_t kFrameMax = kMaxLength;
  static int send(uint32_t h, uint8_t port, Msg* m, uint32_t n) {
    return CANFD_SendMsg(h, port, m, n);
  }
  static void echo(uint32_t h, uint8_t port, std::span<Msg> frames) {
    for (Msg& m : frames)
      m.Flags |= uint8_t(CANFD_MSG_FLAG_TX_ECHO | ((port << 5) & CANFD_MSG_FLAG_PORT));
    CANFD_SetCANMsgToBuffer(h, port, frames.data(), int(frames.size()));
  }
  static int take(uint32_t h, uint8_t port, Msg* m) {
    const auto slot = can::fd_slot_of(h);
    if (slot && take_queued(can::fd_port_state(*slot, port), h, port, m)) return 1;
    return CANFD_GetCANMsgFromUDSBuffer(h, port, m, 1);
  }
  static void clear(uint32_t h, uint8_t port) { CANFD_ClearCANMsgFromUDSBuffer(h, port); }
  static void fill(Msg& m, uint32_t id, const CAN_UDS_ADDR& a, const uint8_t* b, int n) {
    CAN_UDS_FillCANFDMsg(m, id, a, b, n);
  }
  static bool extended(const Msg& m) { return (m.ID & CANFD_MSG_FLAG_IDE) != 0; }
  static uint32_t id(const Msg& m) { return m.ID & kId29; }
  static int length(const Msg& m) { return std::min<int>(m.DLC, kFrameMax); }
  static const uint8_t* data(const Msg& m) { return m.Data; }
};

// The family answers with the count it sent: all of it is success, a negative count an
// error of the adapter or its link, 0 a full transmit queue worth retrying, anything
// between a batch cut short.
enum class Sent { All, Partial, Nothing, Error };
Sent classify(int r, size_t count) {
  if (r < 0) return Sent::Error;
  if (r == 0) return Sent::Nothing;
  return size_t(r) >= count ? Sent::All : Sent::Partial;
}

template <typename L>
int send_frames(uint32_t h, uint8_t port, std::span<typename L::Msg> frames) {
  if (frames.empty()) return CAN_UDS_OK;
  const uint64_t start = now_us();
  for (;;) {
    switch (classify(L::send(h, port, frames.data(), uint32_t(frames.size())), frames.size())) {
      case Sent::All:
        L::echo(h, port, frames);
        return CAN_UDS_OK;
      case Sent::Partial:
        return CAN_UDS_OK;
      case Sent::Error:
        return CAN_UDS_ERR_SEND;
      case Sent::Nothing:
        break;
    }
    active_clock.sleep_us(kSendRetryPauseUs);
    if (now_us() - start >= kSendBudgetUs) return CAN_UDS_ERR_SEND_TIMEOUT;
  }
}

template <typename L>
int send_one(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, const uint8_t* bytes, int count) {
  typename L::Msg m;
  L::fill(m, a.RequestID, a, bytes, count);
  return send_frames<L>(h, port, {&m, 1});
}

template <typename L>
int send_frame(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, const FrameBytes& f) {
  return send_one<L>(h, port, a, f.data, f.size);
}

template <typename L>
int get_msg(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, uint8_t* out) {
  const int least = a.ExtAddressing ? 2 : 1;
  for (int i = 0; i < kDiscardPerRead; ++i) {
    typename L::Msg m{};
    if (L::take(h, port, &m) != 1) return 0;
    if (L::id(m) != (a.ResponseID & kId29) || L::extended(m) != ((a.IdFlags & 1) != 0)) continue;
    const int n = L::length(m);
    if (n < least) continue;
    std::memcpy(out, L::data(m), size_t(n));
    return n;
  }
  return 0;
}

template <typename L>
int wait_fc(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, UDS_FC* fc, uint32_t timeout_ms) {
  const uint64_t start = now_us();
  const int at = a.ExtAddressing ? 1 : 0;
  const int least = a.ExtAddressing ? 4 : 3;
  for (;;) {
    uint8_t f[kMaxLength] = {};
    const int n = get_msg<L>(h, port, a, f);
    if (n == 0) active_clock.sleep_us(kIdlePauseUs);
    if (n >= least) {
      const uint8_t pci = f[at];
      fc->FlowStatusPci = uint8_t(pci << 4 | pci >> 4);
      fc->BlockSize = f[at + 1];
      fc->STmin = f[at + 2];
      if (pci >> 4 == kFlowControl) {
        if ((pci & 0x0F) == kContinue) return CAN_UDS_OK;
        if ((pci & 0x0F) == kOverflow) return CAN_UDS_ERR_OVERFLOW;
        // kWait: the receiver asks for patience; the time-out still counts from the start.
      }
    }
    if (expired(start, timeout_ms)) return CAN_UDS_ERR_TIMEOUT;
  }
}

// The record as the transfer plans with it: an out-of-range frame length becomes 8 in the
// caller's record too. A classic port's records hold 8 bytes, so a longer planned length
// would cut every frame short: it plans with 8 there.
template <typename L>
CAN_UDS_ADDR link_addr(CAN_UDS_ADDR* addr) {
  addr->FrameLength = normalise_length(addr->FrameLength);
  CAN_UDS_ADDR a = *addr;
  a.FrameLength = std::min(a.FrameLength, L::kFrameMax);
  return a;
}

template <typename L>
int request_on(uint32_t h, uint8_t port, CAN_UDS_ADDR* addr, const uint8_t* data, int len) {
  const CAN_UDS_ADDR a = link_addr<L>(addr);
  const FramePlan p = plan(a.FrameLength, a.ExtAddressing != 0);
  const uint32_t total = len > 0 ? uint32_t(len) : 0;

  L::clear(h, port);
  Segmenter message(p, a.AddressExtension, data, total);
  int r = send_frame<L>(h, port, a, message.next());
  if (r != CAN_UDS_OK || message.done()) return r;

  UDS_FC fc{};
  if ((r = wait_fc<L>(h, port, a, &fc, kFlowControlTimeoutMs)) != CAN_UDS_OK) return r;
  std::vector<typename L::Msg> batch;
  batch.reserve(kBatchFrames);
  uint32_t in_block = 0;
  while (!message.done()) {
    const FrameBytes f = message.next();
    if (const uint32_t pause_ms = stmin_ms(fc.STmin); pause_ms > 0) {
      if ((r = send_frame<L>(h, port, a, f)) != CAN_UDS_OK) return r;
      active_clock.sleep_us(pause_ms * 1000);
    } else {
      L::fill(batch.emplace_back(), a.RequestID, a, f.data, f.size);
      if (batch.size() == kBatchFrames) {
        if ((r = send_frames<L>(h, port, batch)) != CAN_UDS_OK) return r;
        batch.clear();
      }
    }
    if (fc.BlockSize != 0 && ++in_block == fc.BlockSize && !message.done()) {
      if ((r = send_frames<L>(h, port, batch)) != CAN_UDS_OK) return r;
      batch.clear();
      if ((r = wait_fc<L>(h, port, a, &fc, kFlowControlTimeoutMs)) != CAN_UDS_OK) return r;
      in_block = 0;
    }
  }
  return send_frames<L>(h, port, batch);
}

template <typename L>
int response_on(uint32_t h, uint8_t port, CAN_UDS_ADDR* addr, uint8_t* out, size_t capacity,
                bool bounded, uint32_t timeout_ms) {
  const CAN_UDS_ADDR a = link_addr<L>(addr);
  const FramePlan p = plan(a.FrameLength, a.ExtAddressing != 0);
  const uint64_t start = now_us();
  Reassembler message(p, out, capacity);
  for (;;) {
    uint8_t f[kMaxLength] = {};
    const int n = get_msg<L>(h, port, a, f);
    if (n == 0) active_clock.sleep_us(kIdlePauseUs);
    switch (n == 0 ? Reassembler::Step::More : message.feed(f, n)) {
      case Reassembler::Step::More:
        break;
      case Reassembler::Step::FlowControl:
        if (int r = send_frame<L>(h, port, a, flow_control(p, a.AddressExtension)); r != CAN_UDS_OK)
          return r;
        break;
      case Reassembler::Step::Done:
        return bounded && message.length() > capacity ? CAN_UDS_ERR_BUFFER : int(message.length());
      case Reassembler::Step::Error:
        return message.error();
    }
    if (expired(start, timeout_ms)) return CAN_UDS_ERR_TIMEOUT;
  }
}

}  // namespace

int CAN_UDS_SendMsg(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, const uint8_t* bytes,
                    int count) {
  return can::is_canfd_model(h) ? send_one<FdLink>(h, port, a, bytes, count)
                                : send_one<ClassicLink>(h, port, a, bytes, count);
}

int CAN_UDS_SendCANMsg(uint32_t h, uint8_t port, std::span<CAN_MSG> frames) {
  return send_frames<ClassicLink>(h, port, frames);
}

int CAN_UDS_SendCANFDMsg(uint32_t h, uint8_t port, std::span<CANFD_MSG> frames) {
  return send_frames<FdLink>(h, port, frames);
}

int CAN_UDS_GetMsg(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, uint8_t* out) {
  return can::is_canfd_model(h) ? get_msg<FdLink>(h, port, a, out)
                                : get_msg<ClassicLink>(h, port, a, out);
}

int CAN_UDS_WaitFC(uint32_t h, uint8_t port, const CAN_UDS_ADDR& a, UDS_FC* fc,
                   uint32_t timeout_ms) {
  return can::is_canfd_model(h) ? wait_fc<FdLink>(h, port, a, fc, timeout_ms)
                                : wait_fc<ClassicLink>(h, port, a, fc, timeout_ms);
}

int request(uint32_t h, uint8_t port, CAN_UDS_ADDR* addr, const uint8_t* data, int len) {
  if (addr == nullptr || (len > 0 && data == nullptr)) return CAN_UDS_ERR_SEND;
  return can::is_canfd_model(h) ? request_on<FdLink>(h, port, addr, data, len)
                                : request_on<ClassicLink>(h, port, addr, data, len);
}

int response(uint32_t h, uint8_t port, CAN_UDS_ADDR* addr, uint8_t* out, size_t capacity,
             bool bounded, uint32_t timeout_ms) {
  if (addr == nullptr || (out == nullptr && capacity > 0)) return CAN_UDS_ERR_SEND;
  return can::is_canfd_model(h)
             ? response_on<FdLink>(h, port, addr, out, capacity, bounded, timeout_ms)
             : response_on<ClassicLink>(h, port, addr, out, capacity, bounded, timeout_ms);
}

}  // namespace veltrix::isotp

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CAN_UDS_Request,
               (unsigned int h, unsigned char port, CAN_UDS_ADDR* addr, const unsigned char* data,
                int len),
               CAN_UDS_ERR_SEND, { return isotp::request(h, port, addr, data, len); })

VELTRIX_EXPORT(int, CAN_UDS_Response,
               (unsigned int h, unsigned char port, CAN_UDS_ADDR* addr, unsigned char* data,
                unsigned int timeout_ms),
               CAN_UDS_ERR_SEND, {
                 if (data == nullptr) return CAN_UDS_ERR_SEND;
                 // The caller vouches for the room; nothing here can know it.
                 return isotp::response(h, port, addr, data, data ? SIZE_MAX : 0, false,
                                        timeout_ms);
               })

VELTRIX_EXPORT(int, CAN_UDS_ResponseWithSize,
               (unsigned int h, unsigned char port, CAN_UDS_ADDR* addr, unsigned char* data,
                unsigned int size, unsigned int timeout_ms),
               CAN_UDS_ERR_SEND,
               { return isotp::response(h, port, addr, data, size, true, timeout_ms); })

}  // extern "C"
