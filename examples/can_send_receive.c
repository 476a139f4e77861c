/* Send three frames on CAN port 0 and receive them on port 1 of the same adapter (the
 * ports share one cable on the virtual adapter; connect them on a real one).
 *   veltrix-sim -- ./can_send_receive [SERIAL] */
#define _POSIX_C_SOURCE 200809L /* nanosleep under -std=c99 */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <veltrix/veltrix.h>

int main(int argc, char** argv) {
  unsigned int dev = argc > 1 ? (unsigned int)strtoul(argv[1], NULL, 16) : 0x51000001u;
  if (USB_ScanDevice(NULL) <= 0 || USB_OpenDevice(dev) != 1) {
    fprintf(stderr, "can_send_receive: adapter %08X not found\n", dev);
    return 1;
  }
  CAN_CHANNEL_CONFIG config;
  if (CAN_GetCANSpeedArg(dev, &config, 500000) != 0 || CAN_Init(dev, 0, &config) != 0 ||
      CAN_Init(dev, 1, &config) != 0 || CAN_StartGetMsg(dev, 1) != 0) {
    fprintf(stderr, "can_send_receive: the CAN ports cannot be started\n");
    USB_CloseDevice(dev);
    return 1;
  }

  CAN_MSG tx[3] = {{0}};
  tx[0].ID = 0x123;
  tx[0].DataLen = 4;
  tx[0].Data[0] = 0xDE, tx[0].Data[1] = 0xAD, tx[0].Data[2] = 0xBE, tx[0].Data[3] = 0xEF;
  tx[1].ID = 0x18DAF110;
  tx[1].ExtFlag = 1;
  tx[1].DataLen = 3;
  tx[1].Data[0] = 0x02, tx[1].Data[1] = 0x10, tx[1].Data[2] = 0xC0;
  tx[2].ID = 0x7DF;
  tx[2].FrameFlags = CAN_MSG_FLAG_RTR;
  int sent = CAN_SendMsgSynch(dev, 0, tx, 3);
  if (sent != 3) {
    fprintf(stderr, "can_send_receive: %d of 3 frames sent\n", sent);
    USB_CloseDevice(dev);
    return 1;
  }

  /* CAN_GetMsg may move a whole queue: give it the room its header asks for. */
  CAN_MSG* rx = malloc(CAN_MSG_QUEUE_SIZE * sizeof *rx);
  int received = 0;
  for (int tries = 0; rx && received < 3 && tries < 200; ++tries) {
    int n = CAN_GetMsgWithSize(dev, 1, rx + received, CAN_MSG_QUEUE_SIZE - received);
    if (n < 0) break;
    received += n;
    if (received < 3) {
      struct timespec pause = {0, 10 * 1000 * 1000};
      nanosleep(&pause, NULL);
    }
  }
  for (int i = 0; i < received; ++i) {
    printf(rx[i].ExtFlag ? "%08X#" : "%03X#", (unsigned)rx[i].ID);
    if (rx[i].FrameFlags & CAN_MSG_FLAG_RTR) printf("R");
    for (int b = 0; !(rx[i].FrameFlags & CAN_MSG_FLAG_RTR) && b < rx[i].DataLen && b < 8; ++b)
      printf("%02X", rx[i].Data[b]);
    printf("\n");
  }
  free(rx);
  CAN_StopGetMsg(dev, 1);
  CAN_Stop(dev, 0);
  CAN_Stop(dev, 1);
  USB_CloseDevice(dev);
  return received == 3 ? 0 : 1;
}
