// The reader thread of a stream and its completion routine.
//
// One bulk IN transfer of one frame is kept in flight. The completion routine runs inside
// whichever thread is handling libusb events (normally the reader), so it touches only
// atomics and the frame queue. The transfer and its buffer belong to the reader thread,
// which frees them only once no completion can still arrive.
#include <memory>
#include <new>

#include "device/locks.hpp"
#include "device/registry.hpp"
#include "peripherals/adc/adc_state.hpp"

namespace veltrix::adc {
namespace {

constexpr int kDrainRounds = 10;
constexpr int kDrainRoundMs = 10;
// After a cancel the completion normally comes within a round or two; one that never
// comes (a wedged host controller) leaves the transfer allocated rather than freed under
// libusb's feet.
constexpr int kCancelRounds = 200;

void handle_events_ms(libusb_context* ctx, int ms) {
  timeval tv{ms / 1000, (ms % 1000) * 1000};
  libusb_handle_events_timeout(ctx, &tv);
}

void LIBUSB_CALL on_complete(libusb_transfer* t) {
  Stream& s = *static_cast<Stream*>(t->user_data);
  if (t->status == LIBUSB_TRANSFER_COMPLETED) {
    const int n = t->actual_length;
    if (n > 0) {
      if (ADC_DATA_CALLBACK cb = s.callback.load()) {
        cb(s.handle.load(), t->buffer, n / 2, n);
      } else {
        s.queue.push(t->buffer, size_t(n));
      }
    }
    if (s.exit_requested.load()) {
      s.in_flight.store(false);
      return;
    }
    const int r = libusb_submit_transfer(t);
    if (r == 0) return;
    // Unplugged between the completion and the resubmission: the same as below.
    if (r == LIBUSB_ERROR_NO_DEVICE) s.exit_requested.store(true);
  } else if (t->status == LIBUSB_TRANSFER_NO_DEVICE) {
    // The adapter is gone: the reader winds down as if stopped.
    s.exit_requested.store(true);
  }
  // Any other status ends the stream; the reader keeps handling events until stopped.
  s.in_flight.store(false);
}

libusb_device_handle* open_device(uint32_t handle) {
  AdapterLock guard(handle);
  usb_list* r = usb_list_post(handle);
  return r && r->opened ? r->handle : nullptr;
}

}  // namespace

void run_reader(Stream& s, uint32_t frame_bytes) {
  // A scan or re-connect in progress finishes before the stream looks at the device.
  { GlobalLock wait_for_scans; }
  libusb_context* ctx = registry().ctx;
  std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[frame_bytes]);
  libusb_device_handle* dev = open_device(s.handle.load());
  libusb_transfer* t = buf && dev ? libusb_alloc_transfer(0) : nullptr;
  if (t) {
    libusb_fill_bulk_transfer(t, dev, kStreamEndpoint, buf.get(), int(frame_bytes), on_complete, &s,
                              0);
    if (libusb_submit_transfer(t) != 0) {
      s.in_flight.store(false);
      libusb_free_transfer(t);
      t = nullptr;
    }
  }
  if (t == nullptr) {
    s.in_flight.store(false);
    s.exit_requested.store(true);
    s.exited.store(true);
    return;
  }
  while (!s.exit_requested.load()) handle_events_ms(ctx, 2000);
  for (int i = 0; i < kDrainRounds; ++i) handle_events_ms(ctx, kDrainRoundMs);
  if (s.in_flight.load()) libusb_cancel_transfer(t);
  for (int i = 0; i < kDrainRounds || (s.in_flight.load() && i < kCancelRounds); ++i)
    handle_events_ms(ctx, kDrainRoundMs);
  if (s.in_flight.load()) {
    buf.release();  // still owned by the transfer the host controller holds
  } else {
    libusb_free_transfer(t);
  }
  s.exited.store(true);
}

}  // namespace veltrix::adc
