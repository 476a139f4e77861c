#include "tools/frame_text.hpp"

#include <cstdio>
#include <vector>

namespace veltrix::tools {
namespace {

constexpr size_t kStdIdDigits = 3;
constexpr size_t kExtIdDigits = 8;
constexpr uint32_t kStdIdMax = 0x7FF;
constexpr uint32_t kExtIdMax = 0x1FFFFFFF;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool parse_hex(std::string_view s, uint64_t* out) {
  if (s.empty() || s.size() > 16) return false;
  uint64_t v = 0;
  for (char c : s) {
    const int d = hex_digit(c);
    if (d < 0) return false;
    v = v << 4 | uint64_t(d);
  }
  *out = v;
  return true;
}

bool parse_dec(std::string_view s, uint64_t* out) {
  if (s.empty() || s.size() > 19) return false;
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + uint64_t(c - '0');
  }
  *out = v;
  return true;
}

std::string quoted(std::string_view s) {
  // Hostile input may be long or binary: quote a bounded, printable prefix.
  std::string q = "'";
  for (size_t i = 0; i < s.size() && i < 40; ++i) q += (s[i] >= 0x20 && s[i] < 0x7F) ? s[i] : '?';
  if (s.size() > 40) q += "...";
  return q + "'";
}

// Data bytes in hex, '.' allowed between bytes. At most capacity bytes.
std::string parse_data(std::string_view s, size_t capacity, Frame* f) {
  size_t n = 0;
  for (size_t i = 0; i < s.size();) {
    if (s[i] == '.') {
      ++i;
      continue;
    }
    if (i + 1 >= s.size()) return "the data " + quoted(s) + " ends in half a byte";
    const int hi = hex_digit(s[i]), lo = hex_digit(s[i + 1]);
    if (hi < 0 || lo < 0) return "the data " + quoted(s) + " is not hex bytes";
    if (n >= capacity) return "the data is longer than " + std::to_string(capacity) + " bytes";
    f->data[n++] = uint8_t(hi << 4 | lo);
    i += 2;
  }
  f->len = uint8_t(n);
  return {};
}

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> w;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    const size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
    if (i > start) w.push_back(line.substr(start, i - start));
  }
  return w;
}

// "(SEC.USEC)"
bool parse_time(std::string_view w, uint64_t* sec, uint32_t* usec) {
  if (w.size() < 4 || w.front() != '(' || w.back() != ')') return false;
  w = w.substr(1, w.size() - 2);
  const size_t dot = w.find('.');
  uint64_t s = 0, u = 0;
  if (dot == std::string_view::npos || !parse_dec(w.substr(0, dot), &s)) return false;
  std::string_view frac = w.substr(dot + 1);
  if (frac.size() != 6 || !parse_dec(frac, &u)) return false;
  *sec = s;
  *usec = uint32_t(u);
  return true;
}

// Screen form after the interface: ID [LEN] BYTES... or ID [LEN] remote request.
std::string parse_screen(const std::vector<std::string_view>& w, size_t at, Frame* f) {
  if (w.size() < at + 2) return "a screen line needs an identifier and a [length]";
  uint64_t id = 0;
  if (w[at].size() != kStdIdDigits && w[at].size() != kExtIdDigits)
    return "the identifier " + quoted(w[at]) + " is not 3 or 8 hex digits";
  if (!parse_hex(w[at], &id)) return "the identifier " + quoted(w[at]) + " is not hex";
  Frame g;
  g.extended = w[at].size() == kExtIdDigits;
  if (id > (g.extended ? kExtIdMax : kStdIdMax))
    return "the identifier " + quoted(w[at]) + " is out of range";
  g.id = uint32_t(id);
  std::string_view lw = w[at + 1];
  uint64_t len = 0;
  if (lw.size() < 3 || lw.front() != '[' || lw.back() != ']' ||
      !parse_dec(lw.substr(1, lw.size() - 2), &len) || len > kFdMaxLen)
    return "the length " + quoted(lw) + " is not [0] to [64]";
  const size_t bytes = w.size() - at - 2;
  if (bytes == 2 && w[at + 2] == "remote" && w[at + 3] == "request") {
    if (len > kClassicMaxLen) return "a remote frame has at most 8 bytes";
    g.remote = true;
    g.len = uint8_t(len);
    *f = g;
    return {};
  }
  if (bytes != len)
    return "the line has " + std::to_string(bytes) + " data bytes, its length says " +
           std::to_string(len);
  g.fd = len > kClassicMaxLen;
  for (size_t i = 0; i < bytes; ++i) {
    std::string_view b = w[at + 2 + i];
    uint64_t v = 0;
    if (b.size() != 2 || !parse_hex(b, &v)) return "the data byte " + quoted(b) + " is not hex";
    g.data[i] = uint8_t(v);
  }
  g.len = uint8_t(len);
  *f = g;
  return {};
}

}  // namespace

std::string parse_frame(std::string_view text, Frame* out) {
  const size_t hash = text.find('#');
  if (hash == std::string_view::npos) return quoted(text) + " has no '#'";
  std::string_view id_text = text.substr(0, hash);
  Frame f;
  if (id_text.size() == kStdIdDigits) {
    f.extended = false;
  } else if (id_text.size() == kExtIdDigits) {
    f.extended = true;
  } else {
    return "the identifier " + quoted(id_text) + " is not 3 or 8 hex digits";
  }
  uint64_t id = 0;
  if (!parse_hex(id_text, &id)) return "the identifier " + quoted(id_text) + " is not hex";
  if (id > (f.extended ? kExtIdMax : kStdIdMax))
    return "the identifier " + quoted(id_text) + " is out of range";
  f.id = uint32_t(id);
  std::string_view rest = text.substr(hash + 1);
  if (!rest.empty() && rest.front() == '#') {
    if (rest.size() < 2) return "a CAN FD frame needs a flags digit after '##'";
    const int flags = hex_digit(rest[1]);
    if (flags < 0) return "the CAN FD flags " + quoted(rest.substr(1, 1)) + " are not a hex digit";
    f.fd = true;
    f.fd_flags = uint8_t(flags);
    if (std::string why = parse_data(rest.substr(2), kFdMaxLen, &f); !why.empty()) return why;
  } else if (!rest.empty() && (rest.front() == 'R' || rest.front() == 'r')) {
    f.remote = true;
    if (rest.size() == 2 && rest[1] >= '0' && rest[1] <= '8') {
      f.len = uint8_t(rest[1] - '0');
    } else if (rest.size() != 1) {
      return "a remote frame is written R or R0 to R8, not " + quoted(rest);
    }
  } else if (std::string why = parse_data(rest, kClassicMaxLen, &f); !why.empty()) {
    return why;
  }
  *out = f;
  return {};
}

std::string format_frame(const Frame& f) {
  char buf[8 + 3 + 2 * kFdMaxLen + 1];
  int n = std::snprintf(buf, sizeof buf, f.extended ? "%08X" : "%03X", f.id);
  if (f.fd) {
    n += std::snprintf(buf + n, sizeof buf - size_t(n), "##%X", f.fd_flags & 0xF);
  } else {
    buf[n++] = '#';
    if (f.remote) {
      buf[n++] = 'R';
      if (f.len > 0 && f.len <= kClassicMaxLen) buf[n++] = char('0' + f.len);
      return std::string(buf, size_t(n));
    }
  }
  const size_t len = f.len <= (f.fd ? kFdMaxLen : kClassicMaxLen) ? f.len : 0;
  for (size_t i = 0; i < len; ++i)
    n += std::snprintf(buf + n, sizeof buf - size_t(n), "%02X", f.data[i]);
  return std::string(buf, size_t(n));
}

bool to_can_msg(const Frame& f, CAN_MSG* out) {
  if (f.fd || f.len > kClassicMaxLen) return false;
  CAN_MSG m{};
  m.ID = f.id;
  m.ExtFlag = f.extended ? 1 : 0;
  m.FrameFlags = f.remote ? CAN_MSG_FLAG_RTR : 0;
  m.DataLen = f.len;
  if (!f.remote)
    for (size_t i = 0; i < f.len; ++i) m.Data[i] = f.data[i];
  *out = m;
  return true;
}

Frame from_can_msg(const CAN_MSG& m) {
  Frame f;
  f.extended = (m.ExtFlag & 1) != 0;
  f.id = m.ID & (f.extended ? kExtIdMax : kStdIdMax);
  f.remote = (m.FrameFlags & CAN_MSG_FLAG_RTR) != 0;
  // The adapter's length is hostile: never more than the record holds.
  f.len = m.DataLen <= kClassicMaxLen ? m.DataLen : uint8_t(kClassicMaxLen);
  if (!f.remote)
    for (size_t i = 0; i < f.len; ++i) f.data[i] = m.Data[i];
  return f;
}

std::string parse_log_line(std::string_view line, LogLine* out) {
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  const std::vector<std::string_view> w = words(line);
  if (w.empty()) return "the line is empty";
  LogLine l;
  size_t at = 0;
  if (w[0].front() == '(') {
    if (!parse_time(w[0], &l.sec, &l.usec))
      return "the time " + quoted(w[0]) + " is not (SECONDS.MICROSECONDS)";
    l.has_time = true;
    at = 1;
  }
  if (w.size() < at + 2) return "a frame line needs an interface and a frame";
  l.iface = std::string(w[at]);
  if (w[at + 1].find('#') != std::string_view::npos) {
    if (std::string why = parse_frame(w[at + 1], &l.frame); !why.empty()) return why;
  } else if (std::string why = parse_screen(w, at + 1, &l.frame); !why.empty()) {
    return why;
  }
  *out = l;
  return {};
}

std::string format_log_line(uint64_t sec, uint32_t usec, std::string_view iface, const Frame& f) {
  char t[48];
  std::snprintf(t, sizeof t, "(%010llu.%06u) ", static_cast<unsigned long long>(sec),
                unsigned(usec % 1000000));
  std::string s = t;
  s.append(iface);
  s += ' ';
  s += format_frame(f);
  return s;
}

}  // namespace veltrix::tools
