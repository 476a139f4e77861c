// Decode and encode plans computed once per database, so that a frame costs one 64-bit load,
// a shift and a mask per signal instead of a walk over its bits.
//
// A signal whose bits all fall within one 8-byte window is read with a single load of that
// window: Intel signals from a little-endian load starting at the byte of their start bit,
// Motorola signals from a big-endian load ending at that byte. The window may reach past
// either end of the payload image, so the plans work on a padded image whose pad bytes read
// as zero and absorb writes, exactly as positions outside the image behave in the general
// codec. Signals the window cannot hold (a start beyond the image, or bits that would
// spill past the window when written) keep using the general codec.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "dbc/model.hpp"
#include "device/wire.hpp"

namespace veltrix::dbc {

class DBC_Decoder;

// A payload image with kPad zero bytes on either side.
struct PaddedImage {
  static constexpr int kPad = 8;
  alignas(16) uint8_t bytes[kPad + kDataBytes + kPad];

  uint8_t* image() { return bytes + kPad; }
  const uint8_t* image() const { return bytes + kPad; }
  // Zeroed, then the first n bytes of the image copied from data.
  template <size_t n>
  void load(const uint8_t* data) {
    static_assert(n <= kDataBytes);
    std::memset(bytes, 0, sizeof bytes);
    std::memcpy(image(), data, n);
  }
};

// Whether a signal of multiplex mode `mode` and value `value` is present in a frame whose
// switch holds `selected` (has_switch false: the message has no switch).
inline bool mux_shown(uint32_t mode, uint32_t value, bool has_switch, uint64_t selected) {
  if (mode == MUX_NONE || mode == MUX_SWITCH) return true;
  return has_switch && mode == MUX_SELECTED && value == selected;
}

struct SignalPlan {
  enum Layout : uint8_t { kIntel, kMotorola, kGeneral };
  enum Conversion : uint8_t { kScale, kFloat32, kFloat64, kZero };
  enum Flag : uint8_t {
    kEncodeInWindow = 1,  // the write fits the 8-byte window as well
    kCanonical = 2,       // what (its message's name, its name) looks up; see NameCache
  };

  uint64_t mask;    // the bits a frame yields: the low (length mod 256) bits
  uint64_t sign;    // a signed integer's top bit; 0 when no sign extension applies
  double factor;
  double offset;
  uint8_t byte;   // byte of the start bit (Intel/Motorola layouts: below kDataBytes)
  uint8_t shift;  // start bit within that byte
  uint8_t layout;
  uint8_t conversion;
  uint8_t mux;  // multiplex mode; any unknown mode is kept as an unknown one (3)
  uint8_t flags;
  uint16_t muxValue;

  // The raw value held by a padded image, as DBC_Decoder::arrayValueToRaw reads it from
  // the image; `s` is the signal the plan was built from.
  // read() for a signal whose layout is kIntel or kMotorola.
  uint64_t readWindow(const PaddedImage& p) const {
    const uint64_t window = wire::get_le64(p.image() + byte - (layout == kMotorola ? 7 : 0));
    const uint64_t w = layout == kMotorola ? __builtin_bswap64(window) : window;
    return (w >> shift) & mask;
  }

  uint64_t read(const PaddedImage& p, const DBC_SIGNAL& s) const {
    if (layout == kGeneral) [[unlikely]]
      return readGeneral(p, s);
    // Both orders load the same 8-byte window; Motorola's is taken big-endian.
    return readWindow(p);
  }

  // Writes raw into a padded image as DBC_Decoder::rawValueToArray writes it into the
  // image: only the low length bits, later writes winning where bits overlap.
  void write(PaddedImage& p, const DBC_SIGNAL& s, uint64_t raw) const {
    if (!(flags & kEncodeInWindow)) return writeGeneral(p, s, raw);
    const uint64_t field = mask << shift;
    if (layout == kIntel) {
      uint8_t* at = p.image() + byte;
      wire::put_le64(at, (wire::get_le64(at) & ~field) | ((raw << shift) & field));
    } else {
      uint8_t* at = p.image() + byte - 7;
      wire::put_be64(at, (wire::get_be64(at) & ~field) | ((raw << shift) & field));
    }
  }

  // The physical value of a raw value that read() returned, bit for bit what
  // DBC_Decoder::getSignalRealValue gives for it.
  double value(uint64_t raw) const {
    if (conversion == kScale) [[likely]] {
      // A negative value gets every bit above its top bit set (none for a top bit of 63).
      if (raw & sign) return double(int64_t(raw | ~((sign << 1) - 1))) * factor + offset;
      return double(raw) * factor + offset;
    }
    switch (conversion) {
      case kFloat32: {
        float f;
        const uint32_t bits = uint32_t(raw);
        std::memcpy(&f, &bits, sizeof f);
        return f;
      }
      case kFloat64: {
        double d;
        std::memcpy(&d, &raw, sizeof d);
        return d;
      }
      default:
        return 0.0;
    }
  }

  // Whether a switch holding `selected` shows this signal (with `has_switch` false only
  // plain signals and switches are shown).
  bool shown(bool has_switch, uint64_t selected) const {
    if (mux == MUX_NONE) [[likely]]
      return true;
    return mux_shown(mux, muxValue, has_switch, selected);
  }

 private:
  static uint64_t readGeneral(const PaddedImage& p, const DBC_SIGNAL& s);
  static void writeGeneral(PaddedImage& p, const DBC_SIGNAL& s, uint64_t raw);
};
static_assert(sizeof(SignalPlan) == 40, "plans stay a few dozen bytes per signal");

struct MessagePlan {
  uint32_t first;        // its first signal plan
  uint32_t count;        // signals planned
  uint32_t muxSwitch;    // its first multiplexer switch, or UINT32_MAX
  uint32_t firstByName;  // the first message with the same name
  uint32_t nameHint;     // firstByName when a C string can name it (no zero byte inside)
  // Every signal is read through the window, always present (no multiplexed signals) and an
  // unsigned integer below 2^63 scaled to its value: the common message, decoded without
  // asking each signal how.
  bool plain;
};

class CodecPlan {
 public:
  void build(const DBC_Decoder& db);

  // The plan of message mi, or nullptr for a message added behind the plan's back. Callers
  // compare count with the message's signals before trusting the signal plans.
  const MessagePlan* message(uint32_t mi) const {
    return mi < messages_.size() ? &messages_[mi] : nullptr;
  }
  // The plans of a message's signals, in file order.
  const SignalPlan* signals(const MessagePlan& m) const { return plans_.data() + m.first; }

 private:
  std::vector<SignalPlan> plans_;
  std::vector<MessagePlan> messages_;
};

}  // namespace veltrix::dbc
