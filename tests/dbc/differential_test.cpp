// Random frames through every way of reading a database: the name-based calls, the
// index-based calls and the one-call decode give the values of the general bit codec, bit
// for bit, with the same result codes; encoding by name and by index gives the frame the
// general codec builds. Every sample file and the suite's own fixture are covered.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "dbc_test_util.hpp"
#include "tests/support/seed.hpp"
#include "veltrix/dbc.h"

namespace veltrix::dbc {
namespace {

struct File {
  const char* name;
  bool corpus;                 // from the sample files outside the repository
  const char* text = nullptr;  // written to a temporary file instead
};

// Layouts at the edges of the 64-byte image and of the 8-byte load window: bits beyond the
// image, starts beyond it, 64-bit signals off a byte boundary, lengths of 0, above 64 and
// above 255, floats, and a switch beyond the 8 bytes of a classic frame.
const char kEdges[] =
    "BO_ 300 Edge: 64 N\n"
    " SG_ TailIntel : 500|16@1+ (1,0) [0|0] \"\" N\n"
    " SG_ HeadMoto : 3|20@0- (0.5,1) [0|0] \"\" N\n"
    " SG_ Wide : 3|64@1- (1,0) [0|0] \"\" N\n"
    " SG_ WideMoto : 12|64@0+ (1,0) [0|0] \"\" N\n"
    " SG_ Beyond : 520|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ BeyondMoto : 519|8@0+ (1,0) [0|0] \"\" N\n"
    " SG_ Zero : 7|0@0+ (1,0) [0|0] \"\" N\n"
    " SG_ Long : 8|100@1+ (1,0) [0|0] \"\" N\n"
    " SG_ Huge : 16|300@1- (1,0) [0|0] \"\" N\n"
    " SG_ F32 : 32|32@1- (1,0) [-1e30|1e30] \"\" N\n"
    " SG_ F64 : 128|64@1- (1,0) [-1e300|1e300] \"\" N\n"
    " SG_ Moto64 : 7|64@0+ (1,0) [0|0] \"\" N\n"
    "BO_ 301 Classic: 8 N\n"
    " SG_ Bit63 : 63|1@1+ (1,0) [0|1] \"\" N\n"
    " SG_ MotoLow : 0|16@0+ (1,0) [0|0] \"\" N\n"
    " SG_ Neg : 40|12@1- (0.25,-3) [-600|600] \"\" N\n"
    "BO_ 302 MuxFar: 16 N\n"
    " SG_ Sel M : 72|4@1+ (1,0) [0|15] \"\" N\n"
    " SG_ A m0 : 0|8@1+ (1,0) [0|255] \"\" N\n"
    " SG_ B m1 : 0|8@1+ (1,0) [0|255] \"\" N\n"
    " SG_ C m2 : 8|8@1- (1,0) [-128|127] \"\" N\n"
    "BO_ 303 Apart: 64 N\n"
    " SG_ WideApart : 203|64@1- (1,0) [0|0] \"\" N\n"
    " SG_ WideMotoApart : 395|64@0+ (1,0) [0|0] \"\" N\n"
    "SIG_VALTYPE_ 300 F32 : 1;\n"
    "SIG_VALTYPE_ 300 F64 : 2;\n";

const File kFiles[] = {
    {"edges", false, kEdges},     {"body_gateway.dbc", false}, {"abs.dbc", true},
    {"floating_point.dbc", true}, {"foobar.dbc", true},        {"gwm_haval_h6_phev_2024.dbc", true},
    {"motohawk.dbc", true},       {"multiplex_2.dbc", true},   {"signed.dbc", true},
    {"tesla_can.dbc", true},      {"vw_mlb.dbc", true},
};

void PrintTo(const File& f, std::ostream* os) { *os << f.name; }

uint64_t bits(double v) { return std::bit_cast<uint64_t>(v); }

class DbcDifferential : public ::testing::TestWithParam<File> {
 protected:
  void SetUp() override {
    const File f = GetParam();
    if (f.corpus && !std::filesystem::is_directory(VELTRIX_CORPUS_DIR))
      GTEST_SKIP() << "sample files not found at " << VELTRIX_CORPUS_DIR;
    if (f.text) temp_ = std::make_unique<test::TempFile>(f.text);
    path_ = f.text ? temp_->path() : f.corpus ? test::corpus(f.name) : test::fixture(f.name);
    ref_ = DBC_Decoder::load(path_, nullptr);
    ASSERT_TRUE(ref_);
    rng_.seed(veltrix::test::test_seed(f.name));
  }

  // Messages a frame and a name both reach, with the signals a name reaches.
  bool reachable(long long h, uint32_t mi) const {
    const DBC_MESSAGE& m = ref_->messages()[mi];
    return DBC_GetMsgIndex(h, m.name.c_str()) == int(mi) && DBC_GetMsgIndexById(h, m.id) == int(mi);
  }
  bool named(long long h, uint32_t mi, uint32_t si) const {
    return DBC_GetSignalIndex(h, int(mi), ref_->messages()[mi].signals[si].name.c_str()) == int(si);
  }

  std::unique_ptr<test::TempFile> temp_;
  std::string path_;
  std::unique_ptr<DBC_Decoder> ref_;  // the general codec's view of the same file
  std::mt19937_64 rng_;
};

TEST_P(DbcDifferential, DecodingByNameByIndexAndInOneCallMatchesTheGeneralCodec) {
  const long long h = DBC_LoadFile(path_.c_str());
  ASSERT_NE(h, 0);
  size_t compared = 0;
  for (uint32_t mi = 0; mi < ref_->messages().size(); ++mi) {
    if (!reachable(h, mi)) continue;
    const DBC_MESSAGE& m = ref_->messages()[mi];
    uint8_t stored[kDataBytes] = {};  // what the database keeps as the message's last data
    for (int frame = 0; frame < 24; ++frame) {
      uint8_t image[kDataBytes] = {};
      const bool fd = frame % 2 == 1;
      for (int b = 0; b < (fd ? kDataBytes : 8); ++b) image[b] = uint8_t(rng_());
      const uint32_t sw = ref_->muxSwitch(mi);
      if (sw != DBC_Decoder::kNone && frame % 4 < 2) {  // select one of the multiplexed signals
        const DBC_SIGNAL& s = m.signals[rng_() % m.signals.size()];
        const DBC_SIGNAL& x = m.signals[sw];
        DBC_Decoder::rawValueToArray(s.multiplexValue, x.startBit, uint8_t(x.length), image,
                                     ByteOrder(x.byteOrder));
        if (!fd) std::memset(image + 8, 0, kDataBytes - 8);
      }
      std::memcpy(stored, image, fd ? kDataBytes : 8);
      double values[512];
      int got_index = -1;
      int count;
      if (fd) {
        CANFD_MSG f{};
        f.ID = m.id;
        f.DLC = 64;
        std::memcpy(f.Data, image, kDataBytes);
        count = DBC_DecodeCANFDMsg(h, &f, &got_index, values, 512);
        ASSERT_EQ(DBC_SyncCANFDMsgToValue(h, &f, 1), DBC_OK);
      } else {
        CAN_MSG f{};
        f.ID = m.id & 0x1FFFFFFF;
        f.ExtFlag = uint8_t(m.id >> 31);
        f.DataLen = 8;
        std::memcpy(f.Data, image, 8);
        count = DBC_DecodeCANMsg(h, &f, &got_index, values, 512);
        ASSERT_EQ(DBC_SyncCANMsgToValue(h, &f, 1), DBC_OK);
      }
      ASSERT_EQ(count, int(m.signals.size())) << m.name;
      ASSERT_EQ(got_index, int(mi));
      uint64_t selected = 0;
      if (sw != DBC_Decoder::kNone) {
        const DBC_SIGNAL& x = m.signals[sw];
        selected = DBC_Decoder::arrayValueToRaw(x.startBit, uint8_t(x.length), stored,
                                                ByteOrder(x.byteOrder));
      }
      for (uint32_t si = 0; si < m.signals.size() && si < 512; ++si) {
        DBC_SIGNAL s = m.signals[si];
        s.rawValue = DBC_Decoder::arrayValueToRaw(s.startBit, uint8_t(s.length), image,
                                                  ByteOrder(s.byteOrder));
        const double want = DBC_Decoder::getSignalRealValue(&s);
        const bool shown = s.multiplexMode == MUX_NONE || s.multiplexMode == MUX_SWITCH ||
                           (sw != DBC_Decoder::kNone && s.multiplexMode == MUX_SELECTED &&
                            s.multiplexValue == selected);
        const int want_rc = shown ? DBC_OK : DBC_ERR_MUX_INACTIVE;
        const std::string where = m.name + "." + s.name + " frame " + std::to_string(frame);
        double by_index = -1;
        ASSERT_EQ(DBC_GetSignalValueByIndex(h, int(mi), int(si), &by_index), want_rc) << where;
        if (shown) {
          EXPECT_EQ(bits(values[si]), bits(want)) << where;
          EXPECT_EQ(bits(by_index), bits(want)) << where;
        } else {
          EXPECT_TRUE(std::isnan(values[si])) << where;
        }
        if (!named(h, mi, si)) continue;
        double by_name = -1;
        ASSERT_EQ(DBC_GetSignalValue(h, m.name.c_str(), s.name.c_str(), &by_name), want_rc)
            << where;
        if (shown) {
          EXPECT_EQ(bits(by_name), bits(want)) << where;
        }
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 0u);
  DBC_Release(h);
}

// A value somewhere around the signal's range, now and then outside it or a float's own.
double random_value(std::mt19937_64& rng, const DBC_SIGNAL& s) {
  const double lo = s.minimum, hi = s.maximum;
  switch (rng() % 4) {
    case 0:
      return lo - 1 - double(rng() % 1000);
    case 1:
      return hi + 1 + double(rng() % 1000);
    case 2:
      return std::bit_cast<double>(rng() & 0xBFFFFFFFFFFFFFFFull);  // finite
    default:
      return lo + (hi - lo) * double(rng() % 10001) / 10000.0;
  }
}

TEST_P(DbcDifferential, EncodingByNameAndByIndexBuildsTheGeneralCodecsFrame) {
  const long long by_name = DBC_LoadFile(path_.c_str());
  const long long by_index = DBC_LoadFile(path_.c_str());
  ASSERT_NE(by_name, 0);
  ASSERT_NE(by_index, 0);
  for (int round = 0; round < 4; ++round) {
    for (uint32_t mi = 0; mi < ref_->messages().size(); ++mi) {
      if (!reachable(by_name, mi)) continue;
      DBC_MESSAGE& m = ref_->messages()[mi];
      const uint32_t sw = ref_->muxSwitch(mi);
      for (uint32_t si = 0; si < m.signals.size(); ++si) {
        DBC_SIGNAL& s = m.signals[si];
        const double v = random_value(rng_, s);
        const int rc = named(by_name, mi, si)
                           ? DBC_SetSignalValue(by_name, m.name.c_str(), s.name.c_str(), v)
                           : DBC_SetSignalValueByIndex(by_name, int(mi), int(si), v);
        ASSERT_EQ(rc, DBC_OK);
        ASSERT_EQ(DBC_SetSignalValueByIndex(by_index, int(mi), int(si), v), DBC_OK);
        DBC_Decoder::setSignalRealValue(&s, v);
        if (s.multiplexMode == MUX_SELECTED && sw != DBC_Decoder::kNone)
          m.signals[sw].rawValue = s.multiplexValue;
      }
      uint8_t want[kDataBytes] = {};
      auto put = [&](const DBC_SIGNAL& s) {
        DBC_Decoder::rawValueToArray(s.rawValue, s.startBit, uint8_t(s.length), want,
                                     ByteOrder(s.byteOrder));
      };
      if (sw != DBC_Decoder::kNone) put(m.signals[sw]);
      for (const DBC_SIGNAL& s : m.signals) {
        if (sw == DBC_Decoder::kNone || s.multiplexMode != MUX_SELECTED ||
            s.multiplexValue == m.signals[sw].rawValue)
          put(s);
      }
      CAN_MSG a{}, b{};
      ASSERT_EQ(DBC_SyncValueToCANMsg(by_name, m.name.c_str(), &a), DBC_OK);
      ASSERT_EQ(DBC_EncodeCANMsgByIndex(by_index, int(mi), &b), DBC_OK);
      EXPECT_EQ(0, std::memcmp(&a, &b, sizeof a)) << m.name;
      EXPECT_EQ(std::vector<uint8_t>(a.Data, a.Data + 8), std::vector<uint8_t>(want, want + 8))
          << m.name;
      CANFD_MSG fd{};
      ASSERT_EQ(DBC_SyncValueToCANFDMsg(by_name, m.name.c_str(), &fd), DBC_OK);
      EXPECT_EQ(std::vector<uint8_t>(fd.Data, fd.Data + kDataBytes),
                std::vector<uint8_t>(want, want + kDataBytes))
          << m.name;
    }
  }
  DBC_Release(by_name);
  DBC_Release(by_index);
}

// Scaling rounds half away from zero, as round() does, right up to the magnitudes where
// every double is an integer; signed and unsigned signals alike.
TEST(DbcRounding, SettingRoundsAsRoundDoes) {
  std::vector<double> xs = {0.5,
                            -0.5,
                            1.5,
                            -1.5,
                            2.5,
                            -2.5,
                            0.49999999999999994,
                            -0.49999999999999994,
                            4503599627370495.5,
                            -4503599627370495.5,
                            4503599627370496.0,
                            -4503599627370497.0,
                            1e15 + 0.5,
                            -0.0,
                            0.0,
                            3.4999999999999996,
                            -1e300,
                            1e300};
  std::mt19937_64 rng(veltrix::test::test_seed("rounding"));
  for (int i = 0; i < 2000; ++i) {
    const int exponent = int(rng() % 60) - 8;
    xs.push_back(std::ldexp(double(rng() % 4096) / 8.0, exponent) * (rng() % 2 ? 1 : -1));
  }
  for (uint32_t is_signed : {0u, 1u}) {
    DBC_SIGNAL s;
    s.length = 64;
    s.isSigned = is_signed;
    s.factor = 1;
    s.minimum = -1e308;
    s.maximum = 1e308;
    for (double x : xs) {
      DBC_Decoder::setSignalRealValue(&s, x);
      const double r = std::round(x);
      if (std::fabs(r) < 9.2e18) {
        EXPECT_EQ(s.rawValue, uint64_t(int64_t(r))) << x << (is_signed ? " signed" : "");
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Files, DbcDifferential, ::testing::ValuesIn(kFiles),
                         [](const ::testing::TestParamInfo<File>& i) {
                           std::string n = i.param.name;
                           n = n.substr(0, n.find('.'));
                           for (char& c : n)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return n;
                         });

}  // namespace
}  // namespace veltrix::dbc
