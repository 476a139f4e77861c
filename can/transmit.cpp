// Batch sends: fire-and-forget (0x0C02, 500 frames per command) and synchronous with
// delivery accounting (0x0C0A, 250 frames per command, then 0x0C0B until the batch is on
// the bus).
#include "can/transmit.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>
#include <vector>

#include "can/can_state.hpp"
#include "can/fd_bridge.hpp"
#include "can/frame_codec.hpp"
#include "device/abi.hpp"
#include "device/wire.hpp"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdSend = 0x0C02;
constexpr uint32_t kCmdSendSync = 0x0C0A;
constexpr uint32_t kCmdTxInfo = 0x0C0B;

constexpr uint32_t kAsyncChunk = 500;
constexpr uint32_t kSyncChunk = 250;
constexpr size_t kSyncHeader = 12;  // 10 zero bytes, port, record count
constexpr size_t kTxInfoSize = 4;

// The adapter answers a batch only once it has queued all of it.
int async_reply_timeout_ms(uint32_t frames) { return int(frames * 200 + 1000); }
// How long a synchronous batch may take to reach the bus.
int64_t sync_budget_ms(uint32_t frames) { return int64_t(frames) * 100 + 1000; }

// Stamps the caller's record as sent by this host and appends the adapter's copy, which
// carries only the flag bits the adapter understands and no time.
void stage_frame(CAN_MSG& m, uint8_t port, uint32_t now, wire::PayloadBuilder& p) {
  m.TimeStamp = now;
  m.FrameFlags = uint8_t((m.FrameFlags & CAN_MSG_FLAG_RTR) | port_bits(port) | CAN_MSG_FLAG_TX);
  CAN_MSG copy = m;
  copy.FrameFlags = m.FrameFlags & CAN_MSG_FLAG_RTR;
  copy.ExtFlag = m.ExtFlag & 1;
  copy.TimeStamp = 0;
  std::array<uint8_t, kRecordSize> rec;
  encode_frame(copy, rec.data());
  p.bytes(rec.data(), rec.size());
}

int send_async(uint32_t h, uint8_t port, CAN_MSG* frames, uint32_t count) {
  if (count == 0) return 0;
  if (frames == nullptr) return CAN_ERR_PARAMETER;
  auto slot = slot_of(h);
  if (!slot) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_send(h, port, frames, count);

  int total = 0;
  for (uint32_t at = 0; at < count; at += kAsyncChunk) {
    const uint32_t n = std::min(kAsyncChunk, count - at);
    wire::PayloadBuilder p(1 + kRecordSize * n);
    p.u8(port);
    for (uint32_t i = 0; i < n; ++i) stage_frame(frames[at + i], port, host_timestamp(*slot), p);
    std::array<uint8_t, 4> accepted{};
    ExchangeResult r = exchange(h, {.cmd = kCmdSend, .payload = p.span(), .reply = accepted,
                                    .timeout_ms = async_reply_timeout_ms(n)});
    if (!r.ok()) return map_result(r);
    // The adapter cannot have accepted more than it was given: a count above the chunk, or
    // a reply too short to hold one, is a broken reply rather than a number to pass on.
    if (r.copied < accepted.size()) return CAN_ERR_USB_READ_FAIL;
    const uint32_t taken = wire::get_le32(accepted.data());
    if (taken > n) return CAN_ERR_USB_READ_FAIL;
    total += int(taken);
  }
  return total;
}

int send_sync(uint32_t h, uint8_t port, CAN_MSG* frames, uint32_t count) {
  if (count == 0) return 0;
  if (frames == nullptr) return CAN_ERR_PARAMETER;
  auto slot = slot_of(h);
  if (!slot) return CAN_ERR_USB_WRITE_FAIL;
  if (is_canfd_model(h)) return fd_send(h, port, frames, count);
  const CanPort* ps = port_state(*slot, port);

  int total = 0;
  for (uint32_t at = 0; at < count; at += kSyncChunk) {
    const uint32_t n = std::min(kSyncChunk, count - at);
    wire::PayloadBuilder p(kSyncHeader + kRecordSize * n);
    p.zeros(10).u8(port).u8(uint8_t(n));
    for (uint32_t i = 0; i < n; ++i) stage_frame(frames[at + i], port, host_timestamp(*slot), p);
    // The adapter echoes into the payload buffer; the content means nothing to the host.
    std::vector<uint8_t> echo(p.size());
    ExchangeResult r = exchange(h, {.cmd = kCmdSendSync, .payload = p.span(), .reply = echo,
                                    .canfd_channel = port});
    if (!r.ok()) return map_result(r);

    const auto start = std::chrono::steady_clock::now();
    CAN_TX_INFO info{};
    for (;;) {
      int q = get_send_info(h, port, &info);
      if (q < 0) return q;
      // The adapter's counts cover this batch alone; larger ones are not believed.
      info.SentCount = uint8_t(std::min<uint32_t>(info.SentCount, n));
      // The adapter gave up: its count for this batch is the answer, earlier batches
      // are not added.
      if (info.Aborted) return info.SentCount;
      if (info.SentCount >= info.QueuedCount) break;
      auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::steady_clock::now() - start).count();
      if (elapsed >= sync_budget_ms(n)) break;
      // About 100 bit times per outstanding frame at the stored rate.
      uint32_t rate = ps ? ps->baud_rate.load() : 0;
      uint32_t outstanding = uint32_t(info.QueuedCount - info.SentCount);
      uint64_t wait_ms = rate ? uint64_t(outstanding) * 100000 / rate : 1;
      // A slow configured rate must not stretch the wait past the batch's budget.
      wait_ms = std::clamp<uint64_t>(wait_ms, 1, uint64_t(sync_budget_ms(n) - elapsed));
      std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
    }
    total += info.SentCount;  // a batch out of time counts what reached the bus
  }
  return total;
}

}  // namespace

int get_send_info(uint32_t h, uint8_t port, CAN_TX_INFO* out) {
  if (out == nullptr) return CAN_ERR_PARAMETER;
  const uint8_t payload[1] = {port};
  std::array<uint8_t, kTxInfoSize> reply{};
  ExchangeResult r = exchange(h, {.cmd = kCmdTxInfo, .payload = payload, .reply = reply,
                                  .canfd_channel = port});
  if (!r.ok()) return map_result(r);
  if (r.reply_len != kTxInfoSize) return CAN_ERR_USB_READ_FAIL;
  out->QueuedCount = reply[0];
  out->Reserved = reply[1];
  out->SentCount = reply[2];
  out->Aborted = reply[3];
  return CAN_SUCCESS;
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CAN_SendMsg,
               (unsigned int h, unsigned char port, CAN_MSG* frames, unsigned int count),
               CAN_ERR_USB_READ_FAIL, { return can::send_async(h, port, frames, count); })

VELTRIX_EXPORT(int, CAN_SendMsgSynch,
               (unsigned int h, unsigned char port, CAN_MSG* frames, unsigned int count),
               CAN_ERR_USB_READ_FAIL, { return can::send_sync(h, port, frames, count); })

VELTRIX_EXPORT(int, CAN_GetSendMsgInfo, (unsigned int h, unsigned char port, CAN_TX_INFO* info),
               CAN_ERR_USB_READ_FAIL, {
                 if (info == nullptr) return CAN_ERR_PARAMETER;
                 if (!can::slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
                 return can::get_send_info(h, port, info);
               })

}  // extern "C"
