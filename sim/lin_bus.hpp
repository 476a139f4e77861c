// The virtual adapter's LIN channels: one bus per channel, with virtual slave nodes that
// answer master reads, a diagnostic slave, schedule tables, the slave response table and
// capture, the power output and the battery reading. Firmware at or above 0x0105001E
// speaks the newer command set (0x0F06..0x0F10, four channels), older firmware the older
// one (0x0F00..0x0F05, two channels); commands of the other set go unanswered.
//
// Records travel in the 20-byte layout of the library's LIN frame record.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "sim/lin_uds_slave.hpp"
#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr int kLinChannels = 4;
inline constexpr int kLinOldChannels = 2;
inline constexpr size_t kLinCaptureMax = 1024;

// One 20-byte frame record, decoded.
struct LinRecord {
  uint32_t timestamp = 0;
  uint8_t type = 0, check_type = 0, len = 0, sync = 0, pid = 0;
  std::array<uint8_t, 8> data{};
  uint8_t check = 0, break_bits = 0, reserved = 0;
};

// A node that answers master reads of one identifier.
struct LinSlaveNode {
  std::vector<uint8_t> data;  // 0..8 bytes
  uint8_t check_type = 1;     // 0 classic, 1 enhanced
  bool corrupt_checksum = false;
  bool silent = false;            // the header goes unanswered
  bool checksum_as_data = false;  // reply type 8 (data frames of up to 7 bytes)
};

struct LinChannel {
  bool initialised = false;
  uint32_t baud = 0;
  uint8_t mode = 0;  // 1 master, 0 slave (as configured)
  uint8_t power = 0;

  std::map<uint8_t, LinSlaveNode> nodes;  // by identifier (bits 0..5)
  LinUdsSlave diag;

  std::vector<LinRecord> schedule;  // as loaded by 0x0F0C
  uint32_t run_times = 0;
  bool schedule_running = false;
  uint32_t schedule_runs = 0;  // runs completed since the last start

  std::vector<LinRecord> slave_table;  // 0x0F08
  std::deque<LinRecord> capture;       // frames the slave channel saw, for 0x0F09

  // Older command set.
  uint8_t old_flags = 0;
  std::vector<std::vector<uint8_t>> old_slave_table;  // 11-byte frames
  uint32_t breaks_sent = 0;
};

struct LinBus {
  LinBus();
  std::array<LinChannel, kLinChannels> ch;
  uint16_t vbat = 12150;  // the adapter's unit (mV)
  uint64_t clock_origin_ms = 0;

  // A virtual master on the bus of a slave channel (test hooks).
  void master_break(int channel, uint8_t bits);
  void master_header(int channel, uint8_t id);  // a read: the slave table may answer
  void master_write(int channel, uint8_t id, const std::vector<uint8_t>& data, bool enhanced);
  // Lets the loaded schedule of a channel run `runs` times (bounded by its run count).
  void run_schedule(int channel, uint32_t runs);

  uint32_t now_ms() const;
};

// The checks of the LIN protocol, written out here on their own.
uint8_t lin_pid(uint8_t id);
uint8_t lin_checksum(uint8_t seed, const uint8_t* data, size_t n);

LinBus& lin_bus(Model& m);
void install_lin(Model& m);

}  // namespace veltrix::sim
