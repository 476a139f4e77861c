// Slave-mode requests the continuous reader is built on.
#pragma once

#include <cstdint>

namespace veltrix::spi {

// One fetch of what the slave collected (0x223) into buf (room for SPI_SLAVE_READ_MAX).
int read_from_buffer(int handle, uint8_t ch, uint8_t* buf, int timeout);
// Starts (0x225) or stops (0x226) the adapter's continuous collection.
int continuous_command(int handle, uint8_t ch, uint32_t cmd);

}  // namespace veltrix::spi
