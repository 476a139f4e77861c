// A LIN_EX_MSG as it travels in every LIN command: 20 bytes, the time slot / time stamp
// first in the host's (little-endian) order, then the byte fields in record order.
//
//   0      4     5      6      7    8    9 .. 16   17     18         19
//   +------+-----+------+------+----+----+---------+------+----------+--------+
//   | slot | type| check| len  |sync|PID | data[8] |check |breakbits |reserved|
//   +------+-----+------+------+----+----+---------+------+----------+--------+
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "device/wire.hpp"
#include "veltrix/lin.h"

namespace veltrix::lin {

inline constexpr size_t kRecordSize = 20;
inline constexpr size_t kOldFrameSize = 11;  // LIN_MSG on the older command set

inline void put_record(wire::PayloadBuilder& b, const LIN_EX_MSG& m) {
  b.le32(m.Timestamp).u8(m.MsgType).u8(m.CheckType).u8(m.DataLen).u8(m.Sync).u8(m.PID);
  b.bytes(m.Data, sizeof m.Data).u8(m.Check).u8(m.BreakBits).u8(m.Reserved);
}

// Decodes record i of a reply; the caller has checked that it lies inside the reply.
inline LIN_EX_MSG get_record(std::span<const uint8_t> reply, size_t i) {
  wire::PayloadReader r(reply.subspan(i * kRecordSize, kRecordSize));
  LIN_EX_MSG m;
  m.Timestamp = r.le32();
  m.MsgType = r.u8();
  m.CheckType = r.u8();
  m.DataLen = r.u8();
  m.Sync = r.u8();
  m.PID = r.u8();
  r.bytes(m.Data, sizeof m.Data);
  m.Check = r.u8();
  m.BreakBits = r.u8();
  m.Reserved = r.u8();
  // A record holds at most 8 data bytes, whatever length the adapter claims.
  if (m.DataLen > sizeof m.Data) m.DataLen = sizeof m.Data;
  return m;
}

inline void put_old_frame(wire::PayloadBuilder& b, const LIN_MSG& m) {
  b.u8(m.ID).u8(m.DataLen).bytes(m.Data, sizeof m.Data).u8(m.Check);
}

inline LIN_MSG get_old_frame(std::span<const uint8_t> reply, size_t i) {
  wire::PayloadReader r(reply.subspan(i * kOldFrameSize, kOldFrameSize));
  LIN_MSG m;
  m.ID = r.u8();
  m.DataLen = r.u8();
  r.bytes(m.Data, sizeof m.Data);
  m.Check = r.u8();
  return m;
}

}  // namespace veltrix::lin
