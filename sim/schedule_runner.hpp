// The adapter's schedule runner and relay switch.
//
// Tables come from the load commands (classic 0x0C08: 20-byte frame records; CAN FD
// 0x400B: frame elements) or, when a port has none loaded at its start command, from the
// port's schedule image in the schedule flash. A frame's timing value (the record's time
// field) is its period in milliseconds; a period of 0 sends it once per start.
// Start options of the model: option 1 selects the table to run (0xFF: all of them);
// options 2 and 3 and the two parameter bytes of each table are stored and not used.
// Time is not simulated in the background: the runner catches up with the clock whenever
// the adapter is asked for received frames, putting on the bus every frame that has come
// due since (at most kScheduleBurst per frame per catch-up).
// Relay mode of the model: bit 0 relays what port 0 receives onto port 1's bus, bit 1 the
// other way. It acts only while the cable is unplugged (the ports then sit on two
// buses); frames come in through can_inject_rx and go out into the other port's sent log.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "sim/can_bus.hpp"
#include "sim/canfd_bus.hpp"
#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr uint64_t kScheduleBurst = 1000;

struct ScheduleFrame {
  bool fd = false;
  CanFrame classic;
  FdFrame frame;
  uint32_t period_ms = 0;
  uint64_t sent = 0;
};

struct ScheduleTable {
  std::vector<ScheduleFrame> frames;
  std::array<uint8_t, 2> params{};
};

struct PortSchedule {
  std::vector<ScheduleTable> tables;
  bool from_flash = false;
  bool running = false;
  uint8_t selected = 0xFF;
  std::array<uint8_t, 3> options{};
  uint64_t start_us = 0;
};

struct ScheduleState {
  std::array<PortSchedule, kCanPorts> ports{};
  uint8_t relay_mode = 0;
};

// The adapter's schedule state (take sim_mutex() from a test thread).
ScheduleState& schedules(Model& m);

// Whether the relay carries frames received on `port` to the other port (sim_mutex() held).
bool relay_forwards(Model& m, unsigned port);

// Puts every frame that has come due on the bus (sim_mutex() held).
void run_schedules(Model& m);

void install_schedules(Model& m);

}  // namespace veltrix::sim
