// Decode received frames with a DBC database: the database is loaded without an adapter,
// one frame encoded from signal values goes out on port 0, and the frame received on port 1
// is decoded back into values.
//   veltrix-sim -- ./dbc_decode FILE.dbc MESSAGE SIGNAL VALUE [SERIAL]
#include <veltrix/veltrix.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

// Releases the adapter and the database on every path out of main.
struct Session {
  unsigned int dev = 0;
  long long db = 0;
  ~Session() {
    if (db) DBC_Release(db);
    if (dev) USB_CloseDevice(dev);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: dbc_decode FILE.dbc MESSAGE SIGNAL VALUE [SERIAL]\n");
    return 2;
  }
  const char* message = argv[2];
  const char* signal = argv[3];
  Session s;
  s.db = DBC_LoadFile(argv[1]);
  if (!s.db) {
    std::fprintf(stderr, "dbc_decode: %s cannot be loaded\n", argv[1]);
    return 1;
  }
  CAN_MSG tx{};
  if (DBC_SetSignalValue(s.db, message, signal, std::atof(argv[4])) != DBC_OK ||
      DBC_SyncValueToCANMsg(s.db, message, &tx) != DBC_OK) {
    std::fprintf(stderr, "dbc_decode: %s has no signal %s.%s\n", argv[1], message, signal);
    return 1;
  }

  const unsigned int dev = argc > 5 ? unsigned(std::strtoul(argv[5], nullptr, 16)) : 0x51000001u;
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(dev) != 1) {
    std::fprintf(stderr, "dbc_decode: adapter %08X not found\n", dev);
    return 1;
  }
  s.dev = dev;
  CAN_CHANNEL_CONFIG config{};
  if (CAN_GetCANSpeedArg(dev, &config, 500000) != 0 || CAN_Init(dev, 0, &config) != 0 ||
      CAN_Init(dev, 1, &config) != 0 || CAN_StartGetMsg(dev, 1) != 0 ||
      CAN_SendMsgSynch(dev, 0, &tx, 1) != 1) {
    std::fprintf(stderr, "dbc_decode: the frame could not be sent\n");
    return 1;
  }

  // CAN_GetMsg may move a whole queue: give it the room its header asks for.
  std::vector<CAN_MSG> rx(CAN_MSG_QUEUE_SIZE);
  int n = 0;
  for (int tries = 0; n == 0 && tries < 200; ++tries) {
    n = CAN_GetMsg(dev, 1, rx.data());
    if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  CAN_Stop(dev, 1);
  if (n <= 0 || DBC_SyncCANMsgToValue(s.db, rx.data(), n) != DBC_OK) {
    std::fprintf(stderr, "dbc_decode: nothing was received\n");
    return 1;
  }
  const int count = DBC_GetMsgSignalQuantity(s.db, message);
  for (int i = 0; i < count; ++i) {
    char name[256];  // longer than any signal name of the file
    char text[512];  // the longest value text or unit, plus the number
    if (DBC_GetMsgSignalName(s.db, message, unsigned(i), name) != DBC_OK) continue;
    if (DBC_GetSignalValueStr(s.db, message, name, text) == DBC_OK)
      std::printf("%s.%s = %s\n", message, name, text);
  }
  return 0;
}
