// Shared helpers of the CAN suites.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <vector>

#include "device/wire.hpp"
#include "sim/can_bus.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/can.h"
#include "veltrix/canfd.h"

namespace veltrix::test {

constexpr uint32_t kClassic = 0x31000001;  // 100 MHz controller
constexpr uint32_t k42MHz = 0x41000001;
constexpr uint32_t kFdModel = 0x53000002;

inline CAN_MSG can_frame(uint32_t id, std::initializer_list<uint8_t> data, bool ext = false) {
  CAN_MSG m{};
  m.ID = id;
  m.ExtFlag = ext ? 1 : 0;
  m.DataLen = uint8_t(data.size());
  uint8_t i = 0;
  for (uint8_t b : data) m.Data[i++] = b;
  return m;
}

inline sim::CanFrame sim_frame(uint32_t id, uint64_t time, uint8_t first_byte = 0) {
  sim::CanFrame f;
  f.id = id;
  f.time = time;
  f.len = 1;
  f.data[0] = first_byte;
  return f;
}

template <typename F>
auto with_bus(sim::Model& m, F f) {
  std::scoped_lock g(sim::sim_mutex());
  return f(sim::can_bus(m));
}

class CanTest : public SimTest {
 protected:
  // Opens the adapter and starts both ports at the rate; clears the command record.
  std::shared_ptr<sim::Model> open_both(uint32_t serial, int rate = 500000) {
    auto m = plug_and_open(serial);
    CAN_CHANNEL_CONFIG c{};
    EXPECT_EQ(CAN_GetCANSpeedArg(serial, &c, rate), 0);
    EXPECT_EQ(CAN_Init(serial, 0, &c), 0);
    EXPECT_EQ(CAN_Init(serial, 1, &c), 0);
    m->clear_record();
    return m;
  }

  // Opens a CAN FD adapter and starts both CAN FD ports at the rates; clears the record.
  std::shared_ptr<sim::Model> open_fd(uint32_t serial, int nominal = 500000, int data = 2000000) {
    auto m = plug_and_open(serial);
    CANFD_CHANNEL_CONFIG c{};
    EXPECT_EQ(CANFD_GetCANSpeedArg(serial, &c, nominal, data), 0);
    EXPECT_EQ(CANFD_Init(serial, 0, &c), 0);
    EXPECT_EQ(CANFD_Init(serial, 1, &c), 0);
    m->clear_record();
    return m;
  }
};

inline CANFD_MSG fd_frame(uint32_t id, uint8_t len, uint8_t flags = CANFD_MSG_FLAG_FDF,
                          uint8_t seed = 0) {
  CANFD_MSG m{};
  m.ID = id;
  m.DLC = len;
  m.Flags = flags;
  for (int i = 0; i < 64; ++i) m.Data[i] = uint8_t(seed + i);
  return m;
}

}  // namespace veltrix::test
