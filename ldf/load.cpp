#include "ldf/load.hpp"

#include <atomic>
#include <cstdio>
#include <memory>

#include "ldf/text.hpp"

// Registry lookup (device/registry.cpp): the adapter's position, or -1 when unknown.
extern "C" int usb_list_get_index(unsigned int handle);

namespace veltrix::ldf {
namespace {

std::atomic<bool> g_device_registered{false};

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

// 0, -1 (open or read error) or -4 (too large).
int read_file(const char* path, std::string& out) {
  std::unique_ptr<std::FILE, FileCloser> f(std::fopen(path, "rb"));
  if (!f) return -1;
  out.clear();
  char buf[16384];
  for (;;) {
    size_t n = std::fread(buf, 1, sizeof buf, f.get());
    if (n == 0) break;
    if (out.size() + n > kMaxFileBytes) return -4;
    out.append(buf, n);
  }
  return std::ferror(f.get()) ? -1 : 0;
}

// Removes every span from open to the next close (close included; to the end when there
// is none). A block comment's "*/" search starts after its "/*", so "/*/" opens only.
std::string drop_spans(std::string_view s, std::string_view open, std::string_view close) {
  std::string out;
  out.reserve(s.size());
  size_t pos = 0;
  while (pos < s.size()) {
    size_t start = s.find(open, pos);
    if (start == std::string_view::npos) {
      out.append(s.substr(pos));
      break;
    }
    out.append(s.substr(pos, start - pos));
    size_t end = s.find(close, start + open.size());
    if (end == std::string_view::npos) break;
    pos = end + close.size();
  }
  return out;
}

}  // namespace

std::mutex& load_mutex() {
  static auto* m = new std::mutex;
  return *m;
}

LoadState& load_state() {
  static auto* s = new LoadState;
  return *s;
}

bool device_registered() { return g_device_registered.load(std::memory_order_relaxed); }

std::string clean_text(std::string_view raw) {
  std::string no_blocks = drop_spans(raw, "/*", "*/");
  // A line comment ends at the line feed (CR LF ends with one too; a lone CR does not).
  // The line feed itself is white space and goes in the last pass anyway.
  std::string no_lines = drop_spans(no_blocks, "//", "\n");
  std::string out;
  out.reserve(no_lines.size());
  bool quoted = false;
  for (char ch : no_lines) {
    auto c = static_cast<unsigned char>(ch);
    if (c == '"') {
      quoted = !quoted;
      out.push_back(ch);
    } else if (c >= (quoted ? 0x20 : 0x21) && c <= 0x7E) {
      out.push_back(ch);
    }
  }
  return out;
}

int LDF_GetAttributeStr(std::string_view text, std::string_view keyword, std::string& section) {
  if (!device_registered()) return -3;
  if (text.size() < keyword.size()) return -2;
  section.clear();
  std::string pattern(keyword);
  pattern.push_back('{');
  size_t at = text.find(pattern);
  if (at == std::string_view::npos) return 0;
  std::string_view body = braced_block(text, at + keyword.size());
  if (body.size() > kMaxSectionBytes) return -5;
  section.assign(body);
  return 0;
}

int check_device(int dev_handle) {
  bool registered = usb_list_get_index(static_cast<unsigned int>(dev_handle)) >= 0;
  g_device_registered.store(registered, std::memory_order_relaxed);
  return registered ? 0 : -3;
}

int LDF_Init(LoadState& state, int dev_handle, const char* path) {
  if (int rc = check_device(dev_handle); rc != 0) return rc;
  std::string raw;
  if (int rc = read_file(path, raw); rc != 0) return rc;
  return load_text(state, raw);
}

int LDF_InitHost(LoadState& state, const char* path) {
  g_device_registered.store(true, std::memory_order_relaxed);
  std::string raw;
  if (int rc = read_file(path, raw); rc != 0) return rc;
  return load_text(state, raw);
}

int load_text(LoadState& state, std::string_view raw) {
  state.text = clean_text(raw);
  for (size_t i = 0; i < kSectionKeywords.size(); ++i) {
    int rc = LDF_GetAttributeStr(state.text, kSectionKeywords[i], state.sections[i]);
    if (rc == -5) return -5;
    if (rc != 0) state.sections[i].clear();
  }
  return 0;
}

}  // namespace veltrix::ldf
