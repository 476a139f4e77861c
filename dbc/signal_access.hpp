// Signal values in and out of a message's data image, shared by the name-based and the
// index-based DBC functions.
#pragma once

#include <cstdint>

#include "dbc/decoder.hpp"
#include "veltrix/can.h"
#include "veltrix/canfd.h"
#include "veltrix/dbc.h"

namespace veltrix::dbc {

// DBC_OK, or DBC_ERR_MUX_INACTIVE for a multiplexed signal that the switch of message
// `switch_message` does not select. The switch is decoded from that message's data image,
// i.e. from the last frame received for it.
int check_multiplexer(const DBC_Decoder& db, uint32_t switch_message, const DBC_SIGNAL& signal);

// The physical value of signal si of message mi into *value, as check_multiplexer and
// DBC_Decoder::getSignalRealValue give it (including its storing back of a raw value masked
// to the length): DBC_OK, or DBC_ERR_MUX_INACTIVE with *value untouched. plan is the
// signal's plan, or nullptr to use the general codec.
inline int read_value(DBC_Decoder& db, uint32_t mi, uint32_t si, uint32_t switch_message,
                      const SignalPlan* plan, double* value) {
  DBC_SIGNAL& s = db.messages()[mi].signals[si];
  const bool always = plan && (plan->mux == MUX_NONE || plan->mux == MUX_SWITCH);
  if (!always) {
    if (int r = check_multiplexer(db, switch_message, s); r != DBC_OK) return r;
  }
  // Within the bits a frame yields nothing is masked away and the plan's conversion is the
  // general one; a larger raw value (set, not received) takes the general path.
  *value = plan && s.rawValue <= plan->mask ? plan->value(s.rawValue)
                                            : DBC_Decoder::getSignalRealValue(&s);
  return DBC_OK;
}

// Signal si's plan when message mi is planned, else nullptr.
const SignalPlan* plan_of(const DBC_Decoder& db, uint32_t mi, uint32_t si);

// Message mi's plan when all its signals are in it, else nullptr (records changed without
// rebuildIndexes() are not, and go through the general codec).
inline const MessagePlan* planned(const DBC_Decoder& db, uint32_t mi) {
  const MessagePlan* p = db.plan().message(mi);
  return p && p->count == db.messages()[mi].signals.size() ? p : nullptr;
}

// Writes message mi's current signal values into a cleared image. With a switch, a
// multiplexed signal is written only when the switch holds its multiplex value; without
// one every signal is written. Later signals overwrite earlier ones where bits overlap.
void encode_signals(const DBC_Decoder& db, uint32_t mi, PaddedImage* image);

// Where a frame decode also hands out physical values: the first `count` signals' values
// (file order), NaN for a multiplexed signal the message's stored switch does not select.
struct ValuesOut {
  double* values = nullptr;
  size_t count = 0;
};

// A received frame: finds the message of its identifier, keeps the bytes as the message's
// last received data and stores every signal's raw value. A classic frame carries 8 bytes
// (DataLen is not consulted; the rest of the image reads zeros), a CAN FD frame 64.
// Returns the message index, or DBC_Decoder::kNone when no message has the identifier
// (nothing is written then).
uint32_t take_can_frame(DBC_Decoder& db, const CAN_MSG& f, ValuesOut out = {});
uint32_t take_canfd_frame(DBC_Decoder& db, const CANFD_MSG& f, ValuesOut out = {});

// The classic frame of message mi from its current signal values: Data filled, FrameFlags
// 0, ID and ExtFlag from the message id, DataLen the file's length, at most 8.
void build_can_msg(const DBC_Decoder& db, uint32_t mi, CAN_MSG* out);

}  // namespace veltrix::dbc
