// The virtual adapter's I2C channels: a bus per channel with a serial EEPROM at 0x50 and
// an SMBus sensor at 0x48, nobody elsewhere (the address goes unacknowledged), and the
// adapter's own slave mode, where a test plays the remote master.
//
// Status bytes of the replies: 0 done, 1 address not acknowledged, 2 data byte refused,
// 3 PEC mismatch, 4 the awaited event never came.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "sim/i2c_devices.hpp"
#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr int kI2cChannels = 12;
inline constexpr uint16_t kEepromAddr = 0x50;
inline constexpr uint16_t kSensorAddr = 0x48;

struct I2cChannel {
  I2cChannel();
  std::vector<uint8_t> config;  // the last 0x700 payload
  std::map<uint16_t, std::shared_ptr<I2cTarget>> targets;
  Eeprom24& eeprom();
  SmbusSensor& sensor();
  bool corrupt_host_pec = false;  // test hook: the adapter's own PEC is sent off by one
  bool event_never = false;       // test hook: event-triggered transfers time out

  // Slave mode. The remote master reads what the host offered and writes what it likes.
  std::deque<uint8_t> slave_tx;
  std::vector<uint8_t> slave_rx;    // written by the remote master, collected by 0x705
  size_t master_read_budget = 0;    // bytes the remote master reads during the next 0x704
  std::vector<uint8_t> master_got;  // what the remote master has read so far
};

struct I2cBus {
  std::array<I2cChannel, kI2cChannels> ch;
};

I2cBus& i2c_bus(Model& m);
void install_i2c(Model& m);

}  // namespace veltrix::sim
