// The 20-byte frame record as it travels to and from the adapter (little-endian words,
// the same layout as CAN_MSG):
//
//   0      4          8      9     10      11            19
//   +------+----------+------+-----+-------+-------------+------+
//   |  ID  | TimeStamp|Flags | Ext | Len   | Data[8]     | TsHi |
//   +------+----------+------+-----+-------+-------------+------+
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "device/wire.hpp"
#include "veltrix/can.h"

namespace veltrix::can {

inline constexpr size_t kRecordSize = 20;
inline constexpr size_t kOffId = 0;
inline constexpr size_t kOffTime = 4;
inline constexpr size_t kOffFlags = 8;
inline constexpr size_t kOffExt = 9;
inline constexpr size_t kOffLen = 10;
inline constexpr size_t kOffData = 11;
inline constexpr size_t kOffTimeHigh = 19;
static_assert(sizeof(CAN_MSG) == kRecordSize);

inline void encode_frame(const CAN_MSG& m, uint8_t* p) {
  wire::put_le32(p + kOffId, m.ID);
  wire::put_le32(p + kOffTime, m.TimeStamp);
  p[kOffFlags] = m.FrameFlags;
  p[kOffExt] = m.ExtFlag;
  p[kOffLen] = m.DataLen;
  std::memcpy(p + kOffData, m.Data, sizeof m.Data);
  p[kOffTimeHigh] = m.TimeStampHigh;
}

inline CAN_MSG decode_frame(const uint8_t* p) {
  CAN_MSG m;
  m.ID = wire::get_le32(p + kOffId);
  m.TimeStamp = wire::get_le32(p + kOffTime);
  m.FrameFlags = p[kOffFlags];
  m.ExtFlag = p[kOffExt];
  m.DataLen = p[kOffLen];
  std::memcpy(m.Data, p + kOffData, sizeof m.Data);
  m.TimeStampHigh = p[kOffTimeHigh];
  return m;
}

}  // namespace veltrix::can
