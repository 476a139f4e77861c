// veltrix uart: send a line on a UART channel and print what comes back.
//   veltrix uart SERIAL CH [--baud N] [--wait MS] [TEXT...]
// The words of TEXT are joined by spaces and sent with a trailing newline; then the
// channel is read for --wait ms (default 500) and everything received is written to stdout
// as it is. SERIAL is hexadecimal.
#include <chrono>
#include <string>
#include <vector>

#include "periph_args.hpp"
#include "tools/cli.hpp"
#include "veltrix/uart.h"

using namespace periph_cli;

namespace {

void usage(std::FILE* out = stderr) {
  std::fprintf(out, "usage: veltrix uart SERIAL CH [--baud N] [--wait MS] [TEXT...]\n");
}

int run(unsigned h, unsigned char ch, unsigned long baud, unsigned long wait_ms,
        const std::string& text) {
  UART_CONFIG c{unsigned(baud), 8, UART_STOP_BITS_1, UART_PARITY_NONE, 0};
  if (int r = UART_Init(h, ch, &c); r != 0) return fail("uart", "UART_Init", r);
  if (!text.empty()) {
    const std::string line = text + "\n";
    int r = UART_WriteBytes(h, ch, reinterpret_cast<const unsigned char*>(line.data()),
                            int(line.size()));
    if (r != 0) return fail("uart", "UART_WriteBytes", r);
  }
  std::vector<unsigned char> buf(UART_READ_MAX_BYTES);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
  while (std::chrono::steady_clock::now() < end) {
    int n = UART_ReadBytes(h, ch, buf.data(), 10);
    if (n < 0) return fail("uart", "UART_ReadBytes", n);
    if (n > 0) std::fwrite(buf.data(), 1, size_t(n), stdout);
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace

int cmd_uart(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  unsigned long baud = 115200, wait_ms = 500, serial, ch;
  const char* b = take_option(argc, argv, "--baud");
  const char* w = take_option(argc, argv, "--wait");
  if (argc < 3 || !parse_uint(argv[1], 16, 0xFFFFFFFFul, &serial) ||
      !parse_uint(argv[2], 10, 255, &ch) || (b && !parse_uint(b, 10, 0xFFFFFFFFul, &baud)) ||
      (w && !parse_uint(w, 10, 3600000, &wait_ms))) {
    usage();
    return 2;
  }
  std::string text;
  for (int i = 3; i < argc; ++i) text += (i > 3 ? " " : "") + std::string(argv[i]);
  if (!open_adapter("uart", unsigned(serial))) return 1;
  int rc = run(unsigned(serial), (unsigned char)ch, baud, wait_ms, text);
  USB_CloseDevice(unsigned(serial));
  return rc;
}
