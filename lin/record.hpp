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
#include "lin/lin_state.hpp"
#include "veltrix/lin.h"

namespace veltrix::lin {

inline constexpr size_t kRecordSize = 20;
inline constexpr size_t kOldFrameSize = 11;  // LIN_MSG on the older command set
// The older record's DataLen counts the checksum too: its 8 data bytes and Check, which
// follows them in the record.
inline constexpr uint8_t kOldMaxDataLen = sizeof(LIN_MSG::Data) + 1;

// Applications copy DataLen bytes out of a record: a length the record cannot hold is cut
// to what it holds, and counted.
inline uint8_t clamp_len(uint8_t len, uint8_t max) {
  if (len <= max) return len;
  state().clamped_records.fetch_add(1, std::memory_order_relaxed);
  return max;
}

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
  m.DataLen = clamp_len(m.DataLen, sizeof m.Data);
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
  m.DataLen = clamp_len(m.DataLen, kOldMaxDataLen);
  return m;
}

}  // namespace veltrix::lin
