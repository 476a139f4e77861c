// The CLI's frame text: frame words, candump log and screen lines. A line that parses must
// print back to a line that parses to the same frame.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/frame_text.hpp"

using veltrix::tools::Frame;

namespace {
bool same(const Frame& a, const Frame& b) {
  if (a.id != b.id || a.extended != b.extended || a.remote != b.remote || a.fd != b.fd ||
      a.fd_flags != b.fd_flags || a.len != b.len)
    return false;
  return a.remote || std::memcmp(a.data, b.data, a.len) == 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Frame f;
  if (veltrix::tools::parse_frame(text, &f).empty()) {
    Frame back;
    if (!veltrix::tools::parse_frame(veltrix::tools::format_frame(f), &back).empty() ||
        !same(f, back))
      std::abort();
  }
  veltrix::tools::LogLine line;
  if (veltrix::tools::parse_log_line(text, &line).empty()) {
    veltrix::tools::LogLine back;
    const std::string printed =
        veltrix::tools::format_log_line(line.sec, line.usec, "vx0-0", line.frame);
    if (!veltrix::tools::parse_log_line(printed, &back).empty() || !same(line.frame, back.frame))
      std::abort();
  }
  return 0;
}
