// Frame planning and record filling, host only.
#include "protocols/isotp_frames.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/bytes.hpp"

namespace veltrix::isotp {
namespace {

using test::Bytes;
using test::BytesEq;

// Every frame length 8..64 in both addressings: the capacities follow from the header
// sizes (PCI 1 byte, SF escape 2, FF 2, FF escape 6, plus the address byte).
TEST(IsoTpPlan, CapacitiesFollowTheHeaderSizesForEveryFrameLength) {
  for (int l = 8; l <= 64; ++l) {
    for (int x = 0; x <= 1; ++x) {
      SCOPED_TRACE("length " + std::to_string(l) + " extended " + std::to_string(x));
      const FramePlan p = plan(uint8_t(l), x == 1);
      const uint32_t sf_header = l == 8 ? 1 : 2;
      EXPECT_EQ(p.single_max, uint32_t(l) - sf_header - x);
      EXPECT_EQ(p.first_short, uint32_t(l) - 2 - x);
      EXPECT_EQ(p.first_long, uint32_t(l) - 6 - x);
      EXPECT_EQ(p.consecutive, uint32_t(l) - 1 - x);
      EXPECT_EQ(p.offset, x);
    }
  }
}

TEST(IsoTpPlan, OutOfRangeLengthsMeanClassic) {
  for (int l : {0, 1, 7, 65, 255}) EXPECT_EQ(normalise_length(uint8_t(l)), 8) << l;
  for (int l : {8, 12, 64}) EXPECT_EQ(normalise_length(uint8_t(l)), l);
}

struct FrameCase {
  const char* name;
  uint8_t length;
  bool extended;
  uint32_t message;
  Bytes want;     // the first frame's bytes before padding
  uint32_t used;  // message bytes it carries
};

class FirstFrame : public ::testing::TestWithParam<FrameCase> {};

TEST_P(FirstFrame, HasItsProtocolBytes) {
  const FrameCase& c = GetParam();
  std::vector<uint8_t> data(c.message);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(0xA0 + i);
  uint32_t used = 0;
  const FrameBytes f =
      first_or_single(plan(c.length, c.extended), 0xE5, data.data(), c.message, &used);
  EXPECT_THAT(Bytes(f.data, f.data + f.size), BytesEq(c.want));
  EXPECT_EQ(used, c.used);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FirstFrame,
    ::testing::Values(
        FrameCase{"sf3", 8, false, 3, {0x03, 0xA0, 0xA1, 0xA2}, 3},
        FrameCase{"sf0", 8, false, 0, {0x00}, 0},
        FrameCase{"sf_ext6", 8, true, 6, {0xE5, 0x06, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}, 6},
        FrameCase{"sf_fd", 12, false, 2, {0x00, 0x02, 0xA0, 0xA1}, 2},
        FrameCase{"ff21", 8, false, 21, {0x10, 0x15, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}, 6},
        FrameCase{"ff4095", 8, true, 4095, {0xE5, 0x1F, 0xFF, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4}, 5},
        FrameCase{"ff5000", 8, false, 5000, {0x10, 0x00, 0x00, 0x00, 0x13, 0x88, 0xA0, 0xA1}, 2},
        FrameCase{"ff5000ext", 8, true, 5000, {0xE5, 0x10, 0x00, 0x00, 0x00, 0x13, 0x88, 0xA0}, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(IsoTpFrames, ConsecutiveSequenceWrapsInFourBits) {
  const FramePlan p = plan(8, false);
  const uint8_t d[7] = {1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(consecutive(p, 0, 15, d, 7).data[0], 0x2F);
  EXPECT_EQ(consecutive(p, 0, 16, d, 7).data[0], 0x20);
  const FrameBytes ext = consecutive(plan(8, true), 0xE5, 17, d, 7);
  EXPECT_THAT(Bytes(ext.data, ext.data + ext.size), BytesEq({0xE5, 0x21, 1, 2, 3, 4, 5, 6}));
}

TEST(IsoTpFrames, StminMillisecondsOnlyBelow0x80) {
  EXPECT_EQ(stmin_ms(0), 0u);
  EXPECT_EQ(stmin_ms(0x7F), 127u);
  for (int st : {0x80, 0xF1, 0xF5, 0xF9, 0xFF}) EXPECT_EQ(stmin_ms(uint8_t(st)), 0u) << st;
}

TEST(IsoTpFill, ClassicRecordIsPaddedTo8) {
  CAN_UDS_ADDR a{0x18DA10F1, 0, 1, 0, 0, 8};
  CAN_MSG m;
  const uint8_t b[3] = {0x02, 0x10, 0x03};
  CAN_UDS_FillCANMsg(m, a.RequestID, a, b, 3);
  EXPECT_EQ(m.ID, 0x18DA10F1u);
  EXPECT_EQ(m.ExtFlag, 1);
  EXPECT_EQ(m.DataLen, 8);
  EXPECT_THAT(Bytes(m.Data, m.Data + 8), BytesEq({0x02, 0x10, 0x03, 0x55, 0x55, 0x55, 0x55, 0x55}));
}

struct FdFlagsCase {
  uint8_t id_flags;
  uint32_t id_bit31;
  uint8_t flags;
};

// IdFlags bit 1 alone gives the bit-rate-switch bit without the FD format bit; bits 1 and 2
// together add the format bit.
TEST(IsoTpFill, CanFdFlagsFollowTheFillRule) {
  const FdFlagsCase cases[] = {{0, 0, 0},           {1, 0x80000000u, 0}, {2, 0, 4},
                               {3, 0x80000000u, 4}, {4, 0, 0},           {6, 0, 5},
                               {7, 0x80000000u, 5}};
  for (const FdFlagsCase& c : cases) {
    CAN_UDS_ADDR a{0x123, 0, c.id_flags, 0, 0, 12};
    CANFD_MSG m;
    const uint8_t b[5] = {1, 2, 3, 4, 5};
    CAN_UDS_FillCANFDMsg(m, 0x123, a, b, 5);
    EXPECT_EQ(m.ID, 0x123u | c.id_bit31) << int(c.id_flags);
    EXPECT_EQ(m.Flags, c.flags) << int(c.id_flags);
    EXPECT_EQ(m.DLC, 12);
    EXPECT_THAT(Bytes(m.Data, m.Data + 13),
                BytesEq({1, 2, 3, 4, 5, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0}));
  }
}

}  // namespace
}  // namespace veltrix::isotp
