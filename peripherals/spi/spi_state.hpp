// Process-wide state of the SPI family and the exchange shapes its operations share.
//
// Lock order: a slot's `control` mutex (held through a whole start or stop of continuous
// reading) before the adapter lock; `mutex` and the channel data lock
// (spi_data_lock(handle, ch)) are leaves, never held across an exchange or a callback.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>

#include "device/ring_buffer.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "veltrix/spi.h"

namespace veltrix::spi {

inline constexpr int kSlots = 30;
inline constexpr int kChannels = 2;

struct SlaveChannel {
  std::atomic<bool> reading{false};
  std::atomic<SPI_GET_DATA_HANDLE> callback{nullptr};
  RingBuffer<uint8_t> fifo{SPI_SLAVE_FIFO_BYTES};  // guarded by spi_data_lock(handle, ch)
  std::atomic<size_t> fifo_size{0};  // mirrors fifo.size() for the unlocked empty test
};

struct SlaveSlot {
  std::mutex control;    // serialises starting and stopping the reader
  std::mutex mutex;      // guards `running` against the reader's decision to end
  std::thread reader;    // guarded by control; not joinable: no thread
  bool running = false;  // guarded by mutex
  std::atomic<uint32_t> handle{0};
  std::array<SlaveChannel, kChannels> ch;
};

struct SpiState {
  std::mutex mutex;
  std::array<std::array<SPI_FLASH_CONFIG, kChannels>, kSlots> flash{};  // guarded by mutex
  std::array<SlaveSlot, kSlots> slave;
};

SpiState& state();

// The registry slot of an open adapter, or -1.
int slot_of(int handle);

// Transport result to the family's code: anything but a failed write is a failed reply.
int spi_code(Transport t);

// Commands acknowledged by an empty reply: a payload is a failure. send_timeout_ms 0 sends
// within timeout_ms too.
int ack_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload, int timeout_ms,
                 int send_timeout_ms = 0);
// Commands answered with exactly out.size() data bytes.
int data_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload,
                  std::span<uint8_t> out, int timeout_ms);

// Lengths of the C interface: negative, or beyond one command, is refused; data pointers
// may be NULL only for an empty transfer.
bool valid_length(int64_t len, const void* data);

// Block sizes and counts travel as 16-bit fields.
inline bool valid_blocks(int size, int count) {
  return size >= 0 && size <= 0xFFFF && count >= 0 && count <= 0xFFFF;
}

// Caller's time-out plus a margin, kept within an int.
int plus_ms(int64_t base, int64_t margin);

}  // namespace veltrix::spi
