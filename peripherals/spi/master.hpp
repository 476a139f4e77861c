// The plain master transfers other SPI operations are built on.
#pragma once

#include <cstdint>

namespace veltrix::spi {

int master_write(int handle, uint8_t ch, const uint8_t* data, int len);
int master_write_read(int handle, uint8_t ch, const uint8_t* wdata, int wlen, uint8_t* rbuf,
                      int rlen, int interval);

}  // namespace veltrix::spi
