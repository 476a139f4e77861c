#include "tools/file_check.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace veltrix::tools {
namespace {
struct Closer {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
}  // namespace

bool check_text_file(const char* who, const char* path, const char* kind) {
  std::unique_ptr<std::FILE, Closer> f(std::fopen(path, "rb"));
  if (!f) {
    std::fprintf(stderr, "veltrix %s: cannot open %s: %s.\n", who, path, std::strerror(errno));
    return false;
  }
  size_t line = 1, bytes = 0;
  for (int c; (c = std::fgetc(f.get())) != EOF; ++bytes) {
    if (c == '\n') {
      ++line;
    } else if ((c < 0x20 && c != '\t' && c != '\r' && c != '\f') || c == 0x7F) {
      std::fprintf(stderr, "veltrix %s: %s line %zu: binary data (byte 0x%02X), not %s text.\n",
                   who, path, line, unsigned(c), kind);
      return false;
    }
  }
  if (std::ferror(f.get())) {
    std::fprintf(stderr, "veltrix %s: cannot read %s: %s.\n", who, path, std::strerror(errno));
    return false;
  }
  if (bytes == 0) {
    std::fprintf(stderr, "veltrix %s: %s line 1: the file is empty, not %s text.\n", who, path,
                 kind);
    return false;
  }
  return true;
}

}  // namespace veltrix::tools
