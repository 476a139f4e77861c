// Work that must end before an adapter's handle is closed. A family that keeps a thread or
// a transfer on the handle (the ADC stream, the SPI slave reader) registers a hook: a
// reader left running would complete a transfer on a freed handle, or re-open the adapter
// the application just closed through the send retry's re-connect.
#pragma once

#include <cstdint>

namespace veltrix {

using CloseHook = void (*)(uint32_t handle);

// Registers a hook; registering the same function again does nothing. Thread-safe.
void add_close_hook(CloseHook hook);

// Runs every registered hook for the adapter, in registration order. The caller holds no
// lock: hooks join threads and send commands.
void run_close_hooks(uint32_t handle);

}  // namespace veltrix
