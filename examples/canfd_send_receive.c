/* Send one 64-byte CAN FD frame with the bit rate switch on port 0 of a CAN FD adapter and
 * receive it on port 1 (the ports share one cable on the virtual adapter; connect them on a
 * real one). Prints the frame received as ID##FLAGS DATA, FLAGS 1 meaning BRS.
 *   veltrix-sim -- ./canfd_send_receive [SERIAL] */
#define _POSIX_C_SOURCE 200809L /* nanosleep under -std=c99 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <veltrix/veltrix.h>

int main(int argc, char** argv) {
  unsigned int h = argc > 1 ? (unsigned int)strtoul(argv[1], NULL, 16) : 0x53000002u;
  if (USB_ScanDevice(NULL) <= 0 || USB_OpenDevice(h) != 1) {
    fprintf(stderr, "canfd_send_receive: adapter %08X not found\n", h);
    return 1;
  }
  CANFD_CHANNEL_CONFIG c;
  if (CANFD_GetCANSpeedArg(h, &c, 500000, 2000000) != 0 || /* nominal / data phase, bit/s */
      CANFD_Init(h, 0, &c) != 0 || CANFD_Init(h, 1, &c) != 0 ||
      CANFD_StartGetMsg(h, 1) != 0) { /* empties port 1's queue, starts the thread */
    fprintf(stderr, "canfd_send_receive: the CAN FD ports cannot be started\n");
    USB_CloseDevice(h);
    return 1;
  }

  CANFD_MSG f = {0};
  f.ID = 0x123;                 /* bit 31: extended, bit 30: remote */
  f.DLC = 64;                   /* bytes, not the coded DLC */
  f.Flags = CANFD_MSG_FLAG_FDF; /* BRS is added for any frame above 8 bytes */
  for (int i = 0; i < 64; ++i) f.Data[i] = (unsigned char)i;
  int events = CANFD_SendMsg(h, 0, &f, 1); /* f now holds its transmit event */

  CANFD_MSG rx[100];
  int n = 0;
  for (int tries = 0; events == 1 && n == 0 && tries < 200; ++tries) {
    n = CANFD_GetMsg(h, 1, rx, 100);
    if (n == 0) {
      struct timespec pause = {0, 10 * 1000 * 1000};
      nanosleep(&pause, NULL);
    }
  }
  if (events != 1) fprintf(stderr, "canfd_send_receive: sending failed (%d)\n", events);
  for (int i = 0; i < n; ++i) {
    printf("%03X##%d", (unsigned)(rx[i].ID & 0x1FFFFFFF), rx[i].Flags & CANFD_MSG_FLAG_BRS ? 1 : 0);
    for (int b = 0; b < rx[i].DLC && b < 64; ++b) printf("%02X", rx[i].Data[b]);
    printf("\n");
  }
  CANFD_StopGetMsg(h, 1);
  CANFD_Stop(h, 0);
  CANFD_Stop(h, 1);
  USB_CloseDevice(h);
  return n == 1 ? 0 : 1;
}
