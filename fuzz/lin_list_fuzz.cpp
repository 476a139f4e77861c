// libFuzzer target for the bus-traffic list-file reader. The first bytes choose the
// reader's arguments (checksum type, bit rate, the two identifier lists), the rest is the
// file, handed over as a memory file so no disk is touched. Every record the reader makes
// is then copied out in windows, each into a block of exactly the size asked for.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "veltrix/lin.h"

namespace {

constexpr size_t kArgBytes = 13;  // check type, rate (2), list lengths (2), lists (4 + 4)

[[noreturn]] void broken(const char* what, int value) {
  std::fprintf(stderr, "lin_list_fuzz: %s (%d)\n", what, value);
  std::abort();
}

int memory_file() {
  static int fd = memfd_create("list-file", 0);
  if (fd < 0) broken("no memory file", fd);
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kArgBytes) return -1;
  const int fd = memory_file();
  const uint8_t* text = data + kArgBytes;
  const size_t text_len = size - kArgBytes;
  if (ftruncate(fd, 0) != 0 || pwrite(fd, text, text_len, 0) != ssize_t(text_len))
    broken("cannot fill the memory file", 0);
  const std::string path = "/proc/self/fd/" + std::to_string(fd);

  const uint8_t check = data[0] % 4;
  const int baud = (data[1] | data[2] << 8) + 1;
  const auto read_len = int8_t(data[3] % 6 - 1);  // -1 to 4: NULL lists are allowed at <= 0
  const auto toggle_len = int8_t(data[4] % 6 - 1);
  const uint8_t* read_ids = read_len > 0 ? data + 5 : nullptr;
  const uint8_t* toggle_ids = toggle_len > 0 ? data + 9 : nullptr;

  const int n =
      LIN_EX_DecodeListFile(path.c_str(), check, baud, read_ids, read_len, toggle_ids, toggle_len);
  if (n < 0) {
    if (n != LIN_EX_ERR_FILE_FORMAT && n != LIN_EX_ERR_NO_MEMORY) broken("undocumented result", n);
    return 0;
  }
  // Windows that start inside, at the end and past the end of the list.
  for (int first : {0, n / 2, n - 1, n, n + 1}) {
    for (int len : {1, 3, n}) {
      if (len < 1) continue;
      std::vector<LIN_EX_MSG> out(static_cast<size_t>(len));
      const int got = LIN_EX_GetListFileMsg(first, len, out.data());
      const int expected = (first < 0 || first >= n) ? 0 : std::min(len, n - first);
      if (got != expected) broken("window copied a wrong count", got);
      for (int i = 0; i < got; ++i)
        if (out[size_t(i)].DataLen > 8 || out[size_t(i)].Sync != 0x55)
          broken("record out of range", i);
    }
  }
  return 0;
}
