// Continuous reading: start, stop, draining the frame queue.
#include <algorithm>
#include <mutex>
#include <system_error>

#include "device/abi.hpp"
#include "device/close_hooks.hpp"
#include "device/identity.hpp"
#include "device/locks.hpp"
#include "device/registry.hpp"
#include "device/usb_io.hpp"
#include "device/wire.hpp"
#include "peripherals/adc/adc_state.hpp"

namespace veltrix::adc {
namespace {

constexpr uint32_t kCmdStart = 0x502;
constexpr uint8_t kReqStopStream = 0x40;
constexpr int kStopTimeoutMs = 1000;

// Joins a reader that has ended or been asked to end. The caller holds s.control. A
// reader cannot join itself (a callback that stops its own stream): it is left to end and
// the next start joins it.
void join_reader(Stream& s) {
  if (s.thread.joinable() && s.thread.get_id() != std::this_thread::get_id()) s.thread.join();
}

// The stop request under the adapter's lock; `exit` (if any) is raised under it too, so
// no command of another thread slips between the two.
void send_stop_request(uint32_t h, std::atomic<bool>* exit = nullptr) {
  AdapterLock adapter(h);
  USBCtrlData(h, identity::kReqTypeVendorOut, kReqStopStream, 0, 0, nullptr, 0, kStopTimeoutMs);
  if (exit) exit->store(true);
}

int stop(uint32_t h) {
  const int slot = periph::slot_of(h);
  if (slot < 0) return ADC_SUCCESS;
  Stream& s = state().slots[slot].stream;
  std::scoped_lock g(s.control);
  if (!s.exit_requested.load()) {
    send_stop_request(h, &s.exit_requested);
    // The reader may be waiting up to two seconds for an event that no longer comes.
    if (registry().ctx) libusb_interrupt_event_handler(registry().ctx);
    s.callback.store(nullptr);
  }
  join_reader(s);
  return ADC_SUCCESS;
}

// A close (or an unplug followed by a close) stops the stream like ADC_StopContinueRead:
// the reader's transfer must not outlive the handle it runs on.
void stop_for_close(uint32_t h) { stop(h); }

int start(uint32_t h, uint8_t mask, int rate, uint32_t frame_samples, ADC_DATA_CALLBACK cb) {
  const int slot = periph::slot_of(h);
  if (slot < 0 || frame_samples == 0) return ADC_ERR_PARAMETER;
  static std::once_flag hooked;
  std::call_once(hooked, [] { add_close_hook(stop_for_close); });
  frame_samples = std::min<uint32_t>(frame_samples, ADC_MAX_FRAME_SAMPLES);
  stop(h);  // a running stream first; a stream that ended by itself is joined here
  Stream& s = state().slots[slot].stream;
  std::scoped_lock g(s.control);
  const uint32_t frame_bytes = frame_samples * 2;
  if (!s.queue.reset(frame_bytes, ADC_QUEUE_MAX_BYTES)) return ADC_ERR_REPLY;
  s.handle.store(h);
  s.frame_samples.store(frame_samples);
  wire::PayloadBuilder b(9);
  b.u8(mask).be32(uint32_t(rate)).be32(frame_samples);
  int code = periph::ack(h, kCmdStart, b.span());
  if (code == ADC_ERR_REPLY) {
    // The adapter may have started streaming all the same; its frames would then be read
    // as the replies of later commands.
    send_stop_request(h);
  }
  if (code != ADC_SUCCESS) return code;
  s.exit_requested.store(false);
  s.exited.store(false);
  s.callback.store(cb);
  // Counted as running from here, so a caller polling the state right after the start
  // does not see the moment before the reader's first submission as the end.
  s.in_flight.store(true);
  try {
    s.thread = std::thread(run_reader, std::ref(s), frame_bytes);
  } catch (const std::system_error&) {
    s.exit_requested.store(true);
    s.exited.store(true);
    s.in_flight.store(false);
    return ADC_ERR_REPLY;
  }
  return ADC_SUCCESS;
}

int get_data(uint32_t h, short* out, int max_samples) {
  const int slot = periph::slot_of(h);
  if (slot < 0 || out == nullptr) return ADC_ERR_PARAMETER;
  Stream& s = state().slots[slot].stream;
  const uint32_t frame = s.queue.frame_bytes() / 2;
  if (frame == 0 || max_samples < int(frame)) return 0;
  size_t frames = s.queue.pop_into(reinterpret_cast<uint8_t*>(out), size_t(max_samples) * 2);
  return int(frames * frame);
}

int wait_for_exit(uint32_t h) {
  const int slot = periph::slot_of(h);
  if (slot < 0) return ADC_ERR_PARAMETER;
  Stream& s = state().slots[slot].stream;
  std::scoped_lock g(s.control);
  if (!s.exit_requested.load()) return 1;
  join_reader(s);
  return 0;
}

int stream_state(uint32_t h, unsigned int* dropped) {
  const int slot = periph::slot_of(h);
  if (slot < 0) return ADC_ERR_PARAMETER;
  Stream& s = state().slots[slot].stream;
  if (dropped) *dropped = s.queue.dropped();
  return s.in_flight.load() ? 1 : 0;
}

}  // namespace
}  // namespace veltrix::adc

using namespace veltrix;
using namespace veltrix::adc;

VELTRIX_EXPORT(int, ADC_StartContinueRead,
               (unsigned int h, unsigned char mask, int rate, unsigned int frame_size,
                ADC_DATA_CALLBACK cb),
               ADC_ERR_REPLY, { return start(h, mask, rate, frame_size, cb); })

VELTRIX_EXPORT(int, ADC_StopContinueRead, (unsigned int h), ADC_SUCCESS, { return stop(h); })

VELTRIX_EXPORT(int, ADC_GetData, (unsigned int h, short* out, int max_samples), ADC_ERR_PARAMETER,
               { return get_data(h, out, max_samples); })

VELTRIX_EXPORT(int, ADC_WaitForThreadExit, (unsigned int h), ADC_ERR_PARAMETER,
               { return wait_for_exit(h); })

VELTRIX_EXPORT(int, ADC_GetStreamState, (unsigned int h, unsigned int* dropped), ADC_ERR_PARAMETER,
               { return stream_state(h, dropped); })
