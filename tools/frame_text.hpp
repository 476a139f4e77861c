// Frames as text, in the forms the CAN tools read and write:
//
//   123#DEADBEEF        standard id (3 hex digits), up to 8 data bytes ('.' may separate bytes)
//   1ABCDEF0#0102       extended id (8 hex digits)
//   123#R  123#R4       remote frame, optionally with its length (0-8)
//   123##3DEADBEEF...   CAN FD: a flags nibble (1 bit-rate switch, 2 error state
//                       indicator), then up to 64 data bytes
//
// and whole lines of a candump log ("(1700000000.123456) vx51000001-0 123#DEAD") or of
// candump's screen output ("  can0  123   [4]  DE AD BE EF"). Every parser here treats its
// input as hostile: lengths are checked against the 64-byte frame before anything is
// written, and a refusal says why in a short phrase.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "veltrix/can.h"

namespace veltrix::tools {

inline constexpr uint8_t kFdFlagBrs = 0x1;  // bit-rate switch
inline constexpr uint8_t kFdFlagEsi = 0x2;  // error state indicator
inline constexpr size_t kClassicMaxLen = 8;
inline constexpr size_t kFdMaxLen = 64;

struct Frame {
  uint32_t id = 0;
  bool extended = false;
  bool remote = false;
  bool fd = false;
  uint8_t fd_flags = 0;  // kFdFlagBrs | kFdFlagEsi, CAN FD only
  uint8_t len = 0;       // data bytes; for a remote frame the requested length
  uint8_t data[kFdMaxLen] = {};
};

// Parses one frame word. Returns an empty string on success, else why it was refused
// ("the identifier ... is not 3 or 8 hex digits"); *out is written only on success.
std::string parse_frame(std::string_view text, Frame* out);

// The frame word for a frame (upper-case hex, as candump writes it).
std::string format_frame(const Frame& f);

// Classic frames only: false for a CAN FD frame or one longer than 8 bytes.
bool to_can_msg(const Frame& f, CAN_MSG* out);
Frame from_can_msg(const CAN_MSG& m);

// One line of a candump log or screen listing.
struct LogLine {
  bool has_time = false;  // screen lines without -t carry no time
  uint64_t sec = 0;
  uint32_t usec = 0;
  std::string iface;
  Frame frame;
};

// Accepts "(SEC.USEC) IFACE FRAME" (anything after the frame, such as candump's direction
// mark, is ignored) and "IFACE ID [LEN] BYTES..." / "IFACE ID [LEN] remote request".
// Returns an empty string on success, else why the line was refused.
std::string parse_log_line(std::string_view line, LogLine* out);

// "(SEC.USEC) IFACE FRAME", the candump -l form.
std::string format_log_line(uint64_t sec, uint32_t usec, std::string_view iface, const Frame& f);

}  // namespace veltrix::tools
