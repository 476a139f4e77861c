// Continuous slave reading: one reader thread per adapter fetches what the slave
// collected every millisecond and hands it to the channel's callback or its FIFO.
#pragma once

#include <cstdint>

namespace veltrix::spi {

// Bytes the channel's FIFO dropped (oldest first) since the process started.
uint64_t slave_fifo_dropped(int handle, uint8_t ch);
// True while the adapter has a reader thread that has not ended.
bool slave_reader_running(int handle);

}  // namespace veltrix::spi
