#include "tools/canfd_frames.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace veltrix::tools {

bool is_fd_adapter(uint32_t serial) {
  const uint32_t model = serial >> 24;
  return model == 0x53 || model == 0x54;
}

bool is_fd_length(size_t bytes) {
  static constexpr size_t kLengths[] = {12, 16, 20, 24, 32, 48, 64};
  if (bytes <= kClassicMaxLen) return true;
  for (size_t n : kLengths)
    if (bytes == n) return true;
  return false;
}

std::string check_fd_length(const Frame& f) {
  if (!f.fd || is_fd_length(f.len)) return {};
  return "a CAN FD frame carries 0 to 8, 12, 16, 20, 24, 32, 48 or 64 bytes, not " +
         std::to_string(f.len);
}

CANFD_MSG to_canfd_msg(const Frame& f) {
  CANFD_MSG m{};
  m.ID = f.id | (f.extended ? CANFD_MSG_FLAG_IDE : 0u) | (f.remote ? CANFD_MSG_FLAG_RTR : 0u);
  m.DLC = f.len;
  if (f.fd) {
    m.Flags = CANFD_MSG_FLAG_FDF;
    if (f.fd_flags & kFdFlagBrs) m.Flags |= CANFD_MSG_FLAG_BRS;
    if (f.fd_flags & kFdFlagEsi) m.Flags |= CANFD_MSG_FLAG_ESI;
  }
  if (!f.remote) std::memcpy(m.Data, f.data, f.len <= kFdMaxLen ? f.len : kFdMaxLen);
  return m;
}

Frame from_canfd_msg(const CANFD_MSG& m) {
  Frame f;
  f.extended = (m.ID & CANFD_MSG_FLAG_IDE) != 0;
  f.id = m.ID & (f.extended ? 0x1FFFFFFFu : 0x7FFu);
  f.fd = (m.Flags & CANFD_MSG_FLAG_FDF) != 0;
  f.remote = !f.fd && (m.ID & CANFD_MSG_FLAG_RTR) != 0;
  if (f.fd) {
    f.fd_flags = uint8_t(((m.Flags & CANFD_MSG_FLAG_BRS) ? kFdFlagBrs : 0) |
                         ((m.Flags & CANFD_MSG_FLAG_ESI) ? kFdFlagEsi : 0));
  }
  const size_t cap = f.fd ? kFdMaxLen : kClassicMaxLen;
  f.len = uint8_t(m.DLC <= cap ? m.DLC : cap);
  if (!f.remote) std::memcpy(f.data, m.Data, f.len);
  return f;
}

uint32_t canfd_ticks(const CANFD_MSG& m) {
  const uint64_t t = uint64_t(m.TimeStampHigh) << 32 | m.TimeStamp;
  return uint32_t(t / 10);
}

namespace {

std::string schedule_line(std::string_view line, bool fd, ScheduleEntry* e) {
  const size_t start = line.find_first_not_of(" \t");
  const size_t gap = line.find_first_of(" \t", start);
  if (gap == std::string_view::npos) return "a line is PERIOD FRAME (the period in ms)";
  const std::string period(line.substr(start, gap - start));
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(period.c_str(), &end, 10);
  if (period[0] == '-' || *end != '\0' || errno != 0 || v > 0xFFFFFFFFull)
    return "the period '" + period + "' is not a time in ms (0 to 4294967295)";
  const size_t frame_at = line.find_first_not_of(" \t\r", gap);
  if (frame_at == std::string_view::npos) return "the period has no frame after it";
  size_t frame_end = line.find_first_of(" \t\r", frame_at);
  if (frame_end == std::string_view::npos) frame_end = line.size();
  if (line.find_first_not_of(" \t\r", frame_end) != std::string_view::npos)
    return "a line holds one period and one frame";
  const std::string_view text = line.substr(frame_at, frame_end - frame_at);
  Frame f;
  if (std::string why = parse_frame(text, &f); !why.empty()) return why;
  if (f.fd && !fd) return "a CAN FD frame needs a CAN FD adapter";
  if (std::string why = check_fd_length(f); !why.empty()) return why;
  e->period_ms = uint32_t(v);
  e->frame = f;
  return {};
}

}  // namespace

std::string parse_schedule(std::istream& in, bool fd, std::vector<ScheduleEntry>* out) {
  std::vector<ScheduleEntry> entries;
  std::string line;
  size_t line_no = 0;
  while (std::getline(in, line)) {
    ++line_no;
    // A binary file would otherwise be echoed back byte for byte in the refusal.
    for (unsigned char c : line) {
      if ((c < 0x20 && c != '\t' && c != '\r') || c >= 0x7F) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "0x%02X", c);
        return "line " + std::to_string(line_no) + ": binary data (byte " + hex +
               "), not a schedule";
      }
    }
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    ScheduleEntry e;
    if (std::string why = schedule_line(line, fd, &e); !why.empty())
      return "line " + std::to_string(line_no) + ": " + why;
    if (entries.size() == kScheduleFramesMax)
      return "line " + std::to_string(line_no) + ": a schedule holds at most " +
             std::to_string(kScheduleFramesMax) + " frames";
    entries.push_back(e);
  }
  if (entries.empty()) return "line " + std::to_string(line_no + 1) + ": the file holds no frame";
  *out = std::move(entries);
  return {};
}

}  // namespace veltrix::tools
