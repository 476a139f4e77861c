// The signal codec: placing a raw value into a payload image and taking it out again, and
// converting between raw and physical values.
//
// Bit positions are 8 * byte + bit, bit 0 being the least significant bit of a byte. The
// start bit of a signal is the position of its least significant bit.
#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>

#include "dbc/decoder.hpp"
#include "dbc/text.hpp"

namespace veltrix::dbc {

namespace {

// Writes the low n bits of value at bit b of *byte (b + n <= 8), keeping the other bits.
inline void put_bits(uint8_t* byte, unsigned b, unsigned n, uint64_t value) {
  const unsigned field = ((1u << n) - 1u) << b;
  *byte = uint8_t((*byte & ~field) | ((unsigned(value) << b) & field));
}

// Narrows to single precision; finite values beyond its range become infinities instead of
// undefined behaviour.
inline float float_from(double v) {
  if (v > double(FLT_MAX)) return std::isinf(v) ? float(v) : INFINITY;
  if (v < -double(FLT_MAX)) return std::isinf(v) ? float(v) : -INFINITY;
  return float(v);
}

// round(x) as an integer when |x| < 2^52, without a library call: x - trunc(x) is exact in
// that range, so comparing it with one half rounds halfway cases away from zero exactly as
// round() does. Larger magnitudes, infinities and NaN return false.
inline bool round_small(double x, int64_t* out) {
  if (!(std::fabs(x) < 4503599627370496.0)) return false;
  int64_t t = int64_t(x);
  const double frac = x - double(t);
  if (frac >= 0.5) {
    ++t;
  } else if (frac <= -0.5) {
    --t;
  }
  *out = t;
  return true;
}

inline uint64_t bits_from(uint64_t raw, unsigned i) { return i < 64 ? raw >> i : 0; }

inline uint8_t byte_at(const uint8_t* data, long k) {
  return (k >= 0 && k < kDataBytes) ? data[k] : 0;
}

}  // namespace

uint64_t DBC_Decoder::GetDataMask(int bits) {
  if (bits < 1) return 0;
  if (bits >= 64) return UINT64_MAX;
  return (uint64_t(1) << bits) - 1;
}

void DBC_Decoder::changeBitOfByte(uint8_t* byte, uint8_t bit, uint8_t value) {
  const unsigned b = bit % 8;
  *byte = uint8_t((*byte & ~(1u << b)) | ((value & 1u) << b));
}

// Intel: bit i of raw goes to position start + i, ascending across bytes.
//
//   byte k+1          byte k
//   7 . . . . . . 0   7 . . . b . . 0
//   [ raw bits n.. ]  [raw 0..]        <- start = 8k + b
//
// Motorola: bits rise inside a byte and continue at bit 0 of the previous byte; the walk
// stops after byte 0.
//
//   byte k-1          byte k
//   7 . . . . . . 0   7 . . . b . . 0
//   [raw n+8..] [..]  [raw 0..]        and so on towards byte 0
//
// Both walk whole byte pieces at a time; the result is the same as setting one bit after
// the other with changeBitOfByte.
void DBC_Decoder::rawValueToArray(uint64_t raw, uint16_t startBit, uint8_t length, uint8_t* data,
                                  ByteOrder order) {
  long k = startBit / 8;
  unsigned b = startBit % 8;
  unsigned i = 0;
  while (i < length) {
    const unsigned n = std::min(8u - b, unsigned(length) - i);
    if (k < kDataBytes) put_bits(&data[k], b, n, bits_from(raw, i));
    i += n;
    b = 0;
    if (order == INTEL) {
      if (++k >= kDataBytes) break;  // nothing further lies inside the image
    } else {
      if (k == 0) break;
      --k;
    }
  }
}

// The byte holding the start bit is the bottom of a 64-bit accumulator; following bytes
// (Intel: k+1, k+2, ...; Motorola: k-1, k-2, ...) stack 8 bits higher each. A 64-bit
// signal that does not start on a byte boundary therefore loses its top bits.
uint64_t DBC_Decoder::arrayValueToRaw(uint16_t startBit, uint8_t length, const uint8_t* data,
                                      ByteOrder order) {
  const long k = startBit / 8;
  const unsigned b = startBit % 8;
  uint64_t acc = byte_at(data, k);
  if (8u - b < length) {
    unsigned shift = 8;
    unsigned gathered = 0;
    if (order == INTEL) {
      for (long idx = k + 1; gathered < length && idx < kDataBytes && shift < 64; ++idx) {
        acc |= uint64_t(data[idx]) << shift;
        shift += 8;
        gathered += 8;
      }
    } else {
      for (long idx = k - 1; gathered < length && idx >= 0 && shift < 64; --idx) {
        acc |= uint64_t(byte_at(data, idx)) << shift;
        shift += 8;
        gathered += 8;
      }
    }
  }
  return (acc >> b) & GetDataMask(length);
}

int DBC_Decoder::setSignalRealValue(DBC_SIGNAL* signal, double value) {
  if (value > signal->maximum) value = signal->maximum;
  if (value < signal->minimum) value = signal->minimum;
  const double scaled = (value - signal->offset) / signal->factor;
  int64_t small;
  if (!signal->isSigned) {
    // The value type is not consulted here: an unsigned float signal is encoded as an
    // integer.
    signal->rawValue =
        round_small(scaled, &small) ? uint64_t(small) : saturate_to_u64(std::round(scaled));
  } else if (signal->valueType == VALUE_INTEGER) {
    const int64_t rounded =
        round_small(scaled, &small) ? small : saturate_to_i64(std::round(scaled));
    signal->rawValue = uint64_t(rounded) & GetDataMask(signal->length);
  } else if (signal->valueType == VALUE_FLOAT32) {
    signal->rawValue = std::bit_cast<uint32_t>(float_from(value));
  } else if (signal->valueType == VALUE_FLOAT64) {
    signal->rawValue = std::bit_cast<uint64_t>(value);
  }
  return 1;
}

double DBC_Decoder::getSignalRealValue(DBC_SIGNAL* signal) {
  const uint64_t mask = GetDataMask(signal->length);
  if (signal->rawValue > mask) signal->rawValue &= mask;
  const uint64_t raw = signal->rawValue;
  if (signal->isSigned) {
    if (signal->valueType == VALUE_FLOAT32) return std::bit_cast<float>(uint32_t(raw));
    if (signal->valueType == VALUE_FLOAT64) return std::bit_cast<double>(raw);
    if (signal->valueType != VALUE_INTEGER) return 0.0;
    const unsigned top = signal->length >= 64 ? 63u : unsigned(signal->length) - 1u;
    if (signal->length > 0 && ((raw >> top) & 1u)) {
      return double(int64_t(raw | ~mask)) * signal->factor + signal->offset;
    }
  }
  return double(raw) * signal->factor + signal->offset;
}

uint64_t DBC_Decoder::getSignalRawValue(const DBC_SIGNAL* signal, double value) {
  const uint64_t mask = GetDataMask(signal->length);
  if (signal->isSigned) {
    if (signal->valueType == VALUE_FLOAT32) {
      return uint64_t(std::bit_cast<uint32_t>(float_from(value))) & mask;
    }
    if (signal->valueType == VALUE_FLOAT64) return std::bit_cast<uint64_t>(value) & mask;
    if (signal->valueType != VALUE_INTEGER) return 0;
  }
  const double scaled = std::round((value - signal->offset) / signal->factor);
  if (!signal->isSigned) return saturate_to_u64(scaled) & mask;
  return uint64_t(saturate_to_i64(scaled)) & mask;
}

void DBC_Decoder::setValueType(unsigned int type, DBC_SIGNAL* signal) {
  signal->valueType = (type == VALUE_FLOAT32 || type == VALUE_FLOAT64) ? type : VALUE_INTEGER;
}

}  // namespace veltrix::dbc
