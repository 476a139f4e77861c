/* The public headers compile as plain C and the shared library links from C. */
#include <stdio.h>

#include "veltrix/veltrix.h"

int main(void) {
  unsigned int handles[30];
  /* No adapters without the virtual adapter: the scan must answer 0 or a libusb code,
     never crash. */
  int n = USB_ScanDevice(handles);
  if (n > 0) return 1;
  if (USB_OpenDevice(0x12345678u) != 0) return 1;
  if (USB_CloseDevice(0x12345678u) != 0) return 1;
  printf("c api ok (%d)\n", n);
  return 0;
}
