// USB transfer primitives. Each looks the adapter up, needs it open, and resets the device
// after any failed transfer so that the next exchange starts from clean endpoints.
// Each holds the adapter's lock for its transfer unless the calling thread already holds
// it, so a handle is never closed under a running transfer. A time-out of 0 or less means
// 1000 ms: no transfer waits without end on an adapter that stopped answering.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veltrix/api.h"

namespace veltrix {

// How a bulk read ended, so the command transport can tell a late reply from a short one.
enum class ReadStatus {
  Ok,        // exactly the requested count arrived
  Short,     // the adapter ended the transfer early
  TimedOut,  // the time-out ran out first (some bytes may have arrived)
  Failed,    // unknown or closed adapter, or a transfer error
};

struct BulkRead {
  ReadStatus status = ReadStatus::Failed;
  size_t got = 0;  // bytes written into the buffer, whatever the status
};

// USBBulkReadData with the outcome spelled out; it resets the device on the same failures.
BulkRead bulk_read(uint32_t handle, int ep, uint8_t* buf, size_t len, int timeout_ms);

}  // namespace veltrix

extern "C" {

// Returns 0, or -2 on any failure.
VELTRIX_API int USBBulkWriteData(uint32_t handle, int ep, const uint8_t* buf, int len,
                                 int timeout_ms);
// Returns len, or -3 on any failure or short read. Time-outs below 1000 ms are raised.
VELTRIX_API int USBBulkReadData(uint32_t handle, int ep, uint8_t* buf, int len, int timeout_ms);
// Returns 0, or -2.
VELTRIX_API int USBIntWriteData(uint32_t handle, int ep, const uint8_t* buf, int len,
                                int timeout_ms);
// Returns 0 when exactly wLength bytes moved, or -2.
VELTRIX_API int USBCtrlData(uint32_t handle, uint8_t bmRequestType, uint8_t bRequest,
                            uint16_t wValue, uint16_t wIndex, uint8_t* buf, uint16_t wLength,
                            int timeout_ms);

}  // extern "C"
