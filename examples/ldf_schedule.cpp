// Run one schedule table of an LDF file on LIN channel 0 with the adapter as master node,
// then print the signal values of every frame of the table.
//   veltrix-sim -- ./ldf_schedule FILE.ldf SCHEDULE [SERIAL]
#include <veltrix/veltrix.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: ldf_schedule FILE.ldf SCHEDULE [SERIAL]\n");
    return 2;
  }
  const char* schedule = argv[2];
  const unsigned int dev = argc > 3 ? unsigned(std::strtoul(argv[3], nullptr, 16)) : 0x51000001u;
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(dev) != 1) {
    std::fprintf(stderr, "ldf_schedule: adapter %08X not found\n", dev);
    return 1;
  }
  int rc = 1;
  LDF_CODING* ldf = LDF_ParserFile(int(dev), 0, 1, argv[1]);
  if (!ldf) {
    std::fprintf(stderr, "ldf_schedule: %s cannot be loaded on channel 0\n", argv[1]);
  } else if (int r = LDF_ExeSchToBus(ldf, schedule, 1); r != 0) {
    std::fprintf(stderr, "ldf_schedule: running %s failed (%d)\n", schedule, r);
  } else {
    rc = 0;
    const int entries = LDF_GetSchFrameQuantity(ldf, schedule);
    for (int i = 0; i < entries; ++i) {
      char frame[256];  // longer than any frame name of the file
      if (LDF_GetSchFrameName(ldf, schedule, i, frame) != 0) continue;
      const int signals = LDF_GetFrameSignalQuantity(ldf, frame);
      for (int k = 0; k < signals; ++k) {
        char signal[256];
        char text[600];  // longest logical text or unit plus 340 characters
        if (LDF_GetFrameSignalName(ldf, frame, k, signal) == 0 &&
            LDF_GetSignalValueStr(ldf, frame, signal, text) == 0)
          std::printf("%s.%s = %s\n", frame, signal, text);
      }
    }
  }
  if (ldf) LDF_Release(ldf);
  USB_CloseDevice(dev);
  return rc;
}
