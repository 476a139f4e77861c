// The adapter's CAN FD frame element: a 12-byte header followed by the data bytes, packed
// back to back inside the send (0x4002) and read (0x4003) commands and, without data, in
// the transmit-event reply (0x4009). Multi-byte fields are little-endian.
//
//   byte 0-3  identifier word W
//             standard: W[10:0] = id[10:0], W[29] = id[11]
//             extended: W[10:0] = id[28:18], W[28:11] = id[17:0]
//   byte 4    7 BRS | 6 FDF | 5 RTR | 4 IDE | 3..0 coded DLC
//   byte 5    7..1 index of the frame in its batch (sending only) | 0 ESI
//   byte 6    frame time bits 39..32
//   byte 7    bit 0: echo of a frame this adapter sent
//   byte 8-11 frame time bits 31..0 (10 us units)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "device/wire.hpp"
#include "veltrix/canfd.h"

namespace veltrix::can {

inline constexpr size_t kElementHeader = 12;
inline constexpr size_t kElementMax = kElementHeader + 64;

inline constexpr uint8_t kB4Dlc = 0x0F;
inline constexpr uint8_t kB4Ide = 0x10;
inline constexpr uint8_t kB4Rtr = 0x20;
inline constexpr uint8_t kB4Fdf = 0x40;
inline constexpr uint8_t kB4Brs = 0x80;
inline constexpr uint8_t kB5Esi = 0x01;
inline constexpr uint8_t kB7Echo = 0x01;
inline constexpr uint32_t kWStdBit11 = 0x20000000u;

inline uint8_t dlc_to_bytes(unsigned code) {
  static constexpr uint8_t kLong[7] = {12, 16, 20, 24, 32, 48, 64};
  if (code <= 8) return uint8_t(code);
  return code <= 15 ? kLong[code - 9] : 0;
}

inline uint8_t bytes_to_dlc(unsigned n) {
  if (n < 9) return uint8_t(n);
  if (n < 13) return 9;
  if (n < 17) return 10;
  if (n < 21) return 11;
  if (n < 25) return 12;
  if (n < 33) return 13;
  if (n < 49) return 14;
  return 15;
}

inline uint32_t encode_id_word(uint32_t id) {
  if (id & CANFD_MSG_FLAG_IDE) return ((id & 0x3FFFFu) << 11) | ((id >> 18) & 0x7FFu);
  // An 11-bit identifier with bit 11 set (0x800..0xFFF) keeps that bit in W bit 29.
  return (id & 0x7FFu) | ((id << 18) & kWStdBit11);
}

inline uint32_t decode_id_word(uint32_t w, uint8_t b4) {
  uint32_t id;
  if (b4 & kB4Ide)
    id = ((w & 0x7FFu) << 18) | ((w >> 11) & 0x3FFFFu) | CANFD_MSG_FLAG_IDE;
  else
    id = (w & 0x7FFu) | ((w & kWStdBit11) ? 0x800u : 0u);
  if (b4 & kB4Rtr) id |= CANFD_MSG_FLAG_RTR;
  return id;
}

// Writes the element of m into out (room for kElementMax bytes); returns its size. The
// data length is the CAN FD length that holds m.DLC bytes; bytes beyond 64 do not exist,
// so a DLC above 64 sends 64. batch_index goes into byte 5 on transmission. A frame to
// send carries no time (the adapter stamps it on the bus); a schedule frame carries its
// timing value in the time fields (with_time).
inline size_t encode_element(const CANFD_MSG& m, uint8_t batch_index, bool with_time,
                             uint8_t* out) {
  const uint8_t code = bytes_to_dlc(m.DLC);
  const uint8_t len = dlc_to_bytes(code);
  uint8_t b4 = code;
  if (m.ID & CANFD_MSG_FLAG_IDE) b4 |= kB4Ide;
  if (m.ID & CANFD_MSG_FLAG_RTR) b4 |= kB4Rtr;
  if (m.Flags & CANFD_MSG_FLAG_FDF) b4 |= kB4Fdf;
  if (m.Flags & CANFD_MSG_FLAG_BRS) b4 |= kB4Brs;
  wire::put_le32(out, encode_id_word(m.ID));
  out[4] = b4;
  out[5] = uint8_t(((m.Flags & CANFD_MSG_FLAG_ESI) ? kB5Esi : 0) | uint8_t(batch_index << 1));
  out[6] = with_time ? m.TimeStampHigh : 0;
  out[7] = 0;
  wire::put_le32(out + 8, with_time ? m.TimeStamp : 0);
  std::memcpy(out + kElementHeader, m.Data, len);
  return kElementHeader + len;
}

// The flag bits a received element or transmit event carries in CANFD_MSG.Flags.
inline uint8_t element_flags(const uint8_t* h) {
  uint8_t f = 0;
  if (h[4] & kB4Fdf) f |= CANFD_MSG_FLAG_FDF;
  if (h[5] & kB5Esi) f |= CANFD_MSG_FLAG_ESI;
  if (h[4] & kB4Brs) f |= CANFD_MSG_FLAG_BRS;
  return f;
}

// Decodes the element at the start of in into m. Returns the bytes it takes, or 0 when
// in is too short to hold it (a truncated element is not a frame).
inline size_t decode_element(std::span<const uint8_t> in, unsigned port, CANFD_MSG& m) {
  if (in.size() < kElementHeader) return 0;
  const uint8_t* h = in.data();
  const uint8_t len = dlc_to_bytes(h[4] & kB4Dlc);
  if (in.size() - kElementHeader < len) return 0;
  std::memset(&m, 0, sizeof m);
  m.ID = decode_id_word(wire::get_le32(h), h[4]);
  m.Flags = uint8_t(element_flags(h) | ((port << 5) & CANFD_MSG_FLAG_PORT) |
                    ((h[7] & kB7Echo) ? CANFD_MSG_FLAG_TX_ECHO : 0));
  m.DLC = len;
  m.TimeStampHigh = h[6];
  m.TimeStamp = wire::get_le32(h + 8);
  std::memcpy(m.Data, h + kElementHeader, len);
  return kElementHeader + len;
}

}  // namespace veltrix::can
