// Argument parsing and adapter opening shared by the uart, gpio, pwm and adc commands.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "veltrix/usb_device.h"

namespace periph_cli {

inline bool parse_uint(const char* s, int base, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, base);
  if (s[0] == '-' || errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

inline bool parse_double(const char* s, double* out) {
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(s, &end);
  if (errno != 0 || end == s || *end != '\0') return false;
  *out = v;
  return true;
}

// "--name VALUE" anywhere in argv: the value, or null. The pair is removed from argv
// so the positional arguments stay in order.
inline const char* take_option(int& argc, char** argv, const char* name) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) != 0) continue;
    const char* v = argv[i + 1];
    for (int j = i; j + 2 < argc; ++j) argv[j] = argv[j + 2];
    argc -= 2;
    return v;
  }
  return nullptr;
}

// Scans and opens the adapter; prints why not on failure.
inline bool open_adapter(const char* cmd, unsigned serial) {
  if (USB_ScanDevice(nullptr) > 0 && USB_OpenDevice(serial) == 1) return true;
  std::fprintf(stderr, "veltrix %s: adapter %08X not found or cannot be opened\n", cmd, serial);
  return false;
}

// Prints a failed library call; returns the exit status 1.
inline int fail(const char* cmd, const char* what, int code) {
  std::fprintf(stderr, "veltrix %s: %s failed (%d)\n", cmd, what, code);
  return 1;
}

}  // namespace periph_cli
