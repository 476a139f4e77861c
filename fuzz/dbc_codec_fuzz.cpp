// Drives the exported frame and value functions with arbitrary frames, values and names
// against a fixed database that holds awkward signals (multiplexed, Motorola running off
// the front, beyond byte 8, float, zero and oversized lengths).
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "dbc/decoder.hpp"
#include "veltrix/dbc.h"

namespace {

const char kDatabase[] =
    "BO_ 256 Mux: 8 ECU\n"
    " SG_ Sel M : 0|8@1+ (1,0) [0|255] \"\" X\n"
    " SG_ A m1 : 8|16@1+ (0.5,0) [0|1000] \"V\" X\n"
    " SG_ B m3 : 8|8@1- (1,0) [0|0] \"\" X\n"
    " SG_ Front : 3|40@0- (1,0) [0|0] \"\" X\n"
    "BO_ 2147483904 Ext: 8 ECU\n"
    " SG_ F : 0|32@1- (1,0) [-1e30|1e30] \"\" X\n"
    " SG_ Beyond : 60|64@1+ (1,0) [0|0] \"\" X\n"
    " SG_ Zero : 7|0@0+ (1,0) [0|0] \"\" X\n"
    " SG_ Huge : 65535|65535@0+ (0,0) [0|0] \"\" X\n"
    "BO_ 300 Fd: 64 ECU\n"
    " SG_ D : 448|64@1- (1,0) [0|0] \"\" X\n"
    " SG_ Last : 511|8@0+ (1,0) [0|0] \"\" X\n"
    "VAL_ 256 Sel 1 \"one\" 3 \"three\";\n"
    "SIG_VALTYPE_ 2147483904 F : 1;\n"
    "SIG_VALTYPE_ 300 D : 2;\n"
    "BA_DEF_ BO_ \"VFrameFormat\" ENUM \"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\";\n"
    "BA_ \"VFrameFormat\" BO_ 300 2;\n";

const char* const kMessages[] = {"Mux", "Ext", "Fd", "None"};
const char* const kSignals[] = {"Sel",  "A",    "B", "Front", "F",   "Beyond",
                                "Zero", "Huge", "D", "Last",  "None"};

long long database() {
  static long long handle = [] {
    char path[] = "/tmp/veltrix_dbc_fuzz_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return 0LL;
    if (write(fd, kDatabase, sizeof kDatabase - 1) < 0) return 0LL;
    close(fd);
    long long h = DBC_ParserFile(int(0xFF000000u), path);
    std::remove(path);
    return h;
  }();
  return handle;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const long long h = database();
  if (!h) __builtin_trap();
  // Each step takes 1 op byte, 1 selector byte and 8 value bytes.
  while (size >= 10) {
    const uint8_t op = data[0] % 6;
    const char* msg = kMessages[(data[1] >> 4) % 4];
    const char* sig = kSignals[(data[1] & 0x0F) % 11];
    double value;
    std::memcpy(&value, data + 2, sizeof value);
    char text[2048];
    switch (op) {
      case 0:
        DBC_SetSignalValue(h, msg, sig, value);
        break;
      case 1: {
        double out;
        DBC_GetSignalValue(h, msg, sig, &out);
        DBC_GetSignalValueStr(h, msg, sig, text);
        break;
      }
      case 2: {
        CAN_MSG f{};
        f.ID = (data[1] & 1) ? 0x100 : (data[1] & 2 ? 256 : 300);
        f.ExtFlag = (data[1] >> 2) & 1;
        std::memcpy(f.Data, data + 2, 8);
        DBC_SyncCANMsgToValue(h, &f, 1);
        break;
      }
      case 3: {
        CANFD_MSG f{};
        f.ID = (data[1] & 1) ? 0x80000100u : 300;
        for (int i = 0; i < 8; ++i) std::memcpy(f.Data + 8 * i, data + 2, 8);
        DBC_SyncCANFDMsgToValue(h, &f, 1);
        break;
      }
      case 4: {
        CAN_MSG f{};
        DBC_SyncValueToCANMsg(h, msg, &f);
        break;
      }
      default: {
        CANFD_MSG f{};
        DBC_SyncValueToCANFDMsg(h, msg, &f);
        // Raw layout functions with arbitrary placement, on an image of the exact size.
        uint8_t image[veltrix::dbc::kDataBytes];
        std::memcpy(image, f.Data, sizeof image);
        uint64_t raw;
        std::memcpy(&raw, data + 2, sizeof raw);
        const uint16_t start = uint16_t(data[1] | data[9] << 8);
        const auto order = veltrix::dbc::ByteOrder(data[1] & 1);
        veltrix::dbc::DBC_Decoder::rawValueToArray(raw, start, data[8], image, order);
        (void)veltrix::dbc::DBC_Decoder::arrayValueToRaw(start, data[8], image, order);
        break;
      }
    }
    data += 10;
    size -= 10;
  }
  return 0;
}
