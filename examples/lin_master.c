/* The adapter as LIN master: write one frame, then read the answer of a slave node.
 *   veltrix-sim -- ./lin_master [SERIAL] */
#include <stdio.h>
#include <stdlib.h>
#include <veltrix/veltrix.h>

int main(int argc, char** argv) {
  int dev = (int)(argc > 1 ? strtoul(argv[1], NULL, 16) : 0x51000001ul);
  if (USB_ScanDevice(NULL) <= 0 || USB_OpenDevice((unsigned int)dev) != 1) {
    fprintf(stderr, "lin_master: adapter %08X not found\n", (unsigned int)dev);
    return 1;
  }
  int rc = 1;
  unsigned char command[2] = {0x01, 0x80};
  unsigned char answer[8];
  int r = LIN_EX_Init(dev, 0, 19200, 1); /* channel 0, 19200 baud, master */
  if (r != LIN_EX_SUCCESS) {
    fprintf(stderr, "lin_master: LIN_EX_Init failed (%d)\n", r);
  } else if ((r = LIN_EX_MasterWrite(dev, 0, 0x3C & 0x3F, command, 2, 1)) != LIN_EX_SUCCESS) {
    fprintf(stderr, "lin_master: writing frame 11 failed (%d)\n", r);
  } else if ((r = LIN_EX_MasterRead(dev, 0, 0x10, answer)) <= 0) {
    fprintf(stderr, "lin_master: no answer for identifier 10 (%d)\n", r);
  } else {
    printf("10#");
    for (int i = 0; i < r; ++i) printf("%02X", answer[i]);
    printf("\n");
    rc = 0;
  }
  USB_CloseDevice((unsigned int)dev);
  return rc;
}
