#include "dbc/codec_plan.hpp"

#include <cstring>

#include "dbc/decoder.hpp"

namespace veltrix::dbc {

namespace {

constexpr uint8_t kUnknownMux = 3;

bool plain_text(const std::string& name) { return std::strlen(name.c_str()) == name.size(); }

SignalPlan plan_of(const DBC_SIGNAL& s) {
  SignalPlan p{};
  // The codec takes the length as 8 bits; the physical conversion takes all 16.
  const uint8_t length = uint8_t(s.length);
  const unsigned k = s.startBit / 8;
  p.byte = uint8_t(k < kDataBytes ? k : 0);
  p.shift = uint8_t(s.startBit % 8);
  if (k >= unsigned(kDataBytes)) {
    p.layout = SignalPlan::kGeneral;
  } else {
    p.layout = s.byteOrder == INTEL ? SignalPlan::kIntel : SignalPlan::kMotorola;
    if (p.shift + length <= 64) p.flags |= SignalPlan::kEncodeInWindow;
  }
  p.mask = DBC_Decoder::GetDataMask(length);
  p.factor = s.factor;
  p.offset = s.offset;
  p.conversion = SignalPlan::kScale;
  if (s.isSigned) {
    if (s.valueType == VALUE_FLOAT32) {
      p.conversion = SignalPlan::kFloat32;
    } else if (s.valueType == VALUE_FLOAT64) {
      p.conversion = SignalPlan::kFloat64;
    } else if (s.valueType != VALUE_INTEGER) {
      p.conversion = SignalPlan::kZero;
    } else if (s.length > 0) {
      const unsigned top = s.length >= 64 ? 63u : unsigned(s.length) - 1u;
      p.sign = uint64_t(1) << top;
    }
  }
  p.mux = uint8_t(s.multiplexMode <= MUX_SWITCH ? s.multiplexMode : kUnknownMux);
  p.muxValue = s.multiplexValue;
  return p;
}

}  // namespace

void CodecPlan::build(const DBC_Decoder& db) {
  const auto& messages = db.messages();
  plans_.clear();
  messages_.clear();
  messages_.reserve(messages.size());
  size_t total = 0;
  for (const DBC_MESSAGE& m : messages) total += m.signals.size();
  plans_.reserve(total);
  for (uint32_t mi = 0; mi < messages.size(); ++mi) {
    const DBC_MESSAGE& m = messages[mi];
    MessagePlan mp{};
    mp.first = uint32_t(plans_.size());
    mp.count = uint32_t(m.signals.size());
    mp.muxSwitch = db.muxSwitch(mi);
    mp.firstByName = db.findMessage(m.name);
    mp.nameHint = plain_text(m.name) ? mp.firstByName : DBC_Decoder::kNone;
    mp.plain = true;
    for (uint32_t si = 0; si < m.signals.size(); ++si) {
      SignalPlan p = plan_of(m.signals[si]);
      mp.plain = mp.plain && p.layout != SignalPlan::kGeneral &&
                 p.conversion == SignalPlan::kScale && p.sign == 0 && !(p.mask >> 63) &&
                 (p.mux == MUX_NONE || p.mux == MUX_SWITCH);
      // A name with a zero byte inside can never be asked for through a C string, so only
      // names without one are offered to the lookup cache.
      DBC_Decoder::SignalRef ref;
      if (plain_text(m.name) && plain_text(m.signals[si].name) &&
          db.findSignal(m.name, m.signals[si].name, &ref) && ref.message == mi &&
          ref.signal == si) {
        p.flags |= SignalPlan::kCanonical;
      }
      plans_.push_back(p);
    }
    messages_.push_back(mp);
  }
}

uint64_t SignalPlan::readGeneral(const PaddedImage& p, const DBC_SIGNAL& s) {
  return DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), p.image(),
                                      ByteOrder(s.byteOrder));
}

void SignalPlan::writeGeneral(PaddedImage& p, const DBC_SIGNAL& s, uint64_t raw) {
  DBC_Decoder::rawValueToArray(raw, s.startBit, uint8_t(s.length), p.image(),
                               ByteOrder(s.byteOrder));
}

}  // namespace veltrix::dbc
