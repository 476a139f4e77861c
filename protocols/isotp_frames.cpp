#include "protocols/isotp_frames.hpp"

#include <algorithm>
#include <cstring>

#include "device/wire.hpp"

namespace veltrix::isotp {

// The escape first frame always spends 6 protocol bytes (0x10 0x00 and the 32-bit length),
// so on an 8-byte frame it carries 2 data bytes (1 with the address byte), like every other
// frame length: the planning follows the frame's own layout.
FramePlan plan(uint8_t length, bool extended) {
  const uint32_t l = length, x = extended ? 1 : 0;
  FramePlan p{length, uint8_t(x), 0, 0, 0, 0};
  if (length == kClassicLength) {
    p.single_max = 7 - x;
    p.first_short = 6 - x;
  } else {
    p.single_max = l - 2 - x;
    p.first_short = l - 2 - x;
  }
  p.first_long = l - 6 - x;
  p.consecutive = l - 1 - x;
  return p;
}

FrameBytes first_or_single(const FramePlan& p, uint8_t address, const uint8_t* data, uint32_t len,
                           uint32_t* consumed) {
  FrameBytes f{};
  uint8_t at = 0;
  if (p.offset) f.data[at++] = address;
  uint32_t n;
  if (len <= p.single_max) {
    if (p.length > kClassicLength) f.data[at++] = kSingle << 4;
    f.data[at++] = uint8_t(len);
    n = len;
  } else if (len <= kShortLengthMax) {
    //   first frame, 12-bit length:  0001 LLLL | LLLL LLLL
    wire::put_be16(f.data + at, uint16_t(kFirst << 12 | len));
    at += 2;
    n = p.first_short;
  } else {
    f.data[at++] = kFirst << 4;
    f.data[at++] = 0;
    wire::put_be32(f.data + at, len);
    at += 4;
    n = p.first_long;
  }
  if (n > 0 && data != nullptr) std::memcpy(f.data + at, data, n);
  f.size = uint8_t(at + n);
  *consumed = n;
  return f;
}

FrameBytes consecutive(const FramePlan& p, uint8_t address, uint8_t seq, const uint8_t* data,
                       uint32_t n) {
  FrameBytes f{};
  uint8_t at = 0;
  if (p.offset) f.data[at++] = address;
  f.data[at++] = uint8_t(kConsecutive << 4 | (seq & 0x0F));
  n = std::min(n, p.consecutive);
  if (n > 0) std::memcpy(f.data + at, data, n);
  f.size = uint8_t(at + n);
  return f;
}

FrameBytes Segmenter::next() {
  if (!started_) {
    started_ = true;
    return first_or_single(plan_, address_, data_, len_, &at_);
  }
  const uint32_t n = std::min(plan_.consecutive, len_ - at_);
  const FrameBytes f = consecutive(plan_, address_, seq_++, data_ + at_, n);
  at_ += n;
  return f;
}

FrameBytes flow_control(const FramePlan& p, uint8_t address) {
  FrameBytes f{};
  uint8_t at = 0;
  if (p.offset) f.data[at++] = address;
  f.data[at++] = kFlowControl << 4 | kContinue;
  f.data[at++] = 0;  // block size: everything in one go
  f.data[at++] = 0;  // STmin
  f.size = at;
  return f;
}

void CAN_UDS_FillCANMsg(CAN_MSG& m, uint32_t id, const CAN_UDS_ADDR& a, const uint8_t* bytes,
                        int count) {
  m = CAN_MSG{};
  // A classic record holds 8 bytes whatever the planned length.
  const int len = std::min<int>(a.FrameLength, kClassicLength);
  const int n = std::clamp(count, 0, len);
  if (n > 0) std::memcpy(m.Data, bytes, size_t(n));
  std::fill(m.Data + n, m.Data + len, kPad);
  m.DataLen = uint8_t(len);
  m.ID = id;
  m.ExtFlag = a.IdFlags & 1;
}

void CAN_UDS_FillCANFDMsg(CANFD_MSG& m, uint32_t id, const CAN_UDS_ADDR& a, const uint8_t* bytes,
                          int count) {
  m = CANFD_MSG{};
  const int len = std::min<int>(a.FrameLength, kMaxLength);
  const int n = std::clamp(count, 0, len);
  if (n > 0) std::memcpy(m.Data, bytes, size_t(n));
  std::fill(m.Data + n, m.Data + len, kPad);
  m.DLC = uint8_t(len);
  m.ID = id | ((a.IdFlags & 1) ? 0x80000000u : 0u);
  m.Flags = uint8_t(((a.IdFlags << 1) & 4) + ((a.IdFlags & 6) == 6 ? 1 : 0));
}

}  // namespace veltrix::isotp
