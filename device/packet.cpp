// Command packets: framing, the send retry policy and bounded reply reading.
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

// Reads and discards n payload bytes so the reply stream stays framed. A length beyond
// anything the adapter sends means the stream has lost its framing: the device is reset
// instead of reading gigabytes.
void drain(uint32_t handle, uint32_t n, int timeout_ms) {
  if (n > kMaxReplyBytes) {
    if (usb_list* r = usb_list_post(handle); r && r->handle) libusb_reset_device(r->handle);
    return;
  }
  std::vector<uint8_t> scratch(n);
  USBBulkReadData(handle, identity::kEpReplyIn, scratch.data(), int(n), timeout_ms);
}

}  // namespace

int read_reply(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms) {
  if (msg == nullptr) return -3;
  const uint32_t expected = msg->cmd;
  uint8_t header[8];
  if (USBBulkReadData(handle, identity::kEpReplyIn, header, 8, timeout_ms) != 8) {
    msg->cmd = 0;
    msg->len = 0;
    return -3;
  }
  msg->cmd = wire::get_be32(header);
  msg->len = wire::get_be32(header + 4);
  if (int32_t(msg->len) <= 0) return 0;  // header-only reply
  if (msg->data == nullptr || msg->cmd != expected) {
    drain(handle, msg->len, timeout_ms);
    return -3;
  }
  if (msg->len <= capacity) {
    // The payload read's own result is not examined: the header already said what came.
    USBBulkReadData(handle, identity::kEpReplyIn, msg->data, int(msg->len), timeout_ms);
    return 0;
  }
  // Longer than the caller's buffer: read it whole (one transfer, as the adapter sent it)
  // and keep what fits.
  if (msg->len > kMaxReplyBytes) {
    drain(handle, msg->len, timeout_ms);
    return -3;
  }
  std::vector<uint8_t> whole(msg->len);
  USBBulkReadData(handle, identity::kEpReplyIn, whole.data(), int(msg->len), timeout_ms);
  if (capacity) std::memcpy(msg->data, whole.data(), capacity);
  return 0;
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

int get_packet(uint32_t handle, USB_MSG* msg, size_t capacity, int timeout_ms) {
  int r = read_reply(handle, msg, capacity, timeout_ms);
  if (r != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    retry_connect_dev(handle);
  }
  return r;
}

}  // namespace veltrix

using namespace veltrix;

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
               { return read_reply(h, msg, msg ? msg->len : 0, timeout_ms); })

VELTRIX_EXPORT(int, MSG_Get, (unsigned int h, USB_MSG* msg, int timeout_ms), -3,
               { return get_packet(h, msg, msg ? msg->len : 0, timeout_ms); })

}  // extern "C"
