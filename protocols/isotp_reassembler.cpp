#include "protocols/isotp_reassembler.hpp"

#include <algorithm>
#include <cstring>

#include "device/wire.hpp"

namespace veltrix::isotp {
namespace {

constexpr uint32_t kMaxMessage = 0x7FFFFFFF;  // the longest length an int result can carry

}  // namespace

void Reassembler::put(uint64_t at, const uint8_t* src, uint64_t n) {
  if (at >= capacity_) return;
  std::memcpy(out_ + at, src, size_t(std::min<uint64_t>(n, capacity_ - at)));
}

Reassembler::Step Reassembler::feed(const uint8_t* f, int n) {
  const uint32_t x = plan_.offset, l = plan_.length;
  if (n < int(2 + x)) return Step::More;  // too short to mean anything: skipped
  const uint8_t pci = f[x];
  switch (pci >> 4) {
    case kConsecutive: {
      if ((pci & 0x0F) != expected_) return fail(CAN_UDS_ERR_SEQUENCE);
      // Without a first frame there is nothing to continue: the message is what we have.
      if (total_ <= received_) return Step::Done;
      const uint32_t take = std::min(plan_.consecutive, total_ - received_);
      put(received_, f + x + 1, take);
      received_ += take;
      expected_ = (expected_ + 1) & 0x0F;
      return received_ >= total_ ? Step::Done : Step::More;
    }
    case kFlowControl:
      return Step::More;
    case kFirst: {
      //   0001 LLLL | LLLL LLLL              12-bit length, data follows
      //   0001 0000 | 0000 0000 | 32-bit BE  escape length, data follows
      total_ = uint32_t(wire::get_be16(f + x) & 0x0FFF);
      uint32_t carry = l - 2 - x, data_at = x + 2;
      if (total_ == 0) {
        total_ = wire::get_be32(f + x + 2);
        carry = l - 6 - x;
        data_at = x + 6;
      }
      if (total_ > kMaxMessage) return fail(CAN_UDS_ERR_FRAME);
      received_ = std::min(carry, total_);
      put(0, f + data_at, received_);
      expected_ = 1;
      return Step::FlowControl;
    }
    case kSingle: {
      // 0x00 introduces the escape form (length in the next byte) used above 8 bytes.
      const bool escaped = pci == 0;
      const uint32_t length = escaped ? f[x + 1] : pci & 0x0F;
      if (length > l - 1 - x - (escaped ? 1 : 0)) return fail(CAN_UDS_ERR_FRAME);
      total_ = length;
      put(0, f + x + (escaped ? 2 : 1), length);
      return Step::Done;
    }
    default:
      return fail(CAN_UDS_ERR_FRAME);
  }
}

}  // namespace veltrix::isotp
