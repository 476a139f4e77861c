/* Read the vehicle identification number (service 0x22, identifier F190) from an ECU that
 * listens on 0x7E0 and answers on 0x7E8 at 500 kbit/s, and print the answer in hex.
 *   VELTRIX_SIM_ECU=1 veltrix-sim -- ./uds_read_vin [SERIAL] */
#include <stdio.h>
#include <stdlib.h>
#include <veltrix/veltrix.h>

int main(int argc, char** argv) {
  unsigned h = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 16) : 0x51000001u;
  if (USB_ScanDevice(NULL) <= 0 || USB_OpenDevice(h) != 1) {
    fprintf(stderr, "uds_read_vin: adapter %08X not found\n", h);
    return 1;
  }
  CAN_CHANNEL_CONFIG c;
  if (CAN_GetCANSpeedArg(h, &c, 500000) != 0 || CAN_Init(h, 0, &c) != 0 ||
      CAN_StartGetMsg(h, 0) != 0) {
    fprintf(stderr, "uds_read_vin: CAN port 0 cannot be started\n");
    USB_CloseDevice(h);
    return 1;
  }

  CAN_UDS_ADDR a = {.RequestID = 0x7E0, .ResponseID = 0x7E8, .FrameLength = 8};
  const unsigned char req[] = {0x22, 0xF1, 0x90};
  unsigned char resp[4095];
  int n = CAN_UDS_Request(h, 0, &a, req, sizeof req);
  if (n == 0) n = CAN_UDS_ResponseWithSize(h, 0, &a, resp, sizeof resp, 1000);
  /* n == 20: 62 F1 90 and 17 characters; a 7F 22 78 answer means "call again" */

  if (n < 0) fprintf(stderr, "uds_read_vin: request failed (%d)\n", n);
  for (int i = 0; i < n; ++i) printf("%02X%s", resp[i], i + 1 < n ? " " : "\n");
  CAN_StopGetMsg(h, 0);
  CAN_Stop(h, 0);
  USB_CloseDevice(h);
  return n > 0 ? 0 : 1;
}
