// Signal values in and out of a message's data image, shared by the name-based and the
// index-based DBC functions.
#include "dbc/signal_access.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

#include "veltrix/dbc.h"

namespace veltrix::dbc {

int check_multiplexer(const DBC_Decoder& db, uint32_t switch_message, const DBC_SIGNAL& signal) {
  // Plain signals and switches are always present: no need to decode the switch for them.
  if (signal.multiplexMode == MUX_NONE || signal.multiplexMode == MUX_SWITCH) return DBC_OK;
  const DBC_MESSAGE& message = db.messages()[switch_message];
  const uint32_t sw = db.muxSwitch(switch_message);
  uint64_t selected = 0;
  if (sw != DBC_Decoder::kNone) {
    const DBC_SIGNAL& s = message.signals[sw];
    selected = DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), message.data,
                                            ByteOrder(s.byteOrder));
  }
  const bool shown =
      mux_shown(signal.multiplexMode, signal.multiplexValue, sw != DBC_Decoder::kNone, selected);
  return shown ? DBC_OK : DBC_ERR_MUX_INACTIVE;
}

const SignalPlan* plan_of(const DBC_Decoder& db, uint32_t mi, uint32_t si) {
  const MessagePlan* mp = planned(db, mi);
  return mp ? &db.plan().signals(*mp)[si] : nullptr;
}

void encode_signals(const DBC_Decoder& db, uint32_t mi, PaddedImage* image) {
  const DBC_MESSAGE& m = db.messages()[mi];
  std::memset(image->bytes, 0, sizeof image->bytes);
  const MessagePlan* mp = planned(db, mi);
  const SignalPlan* p = mp ? db.plan().signals(*mp) : nullptr;
  auto put = [&](size_t i) {
    const DBC_SIGNAL& s = m.signals[i];
    if (p) {
      p[i].write(*image, s, s.rawValue);
    } else {
      DBC_Decoder::rawValueToArray(s.rawValue, s.startBit, uint8_t(s.length), image->image(),
                                   ByteOrder(s.byteOrder));
    }
  };
  const uint32_t sw = db.muxSwitch(mi);
  uint64_t selected = 0;
  if (sw != DBC_Decoder::kNone) {
    put(sw);
    selected = m.signals[sw].rawValue;
  }
  for (size_t i = 0; i < m.signals.size(); ++i) {
    const DBC_SIGNAL& s = m.signals[i];
    if (sw != DBC_Decoder::kNone && s.multiplexMode == MUX_SELECTED &&
        s.multiplexValue != selected) {
      continue;
    }
    put(i);
  }
}

namespace {

// The n bytes of a frame for message mi: kept as its data, then every signal decoded. n is
// a constant so the copies compile to a few moves.
template <size_t n>
void take(DBC_Decoder& db, uint32_t mi, const uint8_t* data, ValuesOut out) {
  DBC_MESSAGE& m = db.messages()[mi];
  PaddedImage image;
  image.load<n>(data);
  std::memcpy(m.data, data, n);
  DBC_SIGNAL* s = m.signals.data();
  const size_t count = m.signals.size();
  const size_t fill = out.values ? std::min(out.count, count) : 0;
  // The selection comes from the stored data, as the name-based readers take it.
  const uint32_t sw = db.muxSwitch(mi);
  const bool has_switch = sw != DBC_Decoder::kNone;
  uint64_t selected = 0;
  if (fill && has_switch) {
    selected = DBC_Decoder::arrayValueToRaw(s[sw].startBit, uint8_t(s[sw].length), m.data,
                                            ByteOrder(s[sw].byteOrder));
  }
  constexpr double kAbsent = std::numeric_limits<double>::quiet_NaN();
  if (const MessagePlan* mp = planned(db, mi)) {
    db.nameCache().received(mp->nameHint);
    const SignalPlan* p = db.plan().signals(*mp);
    size_t i = 0;
    if (mp->plain) {
      for (; i < fill; ++i) {
        const uint64_t raw = p[i].readWindow(image);
        s[i].rawValue = raw;
        // Below 2^63 the signed conversion gives the same double, without a test.
        out.values[i] = double(int64_t(raw)) * p[i].factor + p[i].offset;
      }
      for (; i < count; ++i) s[i].rawValue = p[i].readWindow(image);
      return;
    }
    for (; i < fill; ++i) {
      const uint64_t raw = p[i].read(image, s[i]);
      s[i].rawValue = raw;
      // raw is within the length mask, so the plan's conversion is the general one.
      out.values[i] = p[i].shown(has_switch, selected) ? p[i].value(raw) : kAbsent;
    }
    for (; i < count; ++i) s[i].rawValue = p[i].read(image, s[i]);
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    s[i].rawValue = DBC_Decoder::arrayValueToRaw(s[i].startBit, uint8_t(s[i].length), image.image(),
                                                 ByteOrder(s[i].byteOrder));
  }
  for (size_t i = 0; i < fill; ++i) {
    const bool shown = mux_shown(s[i].multiplexMode, s[i].multiplexValue, has_switch, selected);
    out.values[i] = shown ? DBC_Decoder::getSignalRealValue(&s[i]) : kAbsent;
  }
}

}  // namespace

uint32_t take_can_frame(DBC_Decoder& db, const CAN_MSG& f, ValuesOut out) {
  const uint32_t key = (f.ID & 0x7FFFFFFFu) | (uint32_t(f.ExtFlag & 1u) << 31);
  const uint32_t mi = db.findMessageById(key);
  // Bytes 8..63 of the stored data keep what they held; the decode reads zeros there.
  if (mi != DBC_Decoder::kNone) take<sizeof f.Data>(db, mi, f.Data, out);
  return mi;
}

uint32_t take_canfd_frame(DBC_Decoder& db, const CANFD_MSG& f, ValuesOut out) {
  const uint32_t mi = db.findMessageById(f.ID);  // bit 31 already marks extended ids
  if (mi != DBC_Decoder::kNone) take<kDataBytes>(db, mi, f.Data, out);
  return mi;
}

void build_can_msg(const DBC_Decoder& db, uint32_t mi, CAN_MSG* out) {
  // Encoded into a full image, so a signal placed beyond byte 7 cannot spill into the rest
  // of the record; only the first 8 bytes travel.
  PaddedImage image;
  encode_signals(db, mi, &image);
  const DBC_MESSAGE& m = db.messages()[mi];
  std::memcpy(out->Data, image.image(), sizeof out->Data);
  out->FrameFlags = 0;
  out->ID = m.id & 0x1FFFFFFFu;
  out->ExtFlag = uint8_t(m.id >> 31);
  // A file may declare more than 8 bytes (or anything up to 255); the record holds 8, and
  // applications copy DataLen bytes out of it.
  out->DataLen = uint8_t(std::min<uint32_t>(m.dlc, sizeof out->Data));
}

}  // namespace veltrix::dbc
