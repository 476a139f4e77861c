#include "dbc/name_cache.hpp"

#include <cstring>

#include "dbc/decoder.hpp"

namespace veltrix::dbc {

// Every remembered index came from a lookup by a C string, so its stored name holds no zero
// byte and strcmp equality is exact equality. strcmp also stops at the caller's terminator:
// a caller's string shorter than the stored name is never read beyond its end.
uint32_t NameCache::message(const DBC_Decoder& db, const char* name) {
  const auto& messages = db.messages();
  if (message_ < messages.size() && std::strcmp(messages[message_].name.c_str(), name) == 0)
    return message_;
  if (received_ < messages.size() && std::strcmp(messages[received_].name.c_str(), name) == 0)
    return message_ = received_;
  const uint32_t mi = db.findMessage(name);
  if (mi != kNone) message_ = mi;
  return mi;
}

bool NameCache::signalAt(const DBC_Decoder& db, uint32_t mi, uint32_t si, uint32_t first,
                         const char* name, NameHit* out) {
  const MessagePlan* mp = db.plan().message(mi);
  if (!mp || si >= mp->count || mp->firstByName != first) return false;
  // Only the signal that the (message name, signal name) pair finds may answer for it: a
  // later one of the same name, or one in a later message of the same name, must not.
  const SignalPlan& plan = db.plan().signals(*mp)[si];
  if (!(plan.flags & SignalPlan::kCanonical)) return false;
  const auto& signals = db.messages()[mi].signals;
  if (mp->count != signals.size() || std::strcmp(signals[si].name.c_str(), name) != 0) return false;
  *out = NameHit{mi, si, first, &plan};
  sigMessage_ = mi;
  signal_ = si;
  return true;
}

bool NameCache::signal(const DBC_Decoder& db, const char* message, const char* signal,
                       NameHit* out) {
  const uint32_t first = this->message(db, message);
  if (first == kNone) return false;
  // The next signal of the last message, the same signal again, the first of this message.
  if (sigMessage_ != kNone && (signalAt(db, sigMessage_, signal_ + 1, first, signal, out) ||
                               signalAt(db, sigMessage_, signal_, first, signal, out)))
    return true;
  if (signalAt(db, first, 0, first, signal, out)) return true;
  DBC_Decoder::SignalRef ref;
  if (!db.findSignal(db.messages()[first].name, signal, &ref)) return false;
  const MessagePlan* mp = db.plan().message(ref.message);
  const bool planned = mp && mp->count == db.messages()[ref.message].signals.size();
  *out = NameHit{ref.message, ref.signal, ref.firstByName,
                 planned ? &db.plan().signals(*mp)[ref.signal] : nullptr};
  sigMessage_ = ref.message;
  signal_ = ref.signal;
  return true;
}

}  // namespace veltrix::dbc
