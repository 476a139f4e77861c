// Delays, the wall clock and the debug slot.
#include <sys/time.h>
#include <unistd.h>

#include "device/abi.hpp"
#include "veltrix/usb_device.h"

namespace {
// The application's debug cookie; the library only stores it.
uint64_t DebugHandle = 0;
}  // namespace

extern "C" {

VELTRIX_EXPORT_VOID(delay_us, (unsigned int us), { usleep(us); })
VELTRIX_EXPORT_VOID(delay_ms, (unsigned int ms), { delay_us(ms * 1000u); })
VELTRIX_EXPORT_VOID(sleep_ms, (unsigned int ms), { usleep(ms * 1000u); })

VELTRIX_EXPORT(uint64_t, GetTimestampOfDay, (void), 0, {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return uint64_t(tv.tv_sec) * 1000u + uint64_t(tv.tv_usec) / 1000u;
})

VELTRIX_EXPORT(uint64_t*, DEBUG_SetHandle, (uint64_t value), nullptr, {
  DebugHandle = value;
  return &DebugHandle;
})

}  // extern "C"
