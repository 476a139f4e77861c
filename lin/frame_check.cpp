#include "lin/frame_check.hpp"

#include <algorithm>

namespace veltrix::lin {
namespace {
constexpr uint8_t kSync = 0x55;
constexpr uint8_t kDefaultBreakBits = 13;
constexpr uint8_t kMaxDataLen = 8;
unsigned bit(uint8_t v, int n) { return (v >> n) & 1u; }
}  // namespace

uint8_t protected_id(uint8_t id) {
  const unsigned p0 = bit(id, 0) ^ bit(id, 1) ^ bit(id, 2) ^ bit(id, 4);
  const unsigned p1 = (bit(id, 1) ^ bit(id, 3) ^ bit(id, 4) ^ bit(id, 5)) ^ 1u;
  return uint8_t((id & 0x3F) | p0 << 6 | p1 << 7);
}

uint8_t checksum(uint8_t seed, const uint8_t* data, unsigned len) {
  unsigned sum = seed;
  for (unsigned i = 0; i < std::min<unsigned>(len, kMaxDataLen); ++i) {
    sum += data[i];
    if (sum >= 256) sum -= 255;
  }
  return uint8_t(~sum);
}

void prepare_header(LIN_EX_MSG& m) {
  m.Sync = kSync;
  m.PID = protected_id(m.PID);
  if (m.BreakBits < 10 || m.BreakBits > 26) m.BreakBits = kDefaultBreakBits;
  m.DataLen = std::min(m.DataLen, kMaxDataLen);
}

void apply_checksum(LIN_EX_MSG& m) {
  switch (m.CheckType) {
    case LIN_EX_CHECK_STD: m.Check = classic_checksum(m); break;
    case LIN_EX_CHECK_EXT: m.Check = enhanced_checksum(m); break;
    case LIN_EX_CHECK_USER: break;
    default: return;
  }
  // On the wire the checksum follows the last data byte.
  if (m.DataLen < kMaxDataLen) m.Data[m.DataLen] = m.Check;
}

uint8_t checksum_verdict(const LIN_EX_MSG& m) {
  if (m.Check == classic_checksum(m)) return LIN_EX_CHECK_STD;
  if (m.Check == enhanced_checksum(m)) return LIN_EX_CHECK_EXT;
  return LIN_EX_CHECK_ERROR;
}

bool split_trailing_checksum(LIN_EX_MSG& m) {
  // A hostile length cannot point past Data[]: at most 8 bytes arrived.
  m.DataLen = std::min(m.DataLen, kMaxDataLen);
  if (m.DataLen == 0) return false;
  m.DataLen -= 1;
  m.Check = m.Data[m.DataLen];
  return true;
}

void judge_reply(LIN_EX_MSG& got, uint8_t requested) {
  if (got.MsgType == LIN_EX_MSG_TYPE_DL) {
    if (requested == LIN_EX_CHECK_NONE) {
      got.CheckType = LIN_EX_CHECK_NONE;
      return;
    }
    if (!split_trailing_checksum(got)) {
      got.CheckType = LIN_EX_CHECK_ERROR;  // no checksum byte arrived at all
      return;
    }
    got.CheckType = requested == LIN_EX_CHECK_USER ? LIN_EX_CHECK_USER : checksum_verdict(got);
  } else if (got.MsgType == LIN_EX_MSG_TYPE_DC) {
    if (requested == LIN_EX_CHECK_NONE || requested == LIN_EX_CHECK_USER) {
      got.CheckType = requested;
      return;
    }
    got.DataLen = std::min(got.DataLen, kMaxDataLen);
    got.CheckType = checksum_verdict(got);
  } else {
    got.CheckType = LIN_EX_CHECK_NONE;
  }
}

}  // namespace veltrix::lin
