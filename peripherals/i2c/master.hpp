// The master transfers with their PEC flag, shared by the IIC_ exports and the SMBus
// helpers. The flag asks the adapter to append and check the packet error code itself.
#pragma once

#include <cstdint>

#include "veltrix/i2c.h"

namespace veltrix::i2c {

int write_bytes_pec(int handle, uint8_t ch, uint16_t addr, const uint8_t* data, int len,
                    int timeout, uint8_t pec);
int read_bytes_pec(int handle, uint8_t ch, uint16_t addr, uint8_t* buf, int len, int timeout,
                   uint8_t pec);
int write_read_bytes_pec(int handle, uint8_t ch, uint16_t addr, const uint8_t* wdata, int wlen,
                         uint8_t* rbuf, int rlen, int timeout, uint8_t pec);

int init(int handle, uint8_t ch, const IIC_CONFIG* config);

}  // namespace veltrix::i2c
