// The signal codec: golden vectors worked out by hand, and random signals compared with a
// slow bit-by-bit model of the layout rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "dbc_test_util.hpp"
#include "tests/support/seed.hpp"

namespace veltrix::dbc {
namespace {

using D = DBC_Decoder;

TEST(DbcCodec, GoldenLayouts) {
  uint8_t data[kDataBytes] = {};
  // Motorola 7|16@0+ is stored with start bit 8; 0x1234 puts 0x12 in byte 0, 0x34 in byte 1.
  D::rawValueToArray(0x1234, 8, 16, data, MOTOROLA);
  EXPECT_EQ(data[0], 0x12);
  EXPECT_EQ(data[1], 0x34);
  EXPECT_EQ(D::arrayValueToRaw(8, 16, data, MOTOROLA), 0x1234u);

  uint8_t intel[kDataBytes] = {};
  D::rawValueToArray(0xABC, 4, 12, intel, INTEL);  // bits 4..15
  EXPECT_EQ(intel[0], 0xC0);
  EXPECT_EQ(intel[1], 0xAB);
  EXPECT_EQ(D::arrayValueToRaw(4, 12, intel, INTEL), 0xABCu);

  uint8_t top[kDataBytes] = {};
  D::rawValueToArray(1, 63, 1, top, INTEL);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(top[i], 0) << i;
  EXPECT_EQ(top[7], 0x80);

  // The Motorola walk stops after byte 0: a signal running off the front keeps 8 bits.
  uint8_t front[kDataBytes] = {};
  D::rawValueToArray(0xFFFF, 0, 16, front, MOTOROLA);
  EXPECT_EQ(front[0], 0xFF);
  EXPECT_EQ(front[1], 0x00);
  EXPECT_EQ(D::arrayValueToRaw(0, 16, front, MOTOROLA), 0xFFu);
}

TEST(DbcCodec, BitsOutsideTheImageAreNeitherReadNorWritten) {
  uint8_t data[kDataBytes + 8];
  std::memset(data, 0x5A, sizeof data);
  D::rawValueToArray(UINT64_MAX, 504, 64, data, INTEL);  // bits 504..567: only byte 63 fits
  EXPECT_EQ(data[63], 0xFF);
  for (int i = kDataBytes; i < kDataBytes + 8; ++i) EXPECT_EQ(data[i], 0x5A) << i;
  D::rawValueToArray(UINT64_MAX, 65000, 200, data, MOTOROLA);
  for (int i = kDataBytes; i < kDataBytes + 8; ++i) EXPECT_EQ(data[i], 0x5A) << i;
  EXPECT_EQ(D::arrayValueToRaw(65000, 64, data, INTEL), 0u);
}

TEST(DbcCodec, MaskAndBitHelpers) {
  EXPECT_EQ(D::GetDataMask(0), 0u);
  EXPECT_EQ(D::GetDataMask(-3), 0u);
  EXPECT_EQ(D::GetDataMask(12), 0xFFFu);
  EXPECT_EQ(D::GetDataMask(64), UINT64_MAX);
  EXPECT_EQ(D::GetDataMask(200), UINT64_MAX);
  uint8_t b = 0xF0;
  D::changeBitOfByte(&b, 9, 1);  // bit 9 is bit 1
  EXPECT_EQ(b, 0xF2);
  D::changeBitOfByte(&b, 7, 2);  // only the lowest bit of the value counts
  EXPECT_EQ(b, 0x72);
}

DBC_SIGNAL make(uint16_t length, bool isSigned, double factor, double offset, double min,
                double max) {
  DBC_SIGNAL s;
  s.length = length;
  s.isSigned = isSigned;
  s.factor = factor;
  s.offset = offset;
  s.minimum = min;
  s.maximum = max;
  return s;
}

TEST(DbcCodec, PhysicalValuesClampRoundAndSignExtend) {
  DBC_SIGNAL s = make(12, true, 0.5, -10, -10, 2037.5);
  EXPECT_EQ(D::setSignalRealValue(&s, 5000), 1);
  EXPECT_EQ(s.rawValue, 4095u);
  // 4095 has the top bit set, so it reads back as -1 * 0.5 - 10: an empty range gives a
  // signed signal the unsigned span, and its upper half is read as negative.
  EXPECT_EQ(D::getSignalRealValue(&s), -10.5);
  D::setSignalRealValue(&s, -50);  // clamped up to the minimum
  EXPECT_EQ(s.rawValue, 0u);
  EXPECT_EQ(D::getSignalRealValue(&s), -10.0);

  DBC_SIGNAL t = make(8, true, 1, 0, -128, 127);
  D::setSignalRealValue(&t, -2);
  EXPECT_EQ(t.rawValue, 0xFEu);
  EXPECT_EQ(D::getSignalRealValue(&t), -2.0);
  D::setSignalRealValue(&t, 2.5);  // half away from zero
  EXPECT_EQ(t.rawValue, 3u);

  DBC_SIGNAL u = make(8, false, 1, 0, 0, 1000);
  D::setSignalRealValue(&u, 300);  // unsigned raw is not masked when stored
  EXPECT_EQ(u.rawValue, 300u);
  EXPECT_EQ(D::getSignalRealValue(&u), 44.0);  // ...but masked (and stored) when read
  EXPECT_EQ(u.rawValue, 44u);
  EXPECT_EQ(D::getSignalRawValue(&u, 300), 44u);
}

TEST(DbcCodec, FloatSignalsKeepTheirBitPatterns) {
  DBC_SIGNAL f = make(32, true, 1, 0, -1e9, 1e9);
  D::setValueType(1, &f);
  D::setSignalRealValue(&f, -1.5);
  EXPECT_EQ(f.rawValue, 0xBFC00000u);
  EXPECT_EQ(D::getSignalRealValue(&f), -1.5);
  EXPECT_EQ(D::getSignalRawValue(&f, -1.5), 0xBFC00000u);

  DBC_SIGNAL d = make(64, true, 1, 0, -1e300, 1e300);
  D::setValueType(2, &d);
  D::setSignalRealValue(&d, 1e200);
  EXPECT_EQ(d.rawValue, std::bit_cast<uint64_t>(1e200));
  EXPECT_EQ(D::getSignalRealValue(&d), 1e200);

  D::setValueType(7, &d);  // unknown types fall back to integer
  EXPECT_EQ(d.valueType, uint32_t(VALUE_INTEGER));

  DBC_SIGNAL uf = make(32, false, 1, 0, 0, 100);
  D::setValueType(1, &uf);
  D::setSignalRealValue(&uf, 2.0);  // unsigned float signals are encoded as integers
  EXPECT_EQ(uf.rawValue, 2u);
}

TEST(DbcCodec, HostileNumbersDoNotMisbehave) {
  DBC_SIGNAL z = make(16, false, 0, 0, -1e308, 1e308);  // factor 0: division by zero
  D::setSignalRealValue(&z, 5);
  EXPECT_EQ(z.rawValue, UINT64_MAX);
  DBC_SIGNAL n = make(16, true, 1, 0, -INFINITY, INFINITY);
  D::setSignalRealValue(&n, std::nan(""));
  EXPECT_EQ(n.rawValue, 0u);
  DBC_SIGNAL f = make(32, true, 1, 0, -1e300, 1e300);
  D::setValueType(1, &f);
  D::setSignalRealValue(&f, 1e300);
  EXPECT_EQ(f.rawValue, 0x7F800000u);  // beyond single precision: infinity
}

// ---- Randomised comparison with the bit-by-bit model --------------------------------

// The layout rules taken literally, one bit at a time.
void reference_write(uint64_t raw, unsigned start, unsigned length, uint8_t* data,
                     ByteOrder order) {
  unsigned p = start;
  for (unsigned i = 0; i < length; ++i) {
    D::changeBitOfByte(&data[p / 8], uint8_t(p % 8), uint8_t((raw >> i) & 1));
    if (order == INTEL) {
      ++p;
    } else if (p % 8 != 7) {
      ++p;
    } else {
      if (p < 15) break;
      p -= 15;
    }
  }
}

unsigned seed_from_env() { return veltrix::test::test_seed("DBC codec property"); }

// A random signal that fits a 64-byte image, and the raw value it can hold.
struct RandomSignal {
  ByteOrder order;
  unsigned start;
  unsigned length;
};

RandomSignal random_signal(std::mt19937_64& rng) {
  RandomSignal r;
  r.order = (rng() & 1) ? INTEL : MOTOROLA;
  r.length = 1 + unsigned(rng() % 64);
  if (r.order == INTEL) {
    r.start = unsigned(rng() % (kDataBytes * 8 - r.length + 1));
  } else {
    // Motorola grows towards byte 0: the most significant bit must not run past it.
    const unsigned bit = unsigned(rng() % 8);
    const unsigned lowest_byte = (bit + r.length - 1) / 8;
    r.start = unsigned(lowest_byte + rng() % (kDataBytes - lowest_byte)) * 8 + bit;
  }
  return r;
}

TEST(DbcCodecProperty, LayoutMatchesBitByBitModelAndRoundTrips) {
  std::mt19937_64 rng(seed_from_env());
  for (int n = 0; n < 20000; ++n) {
    const RandomSignal r = random_signal(rng);
    const uint64_t raw = rng() & D::GetDataMask(int(r.length));
    uint8_t fast[kDataBytes], slow[kDataBytes];
    for (int i = 0; i < kDataBytes; ++i) fast[i] = slow[i] = uint8_t(rng());
    D::rawValueToArray(raw, uint16_t(r.start), uint8_t(r.length), fast, r.order);
    reference_write(raw, r.start, r.length, slow, r.order);
    ASSERT_EQ(0, std::memcmp(fast, slow, kDataBytes))
        << "start " << r.start << " length " << r.length << " order " << r.order;
    // The 64-bit accumulator drops top bits of a wide signal that is not byte aligned.
    if (r.start % 8 + r.length <= 64 || r.length < 57) {
      ASSERT_EQ(D::arrayValueToRaw(uint16_t(r.start), uint8_t(r.length), fast, r.order), raw)
          << "start " << r.start << " length " << r.length << " order " << r.order;
    }
  }
}

TEST(DbcCodecProperty, PhysicalValuesRoundTripThroughTheImage) {
  std::mt19937_64 rng(seed_from_env());
  for (int n = 0; n < 20000; ++n) {
    RandomSignal r = random_signal(rng);
    DBC_SIGNAL s;
    s.byteOrder = r.order;
    s.startBit = uint16_t(r.start);
    const int kind = int(rng() % 4);  // unsigned, signed, float, double
    double value;
    if (kind == 2 || kind == 3) {
      s.isSigned = 1;
      s.valueType = kind == 2 ? VALUE_FLOAT32 : VALUE_FLOAT64;
      s.length = kind == 2 ? 32 : 64;
      if (r.order == INTEL) {
        s.startBit = uint16_t(8 * (rng() % (kDataBytes - s.length / 8 + 1)));
      } else {
        s.startBit = uint16_t(8 * (s.length / 8 - 1 + rng() % (kDataBytes - s.length / 8 + 1)));
      }
      s.factor = 1;
      s.minimum = -1e30;
      s.maximum = 1e30;
      value = kind == 2 ? double(float(std::ldexp(double(int32_t(rng())), -12)))
                        : std::ldexp(double(int64_t(rng())), -20);
    } else {
      if (r.length > 52) r.length = 52;  // whole numbers stay exact in a double
      if (r.order == MOTOROLA) {         // a shorter signal may fit lower down; keep it fitting
        const unsigned bit = r.start % 8;
        r.start = std::max(r.start / 8, (bit + r.length - 1) / 8) * 8 + bit;
      }
      s.startBit = uint16_t(r.start);
      s.length = uint16_t(r.length);
      s.isSigned = kind == 1;
      s.factor = (rng() & 1) ? 1.0 : 0.25;
      s.offset = double(int(rng() % 200) - 100);
      const int64_t lo = s.isSigned ? -(int64_t(1) << (r.length - 1)) : 0;
      const int64_t hi =
          s.isSigned ? (int64_t(1) << (r.length - 1)) - 1 : int64_t(D::GetDataMask(int(r.length)));
      const int64_t rawv = lo + int64_t(rng() % uint64_t(hi - lo + 1));
      value = double(rawv) * s.factor + s.offset;
      s.minimum = double(lo) * s.factor + s.offset;
      s.maximum = double(hi) * s.factor + s.offset;
    }
    ASSERT_EQ(D::setSignalRealValue(&s, value), 1);
    uint8_t image[kDataBytes] = {};
    D::rawValueToArray(s.rawValue, s.startBit, uint8_t(s.length), image, ByteOrder(s.byteOrder));
    DBC_SIGNAL back = s;
    back.rawValue =
        D::arrayValueToRaw(s.startBit, uint8_t(s.length), image, ByteOrder(s.byteOrder));
    ASSERT_EQ(D::getSignalRealValue(&back), value)
        << "kind " << kind << " start " << s.startBit << " length " << s.length << " order "
        << s.byteOrder;
  }
}

}  // namespace
}  // namespace veltrix::dbc
