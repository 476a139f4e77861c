// A classic CAN port opened from the command line, and its received frames as candump
// log lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tools/frame_text.hpp"
#include "tools/timebase.hpp"

namespace veltrix::tools {

// The interface name of a port in logs: "vx" + the adapter's serial in hex + "-" + port,
// e.g. "vx51000001-1". Unique per adapter and port, at most 15 characters like a Linux
// network interface name, so log readers keep the ports of a recording apart.
std::string can_iface_name(uint32_t serial, unsigned port);

// Scans, opens the adapter and starts the port at bitrate. On failure prints a sentence
// naming what failed on stderr (prefixed "veltrix can: ") and returns false.
bool open_can_port(uint32_t serial, unsigned port, int bitrate);

// The same for a port of a CAN FD adapter: nominal and data-phase rates in bit/s.
bool open_canfd_port(uint32_t serial, unsigned port, int bitrate, int data_bitrate);

// candump's ID:MASK acceptance filter: a frame passes when (id & mask) == (ID & mask)
// and its format (3 or 8 digits) matches.
struct CanFilter {
  uint32_t id = 0, mask = 0;
  bool extended = false;
};
bool parse_can_filter(const std::string& text, CanFilter* out);
bool passes(const std::vector<CanFilter>& filters, const Frame& f);

// Places received frames on the wall clock: anchored to the adapter's timestamp counter
// when the port opens, or to the first frame's arrival when the adapter cannot tell.
class CanReceiveClock {
 public:
  explicit CanReceiveClock(uint32_t serial);
  void stamp(uint32_t ticks, uint64_t* sec, uint32_t* usec);

 private:
  FrameClock clock_;
  bool anchored_;
};

}  // namespace veltrix::tools
