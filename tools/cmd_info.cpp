// veltrix info SERIAL: the adapter's identity, hardware record and timestamp.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/cli.hpp"
#include "veltrix/device.h"
#include "veltrix/usb_device.h"

int cmd_info(int argc, char** argv) {
  static const char kUsage[] =
      "usage: veltrix info SERIAL\n"
      "Prints the adapter's firmware identity, hardware record and timestamp counter.\n"
      "SERIAL is the adapter's handle in hex, as 'veltrix scan' shows it.\n";
  if (veltrix::tools::wants_help(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc != 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  char* end = nullptr;
  errno = 0;
  unsigned long serial = std::strtoul(argv[1], &end, 16);
  if (errno != 0 || end == argv[1] || *end != '\0' || serial > 0xFFFFFFFFul) {
    std::fprintf(stderr, "veltrix info: '%s' is not a hexadecimal serial number\n", argv[1]);
    return 2;
  }
  const unsigned int h = unsigned(serial);
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(h) != 1) {
    std::fprintf(stderr, "veltrix info: adapter %08X not found or cannot be opened\n", h);
    return 1;
  }

  int rc = 0;
  DEVICE_INFO info;
  char functions[DEV_FUNCTION_STR_MAX + 1] = {0};
  if (DEV_GetDeviceInfo(h, &info, functions) == 1) {
    std::printf("adapter:    %08X\n", h);
    std::printf("firmware:   %u.%u.%u (0x%08X)\n", info.FirmwareVersion >> 24,
                (info.FirmwareVersion >> 16) & 0xFF, info.FirmwareVersion & 0xFFFF,
                info.FirmwareVersion);
    std::printf("name:       %.*s\n", int(sizeof info.FirmwareName), info.FirmwareName);
    std::printf("built:      %.*s\n", int(sizeof info.BuildDate), info.BuildDate);
    std::printf("functions:  %s\n", functions);
  } else {
    std::fprintf(stderr, "veltrix info: the adapter did not report its identity\n");
    rc = 1;
  }

  unsigned char hw[DEV_HARDWARE_INFO_SIZE] = {0};
  int hw_ok = DEV_GetHardwareInfo(h, hw);
  std::printf("hardware:   %s (mark 0x%02X)\n", hw_ok ? "valid" : "invalid or unreadable", hw[0]);

  unsigned int ticks = 0;
  if (DEV_GetTimestamp(h, 0, &ticks) == 1) {
    std::printf("timestamp:  %u x 100 us (%.4f s since reset)\n", ticks, ticks / 10000.0);
  } else {
    std::fprintf(stderr, "veltrix info: the adapter did not report its timestamp\n");
    rc = 1;
  }
  USB_CloseDevice(h);
  return rc;
}
