// The name lookups of the exported functions, remembering what the last call resolved.
//
// Programs read a message's signals one after the other, by the same names every time, so
// the next signal is almost always the one after the last, in the message that was just
// named or whose frame was just received. Such a call is answered with one string comparison per
// name against the names stored in the database, with no hashing, no allocation and no measuring of
// the caller's strings. Nothing is keyed on the caller's pointers: a caller that rewrites the bytes
// behind a pointer it passed before gets what the new bytes name. Anything else goes to the
// hash indexes of DBC_Decoder, and the answers are those of DBC_Decoder::findMessage and
// DBC_Decoder::findSignal in every case.
//
// One cache belongs to one database and is used under the rule that a database is used by
// one thread at a time; different databases do not share it.
#pragma once

#include <cstdint>

namespace veltrix::dbc {

class DBC_Decoder;

struct SignalPlan;

struct NameHit {
  uint32_t message;        // message holding the signal
  uint32_t signal;         // index within that message
  uint32_t firstByName;    // first message of the requested name
  const SignalPlan* plan;  // the signal's plan, or nullptr when its message is not planned
};

class NameCache {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  // The first message called `name` (a C string), or kNone.
  uint32_t message(const DBC_Decoder& db, const char* name);
  // The signal `signal` as the first message called `message` that holds it has it.
  bool signal(const DBC_Decoder& db, const char* message, const char* signal, NameHit* out);
  // A frame was just taken into a message whose name hint (CodecPlan::nameHint) is given:
  // its signals are likely to be read next.
  void received(uint32_t hint) {
    if (hint != kNone) received_ = hint;
  }
  // Forgets everything; the database's records or indexes changed.
  void reset() { *this = NameCache(); }

 private:
  bool signalAt(const DBC_Decoder& db, uint32_t mi, uint32_t si, uint32_t first, const char* name,
                NameHit* out);

  uint32_t message_ = kNone;     // first message of the last message name resolved
  uint32_t received_ = kNone;    // first message of the name of the last frame's message
  uint32_t sigMessage_ = kNone;  // message holding the last signal resolved
  uint32_t signal_ = 0;          // and its index there
};

}  // namespace veltrix::dbc
