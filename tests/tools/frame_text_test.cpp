#include "tools/frame_text.hpp"

#include <gtest/gtest.h>

#include <string>

#include "tools/timebase.hpp"

namespace veltrix::tools {
namespace {

struct RoundTrip {
  const char* text;     // as written by a user
  const char* printed;  // as the tools print it back
  uint32_t id;
  bool extended, remote, fd;
  uint8_t flags, len;
};

class FrameWord : public ::testing::TestWithParam<RoundTrip> {};

TEST_P(FrameWord, ParsesAndPrintsInTheCanToolsForm) {
  const RoundTrip& c = GetParam();
  Frame f;
  ASSERT_EQ(parse_frame(c.text, &f), "");
  EXPECT_EQ(f.id, c.id);
  EXPECT_EQ(f.extended, c.extended);
  EXPECT_EQ(f.remote, c.remote);
  EXPECT_EQ(f.fd, c.fd);
  EXPECT_EQ(f.fd_flags, c.flags);
  EXPECT_EQ(f.len, c.len);
  EXPECT_EQ(format_frame(f), c.printed);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, FrameWord,
    ::testing::Values(
        RoundTrip{"123#DEADBEEF", "123#DEADBEEF", 0x123, false, false, false, 0, 4},
        RoundTrip{"7ff#de.ad.be.ef", "7FF#DEADBEEF", 0x7FF, false, false, false, 0, 4},
        RoundTrip{"123#", "123#", 0x123, false, false, false, 0, 0},
        RoundTrip{"18DAF110#0210C0", "18DAF110#0210C0", 0x18DAF110, true, false, false, 0, 3},
        RoundTrip{"00000123#11", "00000123#11", 0x123, true, false, false, 0, 1},
        RoundTrip{"7DF#R", "7DF#R", 0x7DF, false, true, false, 0, 0},
        RoundTrip{"7DF#r8", "7DF#R8", 0x7DF, false, true, false, 0, 8},
        RoundTrip{"123##1", "123##1", 0x123, false, false, true, kFdFlagBrs, 0},
        RoundTrip{"123##3AABB", "123##3AABB", 0x123, false, false, true, 3, 2},
        RoundTrip{"1FFFFFFF##2"
                  "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"
                  "202122232425262728292A2B2C2D2E2F303132333435363738393A3B3C3D3E3F",
                  "1FFFFFFF##2"
                  "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"
                  "202122232425262728292A2B2C2D2E2F303132333435363738393A3B3C3D3E3F",
                  0x1FFFFFFF, true, false, true, kFdFlagEsi, 64}));

struct Refused {
  const char* text;
  const char* why;
};

class BadFrameWord : public ::testing::TestWithParam<Refused> {};

TEST_P(BadFrameWord, IsRefusedWithItsReasonAndLeavesTheOutputAlone) {
  Frame f;
  f.id = 0xABC;
  EXPECT_EQ(parse_frame(GetParam().text, &f), GetParam().why);
  EXPECT_EQ(f.id, 0xABCu);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, BadFrameWord,
    ::testing::Values(Refused{"123DEAD", "'123DEAD' has no '#'"},
                      Refused{"12#00", "the identifier '12' is not 3 or 8 hex digits"},
                      Refused{"1234#00", "the identifier '1234' is not 3 or 8 hex digits"},
                      Refused{"12G#00", "the identifier '12G' is not hex"},
                      Refused{"800#00", "the identifier '800' is out of range"},
                      Refused{"20000000#00", "the identifier '20000000' is out of range"},
                      Refused{"123#ABC", "the data 'ABC' ends in half a byte"},
                      Refused{"123#ZZ", "the data 'ZZ' is not hex bytes"},
                      Refused{"123#000102030405060708", "the data is longer than 8 bytes"},
                      Refused{"123#R9", "a remote frame is written R or R0 to R8, not 'R9'"},
                      Refused{"123##", "a CAN FD frame needs a flags digit after '##'"},
                      Refused{"123##G00", "the CAN FD flags 'G' are not a hex digit"},
                      Refused{"123##0"
                              "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"
                              "202122232425262728292A2B2C2D2E2F303132333435363738393A3B3C3D3E3F40",
                              "the data is longer than 64 bytes"}));

TEST(FrameWord, ConvertsToAndFromTheAdapterRecord) {
  Frame f;
  ASSERT_EQ(parse_frame("18DAF110#0210C0", &f), "");
  CAN_MSG m;
  ASSERT_TRUE(to_can_msg(f, &m));
  EXPECT_EQ(m.ID, 0x18DAF110u);
  EXPECT_EQ(m.ExtFlag, 1);
  EXPECT_EQ(m.FrameFlags, 0);
  EXPECT_EQ(m.DataLen, 3);
  EXPECT_EQ(m.Data[2], 0xC0);
  EXPECT_EQ(format_frame(from_can_msg(m)), "18DAF110#0210C0");

  ASSERT_EQ(parse_frame("123##1AA", &f), "");
  EXPECT_FALSE(to_can_msg(f, &m)) << "a CAN FD frame has no classic record";

  // A length the adapter should never send is cut to the record's 8 bytes.
  CAN_MSG hostile{};
  hostile.ID = 0x123;
  hostile.DataLen = 200;
  EXPECT_EQ(from_can_msg(hostile).len, 8);
  hostile.FrameFlags = CAN_MSG_FLAG_RTR;
  hostile.DataLen = 2;
  EXPECT_EQ(format_frame(from_can_msg(hostile)), "123#R2");
}

struct Line {
  const char* text;
  bool has_time;
  uint64_t sec;
  uint32_t usec;
  const char* iface;
  const char* frame;
};

class LogLines : public ::testing::TestWithParam<Line> {};

TEST_P(LogLines, ReadBothCandumpForms) {
  const Line& c = GetParam();
  LogLine l;
  ASSERT_EQ(parse_log_line(c.text, &l), "");
  EXPECT_EQ(l.has_time, c.has_time);
  EXPECT_EQ(l.sec, c.sec);
  EXPECT_EQ(l.usec, c.usec);
  EXPECT_EQ(l.iface, c.iface);
  EXPECT_EQ(format_frame(l.frame), c.frame);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, LogLines,
    ::testing::Values(
        Line{"(1700000000.123456) vx51000001-1 123#DEADBEEF", true, 1700000000, 123456,
             "vx51000001-1", "123#DEADBEEF"},
        Line{"(0000000001.000001) can0 18DAF110#0210C0 R\r\n", true, 1, 1, "can0",
             "18DAF110#0210C0"},
        Line{"  can0  123   [4]  DE AD BE EF", false, 0, 0, "can0", "123#DEADBEEF"},
        Line{"  can1  18DAF110   [3]  02 10 C0", false, 0, 0, "can1", "18DAF110#0210C0"},
        Line{"  can0  7DF   [0]  remote request", false, 0, 0, "can0", "7DF#R"},
        Line{" (1700000000.000100)  can0  123  [12]  00 01 02 03 04 05 06 07 08 09 0A 0B", true,
             1700000000, 100, "can0", "123##0000102030405060708090A0B"}));

TEST(LogLines, RefuseWhatIsNotAFrameLine) {
  const Refused cases[] = {
      {"", "the line is empty"},
      {"(17.5) can0 123#00", "the time '(17.5)' is not (SECONDS.MICROSECONDS)"},
      {"(1700000000.123456) can0", "a frame line needs an interface and a frame"},
      {"  can0  123   [4]  DE AD BE", "the line has 3 data bytes, its length says 4"},
      {"  can0  123   [65]  00", "the length '[65]' is not [0] to [64]"},
      {"  can0  123   [1]  0G", "the data byte '0G' is not hex"},
      {"(1700000000.123456) can0 123#XY", "the data 'XY' is not hex bytes"},
  };
  for (const Refused& c : cases) {
    LogLine l;
    EXPECT_EQ(parse_log_line(c.text, &l), c.why) << c.text;
  }
}

TEST(LogLines, AreWrittenAsCandumpLogs) {
  Frame f;
  ASSERT_EQ(parse_frame("123#0102", &f), "");
  EXPECT_EQ(format_log_line(17, 5, "vx51000001-0", f), "(0000000017.000005) vx51000001-0 123#0102");
  EXPECT_EQ(format_log_line(1700000000, 999999, "vx53000002-1", f),
            "(1700000000.999999) vx53000002-1 123#0102");
}

TEST(FrameClock, PlacesFramesOnTheWallClockAcrossACounterWrap) {
  // Anchor: the adapter read 0xFFFFFF00 at 1700000000.000000.
  FrameClock clock(1700000000000000ull, 0xFFFFFF00u);
  EXPECT_EQ(clock.wall_us(0xFFFFFF00u), 1700000000000000ull);
  EXPECT_EQ(clock.wall_us(0xFFFFFF0Au), 1700000000001000ull);  // 10 ticks of 100 us
  EXPECT_EQ(clock.wall_us(0x00000010u), 1700000000027200ull);  // wrapped: 0x110 ticks on
  EXPECT_EQ(clock.wall_us(0xFFFFFEF0u), 1699999999998400ull);  // a frame stamped before the anchor
}

}  // namespace
}  // namespace veltrix::tools
