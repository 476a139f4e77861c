// veltrix i2c: I2C bus tools in the manner of the familiar i2c utilities.
//   veltrix i2c SERIAL CH scan                         address grid of the 7-bit bus
//   veltrix i2c SERIAL CH get ADDR REG [b|w]           read a byte (default) or word register
//   veltrix i2c SERIAL CH set ADDR REG VALUE [b|w]     write a byte or word register
//   veltrix i2c SERIAL CH dump ADDR [REGBYTES]         256 bytes from register 0 as a grid
// SERIAL, ADDR, REG and VALUE are hexadecimal (0x allowed). Words travel high byte first.
// REGBYTES is 1 for register-file parts, 2 for EEPROMs with 16-bit addresses.
// The channel is set up as a 100 kHz 7-bit master first.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/cli.hpp"
#include "veltrix/i2c.h"
#include "veltrix/usb_device.h"

namespace {

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix i2c SERIAL CH scan\n"
               "       veltrix i2c SERIAL CH get ADDR REG [b|w]\n"
               "       veltrix i2c SERIAL CH set ADDR REG VALUE [b|w]\n"
               "       veltrix i2c SERIAL CH dump ADDR [REGBYTES]\n");
}

bool parse_num(const char* s, int base, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, base);
  if (errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

int fail(const char* what, int code) {
  if (code > 0)
    std::fprintf(stderr, "veltrix i2c: %s: adapter status %d%s\n", what, code,
                 code == IIC_STATUS_ADDR_NACK ? " (no acknowledge)" : "");
  else
    std::fprintf(stderr, "veltrix i2c: %s failed (%d)\n", what, code);
  return 1;
}

int scan(int h, unsigned char ch) {
  short found[IIC_SCAN_MAX];
  int n = IIC_GetSlaveAddr(h, ch, found);
  if (n < 0) return fail("scan", n);
  bool present[128] = {};
  for (int i = 0; i < n; ++i)
    if (found[i] >= 0 && found[i] < 128) present[found[i]] = true;
  std::printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n");
  for (int row = 0; row < 128; row += 16) {
    std::printf("%02x:", row);
    for (int a = row; a < row + 16; ++a) {
      if (present[a])
        std::printf(" %02x", a);
      else
        std::printf(" --");
    }
    std::printf("\n");
  }
  return 0;
}

int get(int h, unsigned char ch, unsigned short addr, unsigned char reg, bool word) {
  if (word) {
    unsigned short w = 0;
    int r = SMBUS_ReadWordProtocol(h, ch, addr, reg, &w, 0);
    if (r != 0) return fail("read", r);
    std::printf("0x%04x\n", w);
    return 0;
  }
  unsigned char b = 0;
  int r = IIC_WriteReadBytes(h, ch, addr, &reg, 1, &b, 1, 100);
  if (r != 0) return fail("read", r);
  std::printf("0x%02x\n", b);
  return 0;
}

int set(int h, unsigned char ch, unsigned short addr, unsigned char reg, unsigned long value,
        bool word) {
  int r = word ? SMBUS_WriteWordProtocol(h, ch, addr, reg, static_cast<unsigned short>(value), 0)
               : SMBUS_WriteByteProtocol(h, ch, addr, reg, static_cast<unsigned char>(value), 0);
  return r == 0 ? 0 : fail("write", r);
}

int dump(int h, unsigned char ch, unsigned short addr, int reg_bytes) {
  unsigned char start[2] = {0, 0};
  unsigned char data[256];
  int r = IIC_WriteReadBytes(h, ch, addr, start, reg_bytes, data, 256, 100);
  if (r != 0) return fail("dump", r);
  std::printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef\n");
  for (int row = 0; row < 256; row += 16) {
    std::printf("%02x:", row);
    for (int i = row; i < row + 16; ++i) std::printf(" %02x", data[i]);
    std::printf("    ");
    for (int i = row; i < row + 16; ++i)
      std::putchar(data[i] >= 0x20 && data[i] < 0x7F ? data[i] : '.');
    std::printf("\n");
  }
  return 0;
}

int run(int h, unsigned char ch, int argc, char** argv) {
  const std::string op = argv[3];
  unsigned long addr = 0, reg = 0, value = 0;
  if (op == "scan" && argc == 4) return scan(h, ch);
  if (argc < 5 || !parse_num(argv[4], 16, 0x3FF, &addr)) {
    usage();
    return 2;
  }
  const auto a = static_cast<unsigned short>(addr);
  if (op == "dump" && (argc == 5 || argc == 6)) {
    unsigned long reg_bytes = 1;
    if (argc == 6 && (!parse_num(argv[5], 10, 2, &reg_bytes) || reg_bytes == 0)) {
      std::fprintf(stderr, "veltrix i2c: REGBYTES is 1 or 2\n");
      return 2;
    }
    return dump(h, ch, a, int(reg_bytes));
  }
  const bool has_mode = (op == "get" && argc == 7) || (op == "set" && argc == 8);
  const std::string mode = has_mode ? argv[argc - 1] : "b";
  if (mode != "b" && mode != "w") {
    usage();
    return 2;
  }
  if (op == "get" && (argc == 6 || argc == 7) && parse_num(argv[5], 16, 0xFF, &reg))
    return get(h, ch, a, static_cast<unsigned char>(reg), mode == "w");
  if (op == "set" && (argc == 7 || argc == 8) && parse_num(argv[5], 16, 0xFF, &reg) &&
      parse_num(argv[6], 16, mode == "w" ? 0xFFFF : 0xFF, &value))
    return set(h, ch, a, static_cast<unsigned char>(reg), value, mode == "w");
  usage();
  return 2;
}

}  // namespace

int cmd_i2c(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  unsigned long serial, ch;
  if (argc < 4 || !parse_num(argv[1], 16, 0xFFFFFFFFul, &serial) ||
      !parse_num(argv[2], 10, IIC_MAX_CHANNELS - 1, &ch)) {
    usage();
    return 2;
  }
  const int h = int(unsigned(serial));
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(unsigned(serial)) != 1) {
    std::fprintf(stderr, "veltrix i2c: adapter %08lX not found or cannot be opened\n", serial);
    return 1;
  }
  const auto c = static_cast<unsigned char>(ch);
  int rc = SMBUS_Init(h, c, 100000, 0);
  rc = rc == 0 ? run(h, c, argc, argv) : fail("channel set-up", rc);
  USB_CloseDevice(unsigned(serial));
  return rc;
}
