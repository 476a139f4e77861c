// Shared set-up of the LIN suites: an open adapter on the virtual bus, helpers to build
// records and to read back what the adapter received.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <mutex>

#include "device/wire.hpp"
#include "sim/device_services.hpp"
#include "sim/lin_bus.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/lin.h"

namespace veltrix::test {

inline constexpr int kLinDev = 0x51000061;

inline LIN_EX_MSG rec(uint8_t type, uint8_t pid, std::initializer_list<uint8_t> data = {},
                      uint8_t check_type = 0, uint32_t slot = 1) {
  LIN_EX_MSG m{};
  m.Timestamp = slot;
  m.MsgType = type;
  m.CheckType = check_type;
  m.PID = pid;
  m.BreakBits = 13;
  for (uint8_t b : data) m.Data[m.DataLen++] = b;
  return m;
}

// Record i of a recorded payload that starts with `skip` bytes (the channel byte).
inline Bytes sent_record(const Bytes& payload, size_t i, size_t skip = 1) {
  const size_t at = skip + i * 20;
  if (payload.size() < at + 20) return {};
  return Bytes(payload.begin() + long(at), payload.begin() + long(at + 20));
}

// The 20 wire bytes of a record, written out field by field.
inline Bytes wire_record(uint32_t ts, uint8_t type, uint8_t check_type, uint8_t len, uint8_t pid,
                         std::initializer_list<uint8_t> data, uint8_t check, uint8_t brk = 13) {
  Bytes b{uint8_t(ts), uint8_t(ts >> 8), uint8_t(ts >> 16), uint8_t(ts >> 24),
          type, check_type, len, 0x55, pid};
  Bytes d(data);
  d.resize(8, 0);
  b.insert(b.end(), d.begin(), d.end());
  b.push_back(check);
  b.push_back(brk);
  b.push_back(0);
  return b;
}

class LinTest : public SimTest {
 protected:
  template <typename F>
  auto with_bus(F f) {
    std::scoped_lock g(sim::sim_mutex());
    return f(sim::lin_bus(*m_));
  }
  void set_firmware(uint32_t version) {
    std::scoped_lock g(sim::sim_mutex());
    sim::device_services(*m_).firmware_version = version;
  }
  // Opens the adapter and configures channel `ch` as master at `baud`.
  void open_master(uint8_t ch = 0, unsigned baud = 19200) {
    m_ = plug_and_open(kLinDev);
    ASSERT_EQ(LIN_EX_Init(kLinDev, ch, baud, 1), 0);
    m_->clear_record();
  }
  void open_slave(uint8_t ch = 0) {
    m_ = plug_and_open(kLinDev);
    ASSERT_EQ(LIN_EX_Init(kLinDev, ch, 19200, 0), 0);
    m_->clear_record();
  }
  std::vector<Bytes> sent(uint32_t code) { return payloads(*m_, code); }
  void raw_reply(uint32_t code, const Bytes& payload) {
    std::scoped_lock g(sim::sim_mutex());
    m_->inject(test::raw_reply(code, payload));
  }

  std::shared_ptr<sim::Model> m_;
};

}  // namespace veltrix::test
