// veltrix scan: list the attached adapters.
#include <cstdio>
#include <vector>

#include <libusb.h>

#include "device/registry.hpp"
#include "tools/cli.hpp"
#include "veltrix/usb_device.h"

int cmd_scan(int argc, char** argv) {
  static const char kUsage[] =
      "usage: veltrix scan\n"
      "Lists the attached adapters: handle (serial number in hex, the SERIAL of the other\n"
      "commands), model code, USB port path and speed.\n";
  if (veltrix::tools::wants_help(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc > 1) {
    std::fprintf(stderr, "veltrix scan: takes no arguments ('veltrix scan --help').\n");
    return 2;
  }
  std::vector<unsigned int> handles(64);
  int n = USB_ScanDevice(handles.data());
  if (n < 0) {
    std::fprintf(stderr, "veltrix scan: USB access failed (libusb error %d).\n", n);
    return 1;
  }
  if (n == 0) {
    std::fprintf(stderr,
                 "veltrix scan: no adapter found (is it plugged in, and does the udev rule grant "
                 "access?).\n");
    return 1;
  }
  std::printf("%-10s  %-5s  %-10s  %s\n", "HANDLE", "MODEL", "PORT", "SPEED");
  for (int i = 0; i < n; ++i) {
    usb_list* r = usb_list_post(handles[size_t(i)]);
    const char* speed = "?";
    if (r && r->device) {
      switch (libusb_get_device_speed(r->device)) {
        case LIBUSB_SPEED_HIGH: speed = "high"; break;
        case LIBUSB_SPEED_FULL: speed = "full"; break;
        case LIBUSB_SPEED_SUPER: speed = "super"; break;
        default: speed = "other"; break;
      }
    }
    std::printf("%08X    0x%02X   %-10s  %s\n", handles[size_t(i)], handles[size_t(i)] >> 24,
                r ? r->port_path : "-", speed);
  }
  return 0;
}
