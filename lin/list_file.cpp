#include "lin/list_file.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "device/abi.hpp"
#include "veltrix/lin.h"

namespace veltrix::lin {
namespace {

struct ReplayList {
  std::mutex m;
  std::vector<LIN_EX_MSG> records;  // guarded by m
};

ReplayList& replay() {
  static ReplayList* r = new ReplayList;
  return *r;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

// Reads one line without its line feed. Lines longer than `max` are consumed whole and
// reported as overlong with `line` holding their first `max` bytes. False at end of file.
bool read_line(std::FILE* f, std::string& line, size_t max, bool& overlong) {
  line.clear();
  size_t total = 0;
  char buf[4096];
  bool any = false;
  while (std::fgets(buf, sizeof buf, f) != nullptr) {
    any = true;
    std::string_view chunk(buf);
    const bool ends = !chunk.empty() && chunk.back() == '\n';
    if (ends) chunk.remove_suffix(1);
    total += chunk.size();
    if (line.size() < max) line.append(chunk.substr(0, max - line.size()));
    if (ends) break;
  }
  overlong = total > max;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return any;
}

std::vector<std::string_view> split_fields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t start = 0;
  for (;;) {
    size_t comma = line.find(',', start);
    fields.push_back(line.substr(start, comma == std::string_view::npos ? std::string_view::npos
                                                                        : comma - start));
    if (comma == std::string_view::npos) return fields;
    start = comma + 1;
  }
}

bool is_number(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Lenient conversions: text that is no number reads as 0.
double to_seconds(std::string_view s) {
  std::string text(s.substr(0, 64));
  double v = std::strtod(text.c_str(), nullptr);
  return std::isfinite(v) ? v : 0.0;
}

unsigned long to_hex(std::string_view s) {
  std::string text(s.substr(0, 32));
  return std::strtoul(text.c_str(), nullptr, 16);
}

bool listed(std::span<const unsigned char> ids, uint8_t id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Slot of the preceding frame: the time up to this frame, less this frame's own time on
// the bus (frames are measured against the new frame's length, as it always was).
uint32_t slot_before(double gap_s, uint8_t data_len, int baud) {
  const int64_t tx_ms = (int64_t(data_len + 3) * 10 + 15) * 1000 / baud;
  const double gap_ms = gap_s * 1000.0;
  if (!(gap_ms > double(tx_ms))) return 0;
  return uint32_t(std::min(gap_ms - double(tx_ms), double(UINT32_MAX)));
}

int decode(const char* path, uint8_t check_type, int baud, std::span<const unsigned char> read_ids,
           std::span<const unsigned char> toggle_ids) {
  std::unique_ptr<std::FILE, FileCloser> f(std::fopen(path, "rb"));
  if (!f) return LIN_EX_ERR_OPEN_FILE;

  std::string line;
  bool overlong = false;
  if (!read_line(f.get(), line, kHeaderLineMax, overlong)) return LIN_EX_ERR_FILE_FORMAT;
  std::string_view header(line);
  header = header.substr(0, header.find_first_of("\r\n,"));
  if (header != kListFileHeader) return LIN_EX_ERR_FILE_FORMAT;

  ReplayList& list = replay();
  std::scoped_lock g(list.m);
  list.records.clear();
  list.records.shrink_to_fit();

  double prev_time = 0;
  while (read_line(f.get(), line, kDataLineMax, overlong)) {
    if (overlong) continue;
    std::vector<std::string_view> fields = split_fields(line);
    if (fields.size() < kMinFields || !is_number(fields[kFieldLine])) continue;

    LIN_EX_MSG m{};
    const double time = to_seconds(fields[kFieldTime]);
    const uint8_t id = uint8_t(to_hex(fields[kFieldId]));
    for (size_t i = kFieldData; i < kFieldData + 8 && !fields[i].empty(); ++i)
      m.Data[m.DataLen++] = uint8_t(to_hex(fields[i]));
    m.MsgType = listed(read_ids, id & 0x3F) ? LIN_EX_MSG_TYPE_MR : LIN_EX_MSG_TYPE_MW;
    m.CheckType = check_type;
    if (listed(toggle_ids, id & 0x3F)) m.CheckType = check_type == 0 ? 1 : 0;
    m.Sync = 0x55;
    m.PID = id;
    m.BreakBits = 13;

    if (!list.records.empty())
      list.records.back().Timestamp = slot_before(time - prev_time, m.DataLen, baud);
    prev_time = time;
    if (list.records.size() >= size_t(INT_MAX)) return LIN_EX_ERR_NO_MEMORY;
    try {
      list.records.push_back(m);
    } catch (const std::bad_alloc&) {
      return LIN_EX_ERR_NO_MEMORY;
    }
  }
  return int(list.records.size());
}

int copy_out(int first, int count, LIN_EX_MSG* out) {
  if (out == nullptr) return LIN_EX_ERR_PARAMETER;
  ReplayList& list = replay();
  std::scoped_lock g(list.m);
  if (count < 1 || first < 0 || size_t(first) >= list.records.size()) return 0;
  const size_t n = std::min(size_t(count), list.records.size() - size_t(first));
  std::copy_n(list.records.begin() + first, n, out);
  return int(n);
}

std::span<const unsigned char> id_list(const unsigned char* p, signed char n) {
  if (p == nullptr || n <= 0) return {};
  return {p, size_t(n)};
}

}  // namespace
}  // namespace veltrix::lin

using namespace veltrix;
using namespace veltrix::lin;

extern "C" {

VELTRIX_EXPORT(int, LIN_EX_DecodeListFile,
               (const char* path, unsigned char check_type, int baud, const unsigned char* read_ids,
                signed char read_len, const unsigned char* toggle_ids, signed char toggle_len),
               LIN_EX_ERR_NO_MEMORY, {
                 if (path == nullptr || baud < 1) return int(LIN_EX_ERR_PARAMETER);
                 return decode(path, check_type, baud, id_list(read_ids, read_len),
                               id_list(toggle_ids, toggle_len));
               })

VELTRIX_EXPORT(int, LIN_EX_GetListFileMsg, (int first, int count, LIN_EX_MSG* out),
               LIN_EX_ERR_PARAMETER, { return copy_out(first, count, out); })

}  // extern "C"
