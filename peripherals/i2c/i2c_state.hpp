// Process-wide state of the I2C family and the exchange shapes every I2C operation uses.
//
// The stored channel records are written by IIC_Init and read by IIC_GetSlaveAddr; each
// entry is guarded by `mutex` (a leaf lock: nothing else is taken while it is held).
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <span>

#include "device/transport.hpp"
#include "device/wire.hpp"
#include "veltrix/i2c.h"

namespace veltrix::i2c {

inline constexpr int kSlots = 30;

struct StoredConfig {
  IIC_CONFIG config{};
  bool applied = false;
};

struct I2cState {
  std::mutex mutex;
  std::array<std::array<StoredConfig, IIC_MAX_CHANNELS>, kSlots> channels{};  // guarded by mutex
};

I2cState& state();

// Where an operation stands after the common checks: 0 and the slot, or the code to return.
struct Target {
  int code = 0;
  int slot = -1;
};
// Unknown adapter: -2 (nothing can be sent to it); channel out of range: -5.
Target check_target(int handle, uint8_t channel);

// Transport result to the family's code: anything but a failed write is a failed reply.
int i2c_code(Transport t);
// The block reads report the transport's own read-failure code instead.
int block_code(Transport t);

// A master write: the adapter answers with exactly one status byte, which is the result.
int status_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload);

// A master read: the adapter answers with its status and, on success, n data bytes (or
// the status alone). The data reaches `out` only when the status is 0.
int read_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload, uint8_t* out,
                  uint32_t n);

// Length arguments of the C interface, checked once: negative or beyond what one command
// carries is refused; data pointers may be NULL only for an empty transfer.
bool valid_length(int len, const void* data);

}  // namespace veltrix::i2c
