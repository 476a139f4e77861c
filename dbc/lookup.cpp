// Lookups by name and id. The indexes are built once after parsing so that a lookup costs
// one hash probe; they reproduce the linear search in file order exactly (first match
// wins).
#include "dbc/decoder.hpp"

namespace veltrix::dbc {

void DBC_Decoder::rebuildIndexes() {
  const size_t count = messages_.size();
  byName_.reset(count);
  byId_.reset(count);
  switchOf_.assign(count, kNone);
  size_t signals = 0;
  for (const DBC_MESSAGE& m : messages_) signals += m.signals.size();
  signalIndex_.reset(signals);
  signalRefs_.clear();
  signalRefs_.reserve(signals);

  for (uint32_t mi = 0; mi < count; ++mi) {
    const DBC_MESSAGE& m = messages_[mi];
    const uint64_t nameHash = NameIndex::hash_of(m.name);
    const auto sameMessage = [&](uint32_t other) { return messageNamed(other, m.name); };
    byName_.insert_first(nameHash, mi, sameMessage);
    byId_.insert_first(m.id, mi);
    const uint32_t firstByName = byName_.find(nameHash, sameMessage);
    for (uint32_t si = 0; si < m.signals.size(); ++si) {
      const DBC_SIGNAL& s = m.signals[si];
      if (switchOf_[mi] == kNone && s.multiplexMode == MUX_SWITCH) switchOf_[mi] = si;
      // Messages are visited in file order, so the first message of this name that holds
      // the signal claims the key.
      const bool first = signalIndex_.insert_first(
          NameIndex::hash_of(m.name, s.name), uint32_t(signalRefs_.size()),
          [&](uint32_t ref) { return signalNamed(ref, m.name, s.name); });
      if (first) signalRefs_.push_back(SignalRef{mi, si, firstByName});
    }
  }
  plan_.build(*this);
  nameCache_.reset();
}

bool DBC_Decoder::signalNamed(uint32_t ref, std::string_view messageName,
                              std::string_view signalName) const {
  if (ref >= signalRefs_.size()) return false;
  const SignalRef& r = signalRefs_[ref];
  if (r.message >= messages_.size()) return false;
  const DBC_MESSAGE& m = messages_[r.message];
  return r.signal < m.signals.size() && m.signals[r.signal].name == signalName &&
         m.name == messageName;
}

bool DBC_Decoder::findSignal(std::string_view messageName, std::string_view signalName,
                             SignalRef* out) const {
  const uint32_t at =
      signalIndex_.find(NameIndex::hash_of(messageName, signalName),
                        [&](uint32_t ref) { return signalNamed(ref, messageName, signalName); });
  if (at == NameIndex::kMissing) return false;
  *out = signalRefs_[at];
  return true;
}

int DBC_Decoder::getMessage(std::string_view name, DBC_MESSAGE** out) {
  const uint32_t mi = findMessage(name);
  if (mi == kNone) return 0;
  *out = &messages_[mi];
  return 1;
}

int DBC_Decoder::getMessage(std::string_view name, DBC_MESSAGE* out) const {
  const uint32_t mi = findMessage(name);
  if (mi == kNone) return 0;
  *out = messages_[mi];
  return 1;
}

int DBC_Decoder::getSignal(std::string_view messageName, std::string_view signalName,
                           DBC_SIGNAL** out) {
  SignalRef ref;
  if (!findSignal(messageName, signalName, &ref)) return 0;
  *out = &messages_[ref.message].signals[ref.signal];
  return 1;
}

int DBC_Decoder::getSignal(std::string_view messageName, std::string_view signalName,
                           DBC_SIGNAL* out) const {
  SignalRef ref;
  if (!findSignal(messageName, signalName, &ref)) return 0;
  *out = messages_[ref.message].signals[ref.signal];
  return 1;
}

int DBC_Decoder::updateMessage(std::string_view name, const DBC_MESSAGE* in) {
  const uint32_t mi = findMessage(name);
  if (mi == kNone) return 0;
  messages_[mi] = *in;
  rebuildIndexes();  // the copy may bring other names, ids or switches
  return 1;
}

int DBC_Decoder::updateSignal(std::string_view messageName, std::string_view signalName,
                              const DBC_SIGNAL* in) {
  SignalRef ref;
  if (!findSignal(messageName, signalName, &ref)) return 0;
  messages_[ref.message].signals[ref.signal] = *in;
  rebuildIndexes();
  return 1;
}

}  // namespace veltrix::dbc
