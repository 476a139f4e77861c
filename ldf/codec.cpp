#include "ldf/codec.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "device/wire.hpp"
#include "ldf/load.hpp"
#include "ldf/text.hpp"

namespace veltrix::ldf {
namespace {

size_t data_bytes(const LDF_LIN_FRAME& f) { return size_t(std::clamp(f.Size, 0, 8)); }

// Value of an array signal: its first Size/8 bytes, least significant first; an array
// signal narrower than a byte contributes zeros.
uint64_t array_value(const LDF_LIN_SIGNAL& s) {
  uint8_t bytes[8] = {};
  if (s.Size >= 8) std::copy_n(s.ArrayValue, std::min(s.Size / 8, 8), bytes);
  return wire::get_le64(bytes);
}

const LDF_PHYSICAL_VALUE* range_holding(const LDF_SIGNAL_CODING& c, int64_t raw) {
  for (int i = 0; i < c.PhysicalNum; ++i)
    if (c.PhysicalValues[i].Min <= raw && raw <= c.PhysicalValues[i].Max)
      return &c.PhysicalValues[i];
  return nullptr;
}

const LDF_LOGICAL_VALUE* logical_equal(const LDF_SIGNAL_CODING& c, int64_t raw) {
  for (int i = 0; i < c.LogicalNum; ++i)
    if (c.LogicalValues[i].Value == raw) return &c.LogicalValues[i];
  return nullptr;
}

}  // namespace

uint64_t pack_word(const LDF_LIN_FRAME& frame, bool fill) {
  uint64_t word = fill ? ~uint64_t(0) : 0;
  for (int i = 0; i < frame.SignalNum; ++i) {
    const LDF_LIN_SIGNAL& s = frame.Signals[i];
    if (s.StartBit < 0 || s.StartBit > 63) continue;  // outside the frame
    uint64_t value = s.IsArray ? array_value(s) : uint64_t(s.Value);
    if (s.Size >= 64) {
      // Shifted in unmasked: replaces everything from StartBit up.
      word = (word & GetDataMask(s.StartBit)) | value << s.StartBit;
    } else {
      uint64_t mask = GetDataMask(s.Size);
      word = (word & ~(mask << s.StartBit)) | (value & mask) << s.StartBit;
    }
  }
  return word;
}

int pack(const LDF_LIN_FRAME& frame, bool fill, uint8_t* data) {
  if (!device_registered()) return -3;
  uint8_t bytes[8];
  wire::put_le64(bytes, pack_word(frame, fill));
  size_t n = data_bytes(frame);
  std::copy_n(bytes, n, data);
  return int(n);
}

int unpack(LDF_LIN_FRAME& frame, const uint8_t* data) {
  if (!device_registered()) return -3;
  uint8_t bytes[8] = {};
  size_t n = data_bytes(frame);
  std::copy_n(data, n, bytes);
  uint64_t word = wire::get_le64(bytes);
  for (int i = 0; i < frame.SignalNum; ++i) {
    LDF_LIN_SIGNAL& s = frame.Signals[i];
    if (s.StartBit < 0 || s.StartBit > 63) continue;
    uint64_t value = (word >> s.StartBit) & GetDataMask(s.Size);
    if (s.IsArray && s.Size >= 8) {
      uint8_t v[8];
      wire::put_le64(v, value);
      std::copy_n(v, std::min(s.Size / 8, 8), s.ArrayValue);
    } else {
      s.Value = int64_t(value);
    }
  }
  return int(n);
}

double raw_to_physical(const LDF_LIN_SIGNAL& s) {
  const LDF_SIGNAL_CODING& c = s.SignalCoding;
  if (logical_equal(c, s.Value)) return double(s.Value);
  if (const LDF_PHYSICAL_VALUE* r = range_holding(c, s.Value))
    return double(s.Value) * r->Scale + r->Offset;
  return double(s.Value);
}

void physical_to_raw(LDF_LIN_SIGNAL& s, double value) {
  s.Value = sat_i64(value);
  const LDF_SIGNAL_CODING& c = s.SignalCoding;
  for (int i = 0; i < c.LogicalNum; ++i)
    if (double(c.LogicalValues[i].Value) == value) return;
  if (c.PhysicalNum <= 0) return;
  LDF_PHYSICAL_VALUE& first = c.PhysicalValues[0];
  if (first.Min == 0 && first.Max == 0) {
    // A range declared without bounds covers every raw value of the signal. The range
    // itself is updated, so every signal sharing this encoding sees the new bounds.
    first.Min = sat_i64(s.Min);
    first.Max = sat_i64(s.Max);
  }
  for (int i = 0; i < c.PhysicalNum; ++i) {
    const LDF_PHYSICAL_VALUE& r = c.PhysicalValues[i];
    double rounded = std::round((value - r.Offset) / r.Scale);  // halves away from zero
    if (!std::isfinite(rounded)) continue;                      // scale 0
    int64_t raw = sat_i64(rounded);
    if (r.Min <= raw && raw <= r.Max) {
      s.Value = raw;
      return;
    }
  }
}

std::string value_text(const LDF_LIN_SIGNAL& s) {
  const LDF_SIGNAL_CODING& c = s.SignalCoding;
  if (const LDF_LOGICAL_VALUE* l = logical_equal(c, s.Value)) return l->Text;
  if (const LDF_PHYSICAL_VALUE* r = range_holding(c, s.Value)) {
    double physical = double(s.Value) * r->Scale + r->Offset;
    int n = std::snprintf(nullptr, 0, "%f %s", physical, r->Unit);
    std::string out(size_t(std::max(n, 0)), '\0');
    std::snprintf(out.data(), out.size() + 1, "%f %s", physical, r->Unit);
    return out;
  }
  char buf[24];
  std::snprintf(buf, sizeof buf, "%lld", s.Value);
  return buf;
}

}  // namespace veltrix::ldf
