// Reading signals by name answers what the names say, whatever was read before: the same
// buffers rewritten between calls, duplicated signal and message names, and names that are
// a prefix or an extension of a known one.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "dbc_test_util.hpp"
#include "veltrix/dbc.h"

namespace veltrix::dbc {
namespace {

// Dup.X exists twice in the first Dup; Dup.B only in the second Dup.
const char kDuplicates[] =
    "BO_ 100 Dup: 8 N\n"
    " SG_ A : 0|8@1+ (1,0) [0|255] \"\" N\n"
    " SG_ X : 8|8@1+ (1,0) [0|255] \"\" N\n"
    " SG_ Y : 16|8@1+ (1,0) [0|255] \"\" N\n"
    " SG_ X : 24|8@1+ (1,0) [0|255] \"\" N\n"
    "BO_ 101 Dup: 8 N\n"
    " SG_ A : 0|8@1+ (1,0) [0|255] \"\" N\n"
    " SG_ B : 8|8@1+ (1,0) [0|255] \"\" N\n"
    "BO_ 102 Other: 8 N\n"
    " SG_ A : 0|8@1+ (2,0) [0|510] \"\" N\n";

CAN_MSG frame(uint32_t id, std::initializer_list<uint8_t> data) {
  CAN_MSG f{};
  f.ID = id;
  f.DataLen = 8;
  std::copy(data.begin(), data.end(), f.Data);
  return f;
}

TEST(DbcNameLookup, RewrittenBuffersDuplicatesAndNearMissesReadWhatTheNamesSay) {
  test::TempFile file(kDuplicates);
  const long long h = DBC_LoadFile(file.path());
  ASSERT_NE(h, 0);
  const CAN_MSG frames[] = {frame(100, {1, 2, 3, 4}), frame(101, {0x11, 0x12}), frame(102, {0x21})};
  ASSERT_EQ(DBC_SyncCANMsgToValue(h, frames, 3), DBC_OK);
  struct Case {
    int take;  // frame taken just before the read, or -1
    const char* message;
    const char* signal;
    int rc;
    double value;
  };
  const Case cases[] = {
      {-1, "Dup", "A", DBC_OK, 1},
      {-1, "Dup", "X", DBC_OK, 2},
      {-1, "Dup", "Y", DBC_OK, 3},
      {-1, "Dup", "X", DBC_OK, 2},     // the first X, not the X after Y
      {-1, "Dup", "B", DBC_OK, 0x12},  // only the second Dup has B
      {-1, "Dup", "A", DBC_OK, 1},     // back to the first Dup
      {1, "Dup", "A", DBC_OK, 1},      // a frame of the second Dup does not move A
      {1, "Dup", "B", DBC_OK, 0x12},
      {-1, "Other", "A", DBC_OK, 0x42},
      {-1, "Othe", "A", DBC_ERR_NOT_FOUND, 0},
      {-1, "Others", "A", DBC_ERR_NOT_FOUND, 0},
      {-1, "Other", "", DBC_ERR_NOT_FOUND, 0},
      {2, "Other", "AA", DBC_ERR_NOT_FOUND, 0},
      {-1, "", "A", DBC_ERR_NOT_FOUND, 0},
      {-1, "Other", "A", DBC_OK, 0x42},
      {0, "Dup", "X", DBC_OK, 2},
  };
  // One pair of buffers for every call: a lookup keyed on the pointer would answer the
  // previous name.
  char message[16], signal[16];
  for (const Case& c : cases) {
    if (c.take >= 0) {
      ASSERT_EQ(DBC_SyncCANMsgToValue(h, &frames[c.take], 1), DBC_OK);
    }
    std::strcpy(message, c.message);
    std::strcpy(signal, c.signal);
    double v = -1;
    const std::string what = std::string(c.message) + "." + c.signal;
    ASSERT_EQ(DBC_GetSignalValue(h, message, signal, &v), c.rc) << what;
    if (c.rc == DBC_OK) {
      EXPECT_EQ(v, c.value) << what;
    }
  }
  // Setting by name follows the same rules: Dup.X is the first X (bits 8..15).
  std::strcpy(message, "Dup");
  std::strcpy(signal, "X");
  ASSERT_EQ(DBC_SetSignalValue(h, message, signal, 0x5A), DBC_OK);
  CAN_MSG out{};
  ASSERT_EQ(DBC_SyncValueToCANMsg(h, message, &out), DBC_OK);
  EXPECT_EQ(out.Data[1], 0x5A);
  EXPECT_EQ(out.Data[3], 4);
  DBC_Release(h);
}

}  // namespace
}  // namespace veltrix::dbc
