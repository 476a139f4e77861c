// Command packets: framing, the send retry policy and bounded reply reading.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "device/abi.hpp"
#include "device/identity.hpp"
#include "device/registry.hpp"
#include "device/transport.hpp"
#include "device/usb_io.hpp"
#include "device/wire.hpp"

namespace veltrix {
namespace {

enum class Pipe { Bulk, Interrupt };

int send_once(uint32_t handle, int ep, Pipe pipe, const USB_MSG* msg, int timeout_ms) {
  if (msg == nullptr || (msg->data == nullptr && msg->len > 0)) return -2;
  size_t total = size_t(msg->len) + 8;
  auto* frame = static_cast<uint8_t*>(std::malloc(total));
  if (frame == nullptr) return -4;
  wire::put_be32(frame, msg->cmd);
  wire::put_be32(frame + 4, msg->len);
  if (msg->len) std::memcpy(frame + 8, msg->data, msg->len);
  int r = pipe == Pipe::Bulk ? USBBulkWriteData(handle, ep, frame, int(total), timeout_ms)
                             : USBIntWriteData(handle, ep, frame, int(total), timeout_ms);
  std::free(frame);
  return r == 0 ? 0 : -2;
}

double elapsed_ms(std::chrono::system_clock::time_point start) {
  auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                std::chrono::system_clock::now() - start)
                .count();
  return double(us) * 0.001;
}

// Retries a failed send for about one second, re-connecting the adapter between tries.
// The caller holds the adapter's lock throughout.
template <typename Attempt>
int send_with_retry(uint32_t handle, Attempt attempt) {
  auto start = std::chrono::system_clock::now();
  int r;
  do {
    r = attempt();
    if (r == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    retry_connect_dev(handle);
    if (r >= 0) break;
  } while (elapsed_ms(start) < 1000.0);
  return r;
}

Transport from_read(ReadStatus s) {
  switch (s) {
    case ReadStatus::Ok:
      return Transport::Ok;
    case ReadStatus::Short:
      return Transport::ShortReply;
    case ReadStatus::TimedOut:
      return Transport::Timeout;
    case ReadStatus::Failed:
      return Transport::ReadFailed;
  }
  return Transport::ReadFailed;
}

// A header whose length has the top bit set, or exceeds anything the adapter sends, is not
// a reply but a stream that lost its framing: whatever follows cannot be told apart from the
// next reply. A bus reset empties the adapter's IN FIFO so the next command starts clean.
bool framing_lost(uint32_t len) { return len > kMaxReplyBytes; }

void reset_stream(uint32_t handle) {
  if (usb_list* r = usb_list_post(handle); r && r->handle) libusb_reset_device(r->handle);
}

// Reads and discards n payload bytes so the reply stream stays framed.
void drain(uint32_t handle, uint32_t n, int timeout_ms) {
  std::vector<uint8_t> scratch(n);
  bulk_read(handle, identity::kEpReplyIn, scratch.data(), n, timeout_ms);
}

}  // namespace

Transport read_reply(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms,
                     size_t* copied) {
  size_t landed = 0;
  if (copied) *copied = 0;
  if (msg == nullptr) return Transport::ReadFailed;
  const uint32_t expected = msg->cmd;
  uint8_t header[8];
  BulkRead h = bulk_read(handle, identity::kEpReplyIn, header, sizeof header, timeout_ms);
  if (h.status != ReadStatus::Ok) {
    msg->cmd = 0;
    msg->len = 0;
    // Part of a header is still a reply that came, only cut short.
    return h.got > 0 && h.status == ReadStatus::TimedOut ? Transport::ShortReply
                                                         : from_read(h.status);
  }
  msg->cmd = wire::get_be32(header);
  msg->len = wire::get_be32(header + 4);
  if (msg->len == 0) return Transport::Ok;  // header-only reply
  if (framing_lost(msg->len)) {
    reset_stream(handle);
    return Transport::ReadFailed;
  }
  if (msg->data == nullptr || msg->cmd != expected) {
    drain(handle, msg->len, timeout_ms);
    return msg->cmd != expected ? Transport::WrongCode : Transport::ReadFailed;
  }
  BulkRead p;
  if (msg->len <= capacity) {
    p = bulk_read(handle, identity::kEpReplyIn, msg->data, msg->len, timeout_ms);
    landed = p.got;
  } else {
    // Longer than the caller's buffer: read it whole (one transfer, as the adapter sent it)
    // and keep what fits of what came.
    std::vector<uint8_t> whole(msg->len);
    p = bulk_read(handle, identity::kEpReplyIn, whole.data(), msg->len, timeout_ms);
    landed = std::min(p.got, capacity);
    if (landed) std::memcpy(msg->data, whole.data(), landed);
  }
  if (copied) *copied = landed;
  return from_read(p.status);
}

int send_packet(uint32_t handle, const USB_MSG* msg, int timeout_ms) {
  return send_with_retry(handle, [&] {
    return send_once(handle, identity::kEpCommandOut, Pipe::Bulk, msg, timeout_ms);
  });
}

int send_canfd_packet(uint32_t handle, uint8_t channel, const USB_MSG* msg, int timeout_ms) {
  int ep = (channel & 1) ? identity::kEpSecondOut : identity::kEpCommandOut;
  return send_with_retry(
      handle, [&] { return send_once(handle, ep, Pipe::Bulk, msg, timeout_ms); });
}

Transport get_packet(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms,
                     size_t* copied) {
  Transport r = read_reply(handle, msg, capacity, timeout_ms, copied);
  if (r != Transport::Ok) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    retry_connect_dev(handle);
  }
  return r;
}

}  // namespace veltrix

using namespace veltrix;

namespace {

// The exported readers keep their two documented results: every failure is -3. A len of 0
// on entry is the documented calling form (no capacity given): the caller's buffer takes the
// whole reply. A non-zero len bounds what is written.
template <typename Reader>
int exported_get(unsigned int h, USB_MSG* msg, int timeout_ms, Reader reader) {
  if (msg == nullptr) return -3;
  const size_t capacity = msg->len ? size_t(msg->len) : size_t(kMaxReplyBytes);
  return reader(h, msg, capacity, timeout_ms, nullptr) == Transport::Ok ? 0 : -3;
}

}  // namespace

extern "C" {

VELTRIX_EXPORT(int, USB_MSG_Send, (unsigned int h, USB_MSG* msg, int timeout_ms), -2,
               { return send_once(h, identity::kEpCommandOut, Pipe::Bulk, msg, timeout_ms); })

VELTRIX_EXPORT(int, MSG_Send, (unsigned int h, USB_MSG* msg, int timeout_ms), -2,
               { return send_packet(h, msg, timeout_ms); })

VELTRIX_EXPORT(int, USB_CANFD_MSG_Send,
               (unsigned int h, unsigned char ch, USB_MSG* msg, int timeout_ms), -2, {
                 int ep = (ch & 1) ? identity::kEpSecondOut : identity::kEpCommandOut;
                 return send_once(h, ep, Pipe::Bulk, msg, timeout_ms);
               })

VELTRIX_EXPORT(int, CANFD_MSG_Send,
               (unsigned int h, unsigned char ch, USB_MSG* msg, int timeout_ms), -2,
               { return send_canfd_packet(h, ch, msg, timeout_ms); })

VELTRIX_EXPORT(int, USB_MSG_SendInt, (unsigned int h, USB_MSG* msg, int timeout_ms), -2,
               { return send_once(h, identity::kEpSecondOut, Pipe::Interrupt, msg, timeout_ms); })

VELTRIX_EXPORT(int, MSG_SendInt, (unsigned int h, USB_MSG* msg, int timeout_ms), -2, {
  // Each try is one interrupt send; the loop ends after about a second like MSG_Send.
  return guarded(-2, [&] {
    return send_with_retry(
        h, [&] { return send_once(h, identity::kEpSecondOut, Pipe::Interrupt, msg, timeout_ms); });
  });
})

VELTRIX_EXPORT(int, USB_MSG_Get, (unsigned int h, USB_MSG* msg, int timeout_ms), -3,
               { return exported_get(h, msg, timeout_ms, read_reply); })

VELTRIX_EXPORT(int, MSG_Get, (unsigned int h, USB_MSG* msg, int timeout_ms), -3,
               { return exported_get(h, msg, timeout_ms, get_packet); })

}  // extern "C"
