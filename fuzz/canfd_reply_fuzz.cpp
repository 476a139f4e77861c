// CAN FD read replies as a hostile adapter might send them: the element decoder must stay
// inside the reply and the output room, and every frame it yields must be a valid one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "can/fd_receive.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Room smaller than the reply can need exercises the capacity bound too.
  const size_t room = size ? data[0] % 64 : 0;
  std::vector<CANFD_MSG> out(room);
  const size_t n = veltrix::can::decode_elements({data, size}, size & 1, out);
  if (n > room || n * 12 > size) std::abort();
  for (size_t i = 0; i < n; ++i) {
    const CANFD_MSG& m = out[i];
    if (m.DLC > 64 || m.Reserved != 0 || (m.Flags & 0x58) != 0) std::abort();
    if (!(m.ID & 0x80000000u) && (m.ID & 0x3FFFF000u)) std::abort();  // standard: 12 bits
  }
  return 0;
}
