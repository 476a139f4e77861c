// UDS over LIN: the LIN transport layer's single, first and consecutive frames on the
// master request and slave response frames, one LIN_EX_MasterSync per frame.
//
//   request / response frame data bytes:
//   +-----+-----+----------------------------+
//   | NAD | PCI | up to 6 payload bytes, 0xFF |
//   +-----+-----+----------------------------+
//   PCI high nibble: 0 single frame (low nibble = length), 1 first frame (low nibble =
//   length bits 8..11, the next byte bits 0..7), 2 consecutive frame (low nibble = sequence).
#include <algorithm>
#include <chrono>
#include <span>
#include <thread>

#include "device/abi.hpp"
#include "lin/lin_state.hpp"
#include "lin/master.hpp"
#include "lin/uds_buffer.hpp"
#include "veltrix/lin_uds.h"

namespace veltrix::lin {
namespace {

constexpr uint8_t kPciSingle = 0x0;
constexpr uint8_t kPciFirst = 0x1;
constexpr uint8_t kPciConsecutive = 0x2;
constexpr int kSingleMax = 6;
constexpr int kFirstFramePayload = 5;
constexpr int kConsecutivePayload = 6;
constexpr int kMaxFrameBytes = 7;  // PCI and payload after the NAD

struct Addr {
  uint8_t req_id, res_id, nad, check_type, st_min;
};

Addr unpack(uint64_t v) {
  auto byte = [v](int i) { return uint8_t(v >> (8 * i)); };
  return Addr{byte(0), byte(1), byte(2), byte(3), byte(4)};
}

uint64_t pack(const LIN_UDS_ADDR& a) {
  return uint64_t(a.ReqID) | uint64_t(a.ResID) << 8 | uint64_t(a.NAD) << 16 |
         uint64_t(a.CheckType) << 24 | uint64_t(a.STmin) << 32;
}

void pause(uint8_t st_min) {
  if (st_min) std::this_thread::sleep_for(std::chrono::milliseconds(st_min));
}

LIN_EX_MSG diag_frame(const Addr& a, uint8_t type, uint8_t id) {
  LIN_EX_MSG m{};
  m.Timestamp = a.st_min;
  m.MsgType = type;
  m.CheckType = a.check_type;
  m.DataLen = 8;
  m.PID = id;
  m.BreakBits = 13;
  return m;
}

// Tags a frame with its channel and request type and keeps it in the channel's buffer.
void keep(int handle, uint8_t channel, LIN_EX_MSG m, uint8_t request_type) {
  m.Reserved = buffer_tag(channel, request_type);
  buffer_append(slot_of(handle), channel, {&m, 1});
}

bool confirms(const LIN_EX_MSG& sent, const LIN_EX_MSG& got) {
  const unsigned n = std::min<unsigned>(sent.DataLen, 8);
  return got.MsgType > 7 && got.CheckType < 2 && got.DataLen > 7 &&
         (got.PID & 0x3F) == (sent.PID & 0x3F) && std::equal(sent.Data, sent.Data + n, got.Data);
}

int send_msg(int handle, uint8_t channel, uint64_t packed, const uint8_t* data, int len) {
  if (len < 0 || len > kMaxFrameBytes || (len > 0 && data == nullptr)) return LIN_UDS_ERR_SEND;
  const Addr a = unpack(packed);
  LIN_EX_MSG m = diag_frame(a, LIN_EX_MSG_TYPE_MW, a.req_id);
  std::fill(m.Data, m.Data + 8, 0xFF);
  m.Data[0] = a.nad;
  std::copy_n(data ? data : m.Data, len, m.Data + 1);
  LIN_EX_MSG got;
  const int n = master_sync(handle, channel, {&m, 1}, &got);
  if (n < 0) return LIN_UDS_ERR_SEND;
  if (n == 0 || !confirms(m, got)) return LIN_UDS_ERR_NO_FRAME;
  keep(handle, channel, got, LIN_EX_MSG_TYPE_MW);
  return LIN_UDS_OK;
}

int get_msg(int handle, uint8_t channel, uint64_t packed, uint8_t* out) {
  if (out == nullptr) return LIN_UDS_ERR_SEND;
  const Addr a = unpack(packed);
  LIN_EX_MSG m = diag_frame(a, LIN_EX_MSG_TYPE_MR, a.res_id);
  m.Data[0] = 0xFF;
  LIN_EX_MSG got;
  const int n = master_sync(handle, channel, {&m, 1}, &got);
  if (n < 0) return LIN_UDS_ERR_SEND;
  if (n == 0) return LIN_UDS_ERR_NO_FRAME;
  keep(handle, channel, got, LIN_EX_MSG_TYPE_MR);
  if (got.CheckType > LIN_EX_CHECK_EXT || got.DataLen <= 1) return LIN_UDS_ERR_NO_FRAME;
  std::copy_n(got.Data + 1, got.DataLen - 1, out);
  return got.DataLen - 1;
}

int request(int handle, uint8_t channel, const LIN_UDS_ADDR* addr, const uint8_t* data, int len) {
  if (addr == nullptr || len < 0 || (len > 0 && data == nullptr)) return LIN_UDS_ERR_SEND;
  buffer_clear(slot_of(handle), channel);
  len = std::min(len, LIN_UDS_MAX_LEN);
  const uint64_t packed = pack(*addr);
  uint8_t frame[kMaxFrameBytes];

  if (len <= kSingleMax) {
    frame[0] = uint8_t(len);
    std::copy_n(data ? data : frame, len, frame + 1);
    int r = send_msg(handle, channel, packed, frame, 1 + len);
    if (r != LIN_UDS_OK) return r;
    pause(addr->STmin);
    return LIN_UDS_OK;
  }

  frame[0] = uint8_t(kPciFirst << 4 | len >> 8);
  frame[1] = uint8_t(len);
  std::copy_n(data, kFirstFramePayload, frame + 2);
  if (int r = send_msg(handle, channel, packed, frame, kMaxFrameBytes); r != LIN_UDS_OK) return r;
  pause(addr->STmin);
  uint8_t seq = 1;
  for (int at = kFirstFramePayload; at < len; at += kConsecutivePayload, ++seq) {
    const int n = std::min(kConsecutivePayload, len - at);
    frame[0] = uint8_t(kPciConsecutive << 4 | (seq & 0x0F));
    std::copy_n(data + at, n, frame + 1);
    if (int r = send_msg(handle, channel, packed, frame, 1 + n); r != LIN_UDS_OK) return r;
    pause(addr->STmin);
  }
  return LIN_UDS_OK;
}

int response(int handle, uint8_t channel, const LIN_UDS_ADDR* addr, uint8_t* out, int timeout_ms) {
  if (addr == nullptr || out == nullptr) return LIN_UDS_ERR_SEND;
  const auto start = std::chrono::steady_clock::now();
  const uint64_t packed = pack(*addr);
  bool segmented = false;  // a first frame has arrived
  int expected = 0, have = 0;
  uint8_t next_seq = 1;
  for (;;) {
    uint8_t f[kMaxFrameBytes];
    const int n = get_msg(handle, channel, packed, f);
    if (n > 0) {
      const uint8_t pci = f[0];
      const int payload = n - 1;  // bytes after the PCI in this frame
      switch (pci >> 4) {
        case kPciFirst: {
          if (payload < 1) return LIN_UDS_ERR_PCI;  // the length byte is missing
          expected = (pci & 0x0F) << 8 | f[1];
          have = std::min({kFirstFramePayload, payload - 1, expected});
          std::copy_n(f + 2, have, out);
          next_seq = 1;
          segmented = true;
          break;
        }
        case kPciConsecutive: {
          if (!segmented || (pci & 0x0F) != (next_seq & 0x0F)) return LIN_UDS_ERR_SEQUENCE;
          const int take = std::min({kConsecutivePayload, payload, expected - have});
          std::copy_n(f + 1, take, out + have);
          have += take;
          if (have >= expected) return expected;
          ++next_seq;
          break;
        }
        case kPciSingle:
          if (pci > kSingleMax || pci > payload) return LIN_UDS_ERR_PCI;
          std::copy_n(f + 1, pci, out);
          return pci;
        default:
          return LIN_UDS_ERR_PCI;
      }
    }
    pause(addr->STmin);
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    if (elapsed.count() >= timeout_ms) return LIN_UDS_ERR_TIMEOUT;
  }
}

}  // namespace
}  // namespace veltrix::lin

using namespace veltrix;
using namespace veltrix::lin;

extern "C" {

VELTRIX_EXPORT(int, LIN_UDS_Request,
               (int h, unsigned char ch, const LIN_UDS_ADDR* addr, const unsigned char* data,
                int len),
               LIN_UDS_ERR_SEND, { return request(h, ch, addr, data, len); })

VELTRIX_EXPORT(int, LIN_UDS_Response,
               (int h, unsigned char ch, const LIN_UDS_ADDR* addr, unsigned char* data,
                int timeout_ms),
               LIN_UDS_ERR_SEND, { return response(h, ch, addr, data, timeout_ms); })

VELTRIX_EXPORT(int, LIN_UDS_SendMsg,
               (int h, unsigned char ch, unsigned long long addr, const unsigned char* data,
                int len),
               LIN_UDS_ERR_SEND, { return send_msg(h, ch, addr, data, len); })

VELTRIX_EXPORT(int, LIN_UDS_GetMsg,
               (int h, unsigned char ch, unsigned long long addr, unsigned char* data),
               LIN_UDS_ERR_SEND, { return get_msg(h, ch, addr, data); })

VELTRIX_EXPORT(int, LIN_USD_CheckSendState, (const LIN_EX_MSG* sent, const LIN_EX_MSG* got, int n),
               0, {
                 if (sent == nullptr || got == nullptr || n < 1) return 0;
                 for (int i = 0; i < n; ++i)
                   if (!confirms(sent[i], got[i])) return 0;
                 return 1;
               })

VELTRIX_EXPORT(int, LIN_USD_SetLINMsgToBuffer,
               (int h, unsigned char ch, const LIN_EX_MSG* recs, int n), LIN_UDS_ERR_SEND, {
                 if (recs == nullptr && n > 0) return int(LIN_UDS_ERR_SEND);
                 std::span<const LIN_EX_MSG> s = n > 0
                                                     ? std::span<const LIN_EX_MSG>(recs, size_t(n))
                                                     : std::span<const LIN_EX_MSG>();
                 return buffer_append(slot_of(h), ch, s) ? int(LIN_UDS_OK) : int(LIN_UDS_ERR_SEND);
               })

VELTRIX_EXPORT(int, LIN_UDS_GetMsgFromUDSBuffer,
               (int h, unsigned char ch, LIN_EX_MSG* out, int size), LIN_UDS_ERR_SEND, {
                 if (out == nullptr) return int(LIN_UDS_ERR_SEND);
                 int n = buffer_take(slot_of(h), ch, {out, size_t(std::max(size, 0))});
                 return n < 0 ? int(LIN_UDS_ERR_SEND) : n;
               })

VELTRIX_EXPORT(int, LIN_USD_ClearCANMsgFromUDSBuffer, (int h, unsigned char ch), LIN_UDS_ERR_SEND,
               { return buffer_clear(slot_of(h), ch) ? int(LIN_UDS_OK) : int(LIN_UDS_ERR_SEND); })

VELTRIX_EXPORT(unsigned long long, LIN_UDS_PackAddr, (const LIN_UDS_ADDR* addr), 0,
               { return addr ? pack(*addr) : 0; })

}  // extern "C"
