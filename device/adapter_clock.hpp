// The adapter's timestamp counter, for families that pair it with the host clock.
#pragma once

#include <cstdint>

namespace veltrix {

// Asks the adapter for its counter (selector 0: 32 bits, 100 us units). Returns the number
// of reply bytes copied into *out (0 to 4; an empty reply leaves *out as it was), or -1 when
// the adapter did not answer the command.
int read_timestamp(uint32_t handle, uint8_t selector, unsigned int* out);

}  // namespace veltrix
