// Frame preparation and checking: protected identifier, checksums, the verdicts on
// received frames. Pure functions over LIN_EX_MSG; no I/O.
#pragma once

#include <cstdint>

#include "veltrix/lin.h"

namespace veltrix::lin {

// Identifier bits 0..5 with the two parity bits:
//   bit 6  P0 = ID0 ^ ID1 ^ ID2 ^ ID4
//   bit 7  P1 = !(ID1 ^ ID3 ^ ID4 ^ ID5)
uint8_t protected_id(uint8_t id);

// End-around-carry sum, complemented. `seed` is 0 for the classic checksum and the
// protected identifier for the enhanced one. len is limited to 8.
uint8_t checksum(uint8_t seed, const uint8_t* data, unsigned len);
inline uint8_t classic_checksum(const LIN_EX_MSG& m) { return checksum(0, m.Data, m.DataLen); }
inline uint8_t enhanced_checksum(const LIN_EX_MSG& m) {
  return checksum(m.PID, m.Data, m.DataLen);
}

// Sync 0x55, protected identifier, break length 10..26 (else 13), DataLen at most 8.
void prepare_header(LIN_EX_MSG& m);
// Forms the checksum the record's CheckType asks for (see LIN_EX_MasterSync).
void apply_checksum(LIN_EX_MSG& m);

// 0 when Check matches the classic checksum, 1 the enhanced one, else 4.
uint8_t checksum_verdict(const LIN_EX_MSG& m);

// Moves the checksum that arrived as the last data byte into Check. False for a record
// that carries no byte at all.
bool split_trailing_checksum(LIN_EX_MSG& m);

// Judges result record `got` against the request it answers (type 8/9 rules).
void judge_reply(LIN_EX_MSG& got, uint8_t requested_check_type);

}  // namespace veltrix::lin
