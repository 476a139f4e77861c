// Hostile frames into the ISO-TP reassembler: the input's first byte picks the frame length
// and addressing, the rest is cut into frames. The output buffer is small and exactly
// sized, so any write past its end is reported by the address sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "protocols/isotp_reassembler.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  using namespace veltrix::isotp;
  const uint8_t length = normalise_length(uint8_t(8 + data[0] % 57));
  const FramePlan p = plan(length, data[0] & 0x80);
  std::vector<uint8_t> out(data[1]);
  Reassembler r(p, out.data(), out.size());
  for (size_t at = 2; at < size; at += length) {
    uint8_t f[kMaxLength] = {};
    const size_t n = size - at < length ? size - at : length;
    std::memcpy(f, data + at, n);
    const Reassembler::Step s = r.feed(f, int(n));
    if (s == Reassembler::Step::Done || s == Reassembler::Step::Error) break;
  }
  return 0;
}
