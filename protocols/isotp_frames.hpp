// ISO-TP frame layout: how many payload bytes each frame kind carries for a frame length
// and addressing, the protocol bytes of each kind, and filling CAN / CAN FD records.
// Host logic only; nothing here talks to an adapter.
//
//   normal addressing        extended addressing
//   +-----+------------+     +------+-----+------------+
//   | PCI | data ...   |     | addr | PCI | data ...   |
//   +-----+------------+     +------+-----+------------+
//   PCI high nibble: 0 single, 1 first, 2 consecutive, 3 flow control.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "veltrix/can.h"
#include "veltrix/can_uds.h"
#include "veltrix/canfd.h"

namespace veltrix::isotp {

inline constexpr uint8_t kPad = CAN_UDS_PAD_BYTE;
inline constexpr uint8_t kClassicLength = 8;
inline constexpr uint8_t kMaxLength = 64;
inline constexpr uint32_t kShortLengthMax = 4095;  // longest length of the 12-bit field

enum Pci : uint8_t { kSingle = 0, kFirst = 1, kConsecutive = 2, kFlowControl = 3 };
enum FlowStatus : uint8_t { kContinue = 0, kWait = 1, kOverflow = 2 };

// A frame length outside 8..64 means classic CAN.
inline uint8_t normalise_length(uint8_t length) {
  return length < kClassicLength || length > kMaxLength ? kClassicLength : length;
}

// Payload bytes per frame kind.
struct FramePlan {
  uint8_t length;        // frame length, 8..64
  uint8_t offset;        // 1 with the address byte, else 0
  uint32_t single_max;   // longest message sent as a single frame
  uint32_t first_short;  // data bytes of a first frame with the 12-bit length
  uint32_t first_long;   // data bytes of a first frame with the 32-bit escape length
  uint32_t consecutive;  // data bytes of a consecutive frame
};

// length must already be normalised.
FramePlan plan(uint8_t length, bool extended);

// One frame's bytes before padding; size is the count of meaningful bytes.
struct FrameBytes {
  uint8_t data[kMaxLength];
  uint8_t size;
};

// The message's first frame (a single frame when it fits). consumed: data bytes taken.
FrameBytes first_or_single(const FramePlan& p, uint8_t address, const uint8_t* data, uint32_t len,
                           uint32_t* consumed);
// A consecutive frame with sequence number seq (low 4 bits) carrying n data bytes.
FrameBytes consecutive(const FramePlan& p, uint8_t address, uint8_t seq, const uint8_t* data,
                       uint32_t n);
// Cuts a message into its frames: the first (or single) frame, then consecutive frames
// numbered from 1. data must stay valid while frames are taken.
class Segmenter {
 public:
  Segmenter(const FramePlan& p, uint8_t address, const uint8_t* data, uint32_t len)
      : plan_(p), address_(address), data_(data), len_(len) {}
  bool done() const { return started_ && at_ >= len_; }
  FrameBytes next();

 private:
  FramePlan plan_;
  uint8_t address_;
  const uint8_t* data_;
  uint32_t len_;
  uint32_t at_ = 0;
  uint8_t seq_ = 1;
  bool started_ = false;
};

// The flow control the response reader sends: continue, block size 0, STmin 0.
FrameBytes flow_control(const FramePlan& p, uint8_t address);

// STmin as a pause in ms: read as a signed byte, 0x80..0xFF (the microsecond codes
// included) count as no pause.
inline uint32_t stmin_ms(uint8_t st) { return int8_t(st) > 0 ? st : 0; }

// Clears the record and fills it: DataLen = FrameLength, at most 8 bytes copied, the rest
// of the length padded with 0x55, ExtFlag = IdFlags bit 0.
void CAN_UDS_FillCANMsg(CAN_MSG& m, uint32_t id, const CAN_UDS_ADDR& a, const uint8_t* bytes,
                        int count);
// The CAN FD record: DLC = FrameLength, at most 64 bytes, padding 0x55; bit 31 of ID for a
// 29-bit identifier; Flags = ((IdFlags << 1) & 4) + (IdFlags & 6 == 6 ? 1 : 0). IdFlags bit 1
// alone thus asks for bit rate switching without the FD format bit; existing callers set
// their flags by that rule, so it stays.
void CAN_UDS_FillCANFDMsg(CANFD_MSG& m, uint32_t id, const CAN_UDS_ADDR& a, const uint8_t* bytes,
                          int count);

}  // namespace veltrix::isotp
