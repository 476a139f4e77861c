/* List the attached adapters and print each one's firmware identity.
 *   veltrix-sim -- ./scan_info      (or with a real adapter plugged in) */
#include <stdio.h>
#include <veltrix/veltrix.h>

int main(void) {
  unsigned int handles[30]; /* the registry holds at most 30 adapters */
  int n = USB_ScanDevice(handles);
  if (n < 0) {
    fprintf(stderr, "scan_info: USB access failed (libusb error %d)\n", n);
    return 1;
  }
  if (n == 0) {
    fprintf(stderr, "scan_info: no adapter found\n");
    return 1;
  }
  for (int i = 0; i < n; ++i) {
    DEVICE_INFO info;
    char functions[DEV_FUNCTION_STR_MAX + 1];
    if (USB_OpenDevice(handles[i]) != 1) {
      fprintf(stderr, "scan_info: adapter %08X cannot be opened\n", handles[i]);
      return 1;
    }
    if (DEV_GetDeviceInfo(handles[i], &info, functions) != 1) {
      fprintf(stderr, "scan_info: adapter %08X did not report its identity\n", handles[i]);
      USB_CloseDevice(handles[i]);
      return 1;
    }
    printf("%08X firmware %u.%u.%u %.*s: %s\n", handles[i], info.FirmwareVersion >> 24,
           (info.FirmwareVersion >> 16) & 0xFF, info.FirmwareVersion & 0xFFFF,
           (int)sizeof info.FirmwareName, info.FirmwareName, functions);
    USB_CloseDevice(handles[i]);
  }
  return 0;
}
