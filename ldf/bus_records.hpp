// Host-side half of putting an LDF handle's frames on the bus: which node publishes a
// frame, which checksum it uses, and the LIN_EX_MSG records that carry it. The exchanges
// themselves (LIN_EX_MasterSync, LIN_EX_SlaveSetIDMode, LIN_EX_MasterStartSch, ...) live
// in ldf/bus.cpp, on top of the LIN channel family; nothing here talks to an adapter.
#pragma once

#include <cstdint>
#include <vector>

#include "veltrix/ldf.h"
#include "veltrix/lin.h"

namespace veltrix::ldf {

// Break field length used for every frame this family sends.
inline constexpr uint8_t kBreakBits = 13;

// Enhanced (1) for LIN 2.x files and identifiers below 0x3C; classic (0) for 1.x files and
// the diagnostic identifiers 0x3C..0x3F.
uint8_t checksum_type(const LDF_CODING& c, int id);

// Identifier bits 0..5 with parity P0 (bit 6) = ID0^ID1^ID2^ID4 and
// P1 (bit 7) = !(ID1^ID3^ID4^ID5).
uint8_t protected_id(int id);

// The frame's publisher is the master node (frames without a publisher are not).
bool master_publishes(const LDF_CODING& c, const LDF_LIN_FRAME& f);

// Master write (MsgType 1): packed data (fill: uncovered bits ones), DataLen = frame size,
// checksum by rule, computed PID, Timestamp 0, Sync 0x55, BreakBits 13.
// Master read (MsgType 2): no data, DataLen 0, otherwise the same.
// Slave table entry (MsgType 3): like a write, but PID is the bare identifier (the LIN
// family adds the parity when it loads the table).
// Returns 0 or the packing error -3.
int frame_record(const LDF_CODING& c, const LDF_LIN_FRAME& f, uint8_t msg_type, bool fill,
                 LIN_EX_MSG& out);

// Unpacks a received record into a frame: its first DataLen (at most 8) data bytes, the
// rest zero, read as the frame's data. Returns the frame size or -3.
int take_response(LDF_LIN_FRAME& f, const LIN_EX_MSG& m);

// What a slave channel captured: a record with data goes into every frame whose
// identifier matches the record's PID in the low 6 bits. Returns the number of frames
// updated, or -3.
int take_capture(LDF_CODING& c, const LIN_EX_MSG& m);

// The master-mode list that loads schedule sch into the adapter: per entry whose frame
// is known by name, a read (slave-published) or a packed write (master-published), with
// Timestamp = the entry's delay in whole ms. Entries of unknown frames are skipped.
// Returns the number of records, or the packing error -3.
int schedule_records(const LDF_CODING& c, const LDF_LIN_SCH& sch, bool fill,
                     std::vector<LIN_EX_MSG>& out);

// A delay in ms as a whole number of ms for a record's Timestamp (negative gives 0).
uint32_t whole_ms(float delay);

}  // namespace veltrix::ldf
