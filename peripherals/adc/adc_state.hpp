// Process-wide state of the ADC family: per adapter slot, the one-shot settings and the
// stream.
//
// Lock order: a slot's `control` mutex, then the adapter lock (for the stop request). The
// reader thread and the completion routine take neither: they use atomics and the frame
// queue's own leaf lock. Nothing calls user code with a lock held.
#pragma once

#include <libusb.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "peripherals/adc/frame_queue.hpp"
#include "peripherals/command.hpp"
#include "veltrix/adc.h"

namespace veltrix::adc {

inline constexpr uint8_t kStreamEndpoint = 0x81;

struct Stream {
  std::mutex control;  // serialises start and stop of this slot
  std::thread thread;  // guarded by control; not joinable = no reader thread

  std::atomic<uint32_t> handle{0};
  std::atomic<uint32_t> frame_samples{0};
  std::atomic<bool> exit_requested{true};  // set by stop, by an unplug, or a failed start
  std::atomic<bool> exited{true};          // set by the reader thread as its last act
  std::atomic<bool> in_flight{false};      // a transfer is submitted and not completed
  std::atomic<ADC_DATA_CALLBACK> callback{nullptr};
  FrameQueue queue;
};

struct Slot {
  std::atomic<uint8_t> mask{0};  // set by ADC_Init, read by ADC_Read
  std::atomic<int32_t> rate{0};
  Stream stream;
};

struct AdcState {
  std::array<Slot, periph::kSlots> slots;
};

AdcState& state();

// The body of the reader thread of one slot (reader.cpp).
void run_reader(Stream& s, uint32_t frame_bytes);

}  // namespace veltrix::adc
