// Signal value conversion and frame packing: golden vectors by hand, and a randomised
// comparison of the packer against a slow bit-by-bit reference.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ldf_fixture.hpp"
#include "tests/support/seed.hpp"

using namespace ldftest;

namespace {

const char* kCodecFile = R"(
LIN_protocol_version = "2.1";
Nodes { Master: M, 5 ms, 0 ms; Slaves: S; }
Signals {
  Temp: 8, 0, M, S;
  Mode: 8, 0, M, S;
  Nib: 4, 5, M, S;
  Open: 8, 0, M, S;
  Plain: 16, 0, M, S;
}
Frames {
  F: 0x10, M, 4 { Temp, 0; Mode, 8; Plain, 16; }
  Small: 0x11, M, 2 { Nib, 0; }
  O: 0x12, M, 1 { Open, 0; }
  O2: 0x13, M, 1 { Open, 0; }
  Empty: 0x14, M, 3 { }
}
Signal_encoding_types {
  TempEnc { physical_value, 0, 254, 0.5, -10, "degC"; logical_value, 255, "invalid"; }
  ModeEnc { physical_value, 0, 10, 1, 1, "x"; logical_value, 3, "on"; }
  OpenEnc { physical_value, 0, 0, 2, 0, "u"; }
}
Signal_representation { TempEnc: Temp; ModeEnc: Mode; OpenEnc: Open; }
)";

class LdfCodec : public ::testing::Test {
 protected:
  LdfCodec() : h(write_temp(kCodecFile)) {}
  double get(const char* frame, const char* signal) {
    double v = -1;
    EXPECT_EQ(LDF_GetSignalValue(h.h, frame, signal, &v), 0);
    return v;
  }
  std::string text(const char* frame, const char* signal) {
    char buf[512] = {};
    EXPECT_EQ(LDF_GetSignalValueStr(h.h, frame, signal, buf), 0);
    return buf;
  }
  long long raw(const char* frame, const char* signal) {
    const LDF_LIN_FRAME* f = ldftest::frame(h.h, frame);
    for (int i = 0; i < f->SignalNum; ++i)
      if (std::string(signal) == f->Signals[i].Name) return f->Signals[i].Value;
    ADD_FAILURE() << signal;
    return 0;
  }
  Handle h;
};

}  // namespace

TEST_F(LdfCodec, PhysicalRangeRoundsHalfAwayFromZero) {
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Temp", 12.3), 0);
  EXPECT_EQ(raw("F", "Temp"), 45);  // (12.3 + 10) / 0.5 = 44.6
  EXPECT_EQ(get("F", "Temp"), 12.5);
  EXPECT_EQ(text("F", "Temp"), "12.500000 degC");
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Temp", -9.75), 0);
  EXPECT_EQ(raw("F", "Temp"), 1);  // 0.5 rounds up to 1
  // Outside every range and no logical value: the value is stored truncated.
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Temp", 200.7), 0);
  EXPECT_EQ(raw("F", "Temp"), 200);
  EXPECT_EQ(get("F", "Temp"), 90.0);  // 200 lies in 0..254: 200 * 0.5 - 10
}

TEST_F(LdfCodec, LogicalValueWinsOverPhysicalRange) {
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Mode", 3.0), 0);
  EXPECT_EQ(raw("F", "Mode"), 3);
  EXPECT_EQ(text("F", "Mode"), "on");
  EXPECT_EQ(get("F", "Mode"), 3.0);  // not 3 * 1 + 1: the logical value matches first
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Temp", 255.0), 0);
  EXPECT_EQ(text("F", "Temp"), "invalid");
}

TEST_F(LdfCodec, RawTextWithoutEncodingAndOutsideRanges) {
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Plain", 1234.9), 0);
  EXPECT_EQ(text("F", "Plain"), "1234");
  EXPECT_EQ(get("F", "Plain"), 1234.0);
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Mode", -7.9), 0);
  EXPECT_EQ(raw("F", "Mode"), -7);
  EXPECT_EQ(text("F", "Mode"), "-7");
}

TEST_F(LdfCodec, UnboundedRangeTakesSignalBoundsAndIsShared) {
  // OpenEnc's range 0..0 becomes 0..255 (8 bits) on first use, in the range itself.
  ASSERT_EQ(LDF_SetSignalValue(h.h, "O", "Open", 100.0), 0);
  EXPECT_EQ(raw("O", "Open"), 50);
  const LDF_PHYSICAL_VALUE& r =
      ldftest::frame(h.h, "O2")->Signals[0].SignalCoding.PhysicalValues[0];
  EXPECT_EQ(r.Min, 0);
  EXPECT_EQ(r.Max, 255);
  EXPECT_EQ(text("O", "Open"), "100.000000 u");
}

TEST_F(LdfCodec, SetValueRefusesNaNAndSaturatesInfinity) {
  EXPECT_EQ(LDF_SetSignalValue(h.h, "F", "Plain", std::nan("")), -7);
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Plain", INFINITY), 0);
  EXPECT_EQ(raw("F", "Plain"), INT64_MAX);
  ASSERT_EQ(LDF_SetSignalValue(h.h, "F", "Temp", -INFINITY), 0);
  EXPECT_EQ(raw("F", "Temp"), INT64_MIN);
}

TEST_F(LdfCodec, FrameRawValueGoldenVectors) {
  unsigned char data[8];
  std::memset(data, 0xAA, sizeof data);
  ASSERT_EQ(LDF_GetFrameRawValue(h.h, "Small", data), 0);
  EXPECT_EQ(data[0], 0xF5);
  EXPECT_EQ(data[1], 0xFF);
  EXPECT_EQ(data[2], 0xAA);  // only Size bytes are written
  ASSERT_EQ(LDF_GetFrameRawValue(h.h, "Empty", data), 0);
  EXPECT_EQ(data[0], 0xFF);
  EXPECT_EQ(data[2], 0xFF);
  EXPECT_EQ(data[3], 0xAA);
  const unsigned char in[4] = {0x2D, 0x03, 0x34, 0x12};
  ASSERT_EQ(LDF_SetFrameRawValue(h.h, "F", in), 0);
  EXPECT_EQ(raw("F", "Temp"), 0x2D);
  EXPECT_EQ(raw("F", "Mode"), 3);
  EXPECT_EQ(raw("F", "Plain"), 0x1234);
  EXPECT_EQ(get("F", "Temp"), 12.5);
  unsigned char out[4] = {};
  ASSERT_EQ(LDF_GetFrameRawValue(h.h, "F", out), 0);
  EXPECT_EQ(0, std::memcmp(in, out, 4));
  const LDF_LIN_FRAME* small = ldftest::frame(h.h, "Small");
  unsigned char zeros[2] = {0xAA, 0xAA};
  EXPECT_EQ(LDF_DataFrameToRaw(small, 0, zeros), 2);
  EXPECT_EQ(zeros[0], 0x05);
  EXPECT_EQ(zeros[1], 0x00);
}

TEST_F(LdfCodec, PackingRefusedAfterALoadForAnUnknownDevice) {
  unsigned char data[8];
  ASSERT_EQ(LDF_GetFrameRawValue(h.h, "Small", data), 0);
  EXPECT_EQ(veltrix::ldf::parse_handle(kUnknownDevice, 0, 1, fixture("seat_heater.ldf").c_str()), nullptr);
  EXPECT_EQ(LDF_GetFrameRawValue(h.h, "Small", data), -3);
  EXPECT_EQ(LDF_SetFrameRawValue(h.h, "Small", data), -3);
  EXPECT_EQ(LDF_DataFrameToRaw(ldftest::frame(h.h, "Small"), 1, data), -3);
  Handle again(write_temp(kCodecFile));  // a load for a registered device lifts it
  EXPECT_EQ(LDF_GetFrameRawValue(h.h, "Small", data), 0);
}

// ---- Randomised comparison against a bit-by-bit reference ---------------------------

namespace {

uint64_t signal_bits(const LDF_LIN_SIGNAL& s) {
  if (!s.IsArray) return uint64_t(s.Value);
  uint64_t v = 0;
  if (s.Size >= 8)
    for (int i = 0; i < std::min(s.Size / 8, 8); ++i) v |= uint64_t(s.ArrayValue[i]) << (8 * i);
  return v;
}

std::vector<unsigned char> reference_pack(const LDF_LIN_FRAME& f, bool fill) {
  bool bits[64];
  for (bool& b : bits) b = fill;
  for (int i = 0; i < f.SignalNum; ++i) {
    const LDF_LIN_SIGNAL& s = f.Signals[i];
    uint64_t v = signal_bits(s);
    for (int b = 0; b < s.Size && s.StartBit + b < 64 && b < 64; ++b)
      bits[s.StartBit + b] = (v >> b) & 1;
  }
  std::vector<unsigned char> out(size_t(f.Size), 0);
  for (int i = 0; i < f.Size * 8; ++i)
    if (bits[i]) out[size_t(i / 8)] |= uint8_t(1u << (i % 8));
  return out;
}

// One received signal read bit by bit from the data bytes.
uint64_t reference_extract(const unsigned char* data, int size_bytes, int start, int bits) {
  uint64_t v = 0;
  for (int b = 0; b < bits && b < 64 && start + b < 64; ++b) {
    int pos = start + b;
    bool bit = pos < size_bytes * 8 && (data[pos / 8] >> (pos % 8)) & 1;
    v |= uint64_t(bit) << b;
  }
  return v;
}

}  // namespace

TEST_F(LdfCodec, PackAndUnpackMatchBitByBitReference) {
  const unsigned seed = veltrix::test::test_seed("LDF codec reference comparison");
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  for (int round = 0; round < 2000; ++round) {
    LDF_LIN_SIGNAL sigs[4] = {};
    LDF_LIN_FRAME f{};
    f.Size = int(rng() % 9);
    f.SignalNum = int(rng() % 5);
    f.Signals = sigs;
    for (int i = 0; i < f.SignalNum; ++i) {
      sigs[i].Size = int(rng() % 70);
      sigs[i].StartBit = int(rng() % 64);
      sigs[i].IsArray = rng() % 4 == 0;
      sigs[i].Value = int64_t(rng());
      uint64_t bytes = rng();
      std::memcpy(sigs[i].ArrayValue, &bytes, 8);
    }
    bool fill = rng() & 1;
    unsigned char data[8] = {};
    ASSERT_EQ(LDF_DataFrameToRaw(&f, fill, data), f.Size);
    std::vector<unsigned char> want = reference_pack(f, fill);
    ASSERT_EQ(std::vector<unsigned char>(data, data + f.Size), want) << "round " << round;

    unsigned char in[8];
    uint64_t r = rng();
    std::memcpy(in, &r, 8);
    ASSERT_EQ(LDF_DataRawToFrame(&f, in), f.Size);
    for (int i = 0; i < f.SignalNum; ++i) {
      const LDF_LIN_SIGNAL& s = sigs[i];
      uint64_t v = reference_extract(in, f.Size, s.StartBit, s.Size);
      if (s.IsArray && s.Size >= 8) {
        for (int b = 0; b < std::min(s.Size / 8, 8); ++b)
          ASSERT_EQ(s.ArrayValue[b], uint8_t(v >> (8 * b))) << "round " << round;
      } else {
        ASSERT_EQ(uint64_t(s.Value), v) << "round " << round << " signal " << i;
      }
    }
  }
}
