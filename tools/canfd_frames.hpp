// Frames of the CAN FD adapters as the CLI's frame text, and the schedule file.
//
// A CAN FD adapter (handle top byte 0x53 or 0x54) carries classic and CAN FD frames on the
// same port; its record is CANFD_MSG. The frame text's flags nibble (1 bit-rate switch,
// 2 error state indicator) maps onto the record's BRS and ESI bits.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "tools/frame_text.hpp"
#include "veltrix/canfd.h"

namespace veltrix::tools {

bool is_fd_adapter(uint32_t serial);

// True for the byte counts a CAN FD frame can carry: 0-8, 12, 16, 20, 24, 32, 48, 64.
bool is_fd_length(size_t bytes);

// Refuses a CAN FD frame whose length is no CAN FD length (the adapter would pad it with
// bytes nobody wrote). Returns an empty string or why.
std::string check_fd_length(const Frame& f);

// Any frame the parser accepts converts; time fields are zero.
CANFD_MSG to_canfd_msg(const Frame& f);
// The record's length is the adapter's and so hostile: at most 8 bytes for a classic
// frame, 64 for a CAN FD one.
Frame from_canfd_msg(const CANFD_MSG& m);

// The record time (10 us units, 40 bits) in the 100 us ticks of the adapter's counter.
uint32_t canfd_ticks(const CANFD_MSG& m);

// A schedule file: one frame a line, "PERIOD FRAME", the period in milliseconds (0 sends
// the frame once when the schedule starts); blank lines and lines starting with '#' are
// skipped.
struct ScheduleEntry {
  uint32_t period_ms = 0;
  Frame frame;
};

// A table holds at most this many frames, the adapter at most this many tables.
inline constexpr size_t kScheduleTableMax = 255;
inline constexpr size_t kScheduleFramesMax = kScheduleTableMax * kScheduleTableMax;

// Reads the whole file. Returns an empty string, or "line N: why" for the first bad line
// (or for a file with no frame or too many). fd: whether the port takes CAN FD frames.
std::string parse_schedule(std::istream& in, bool fd, std::vector<ScheduleEntry>* out);

}  // namespace veltrix::tools
