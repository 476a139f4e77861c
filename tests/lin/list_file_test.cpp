// The bus-traffic list-file reader. Files are written by the tests themselves.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>

#include "lin/list_file.hpp"
#include "veltrix/lin.h"

namespace veltrix::test {
namespace {

class LinListFile : public ::testing::Test {
 protected:
  std::string path_ = "/tmp/veltrix-lin-list-" + std::to_string(getpid()) + ".csv";
  void TearDown() override { std::remove(path_.c_str()); }
  void write(const std::string& text) { std::ofstream(path_, std::ios::binary) << text; }
  static std::string header() { return std::string(lin::kListFileHeader) + "\n"; }
  // A data line: line number, time, identifier and data bytes in their fields; 23 fields.
  static std::string line(const std::string& number, const std::string& time,
                          const std::string& id, std::vector<std::string> data) {
    std::vector<std::string> f(23);
    f[0] = number;
    f[1] = time;
    f[9] = id;
    for (size_t i = 0; i < data.size() && i < 8; ++i) f[12 + i] = data[i];
    std::string s;
    for (size_t i = 0; i < f.size(); ++i) s += (i ? "," : "") + f[i];
    return s + "\n";
  }
  int decode(uint8_t check = 1, int baud = 19200, std::vector<uint8_t> read = {},
             std::vector<uint8_t> toggle = {}) {
    return LIN_EX_DecodeListFile(path_.c_str(), check, baud, read.data(), int8_t(read.size()),
                                 toggle.data(), int8_t(toggle.size()));
  }
  std::vector<LIN_EX_MSG> all(int n) {
    std::vector<LIN_EX_MSG> v(size_t(n > 0 ? n : 0));
    EXPECT_EQ(LIN_EX_GetListFileMsg(0, n, v.data()), n);
    return v;
  }
};

TEST_F(LinListFile, TurnsLinesIntoRecordsWithGaps) {
  write(std::string(lin::kListFileHeader) + ",1,2,3\r\n" +
        line("1", "1.000", "10", {"11", "22", "33", "44"}) +
        line("2", "1.125", "3D", {"A", "B", "", "C"}) +
        line("3", "1.12890625", "21", {"1", "2", "3", "4", "5", "6", "7", "8", "9"}) +
        line("4", "2.5", "3C", {}));
  ASSERT_EQ(decode(1, 19200, {0x3D}, {0x21}), 4);
  auto r = all(4);
  // Gap 125 ms less the next frame's time: ((2 + 3) * 10 + 15) * 1000 / 19200 = 3 ms.
  EXPECT_EQ(r[0].Timestamp, 122u);
  EXPECT_EQ(r[0].MsgType, 1);
  EXPECT_EQ(r[0].CheckType, 1);
  EXPECT_EQ(r[0].DataLen, 4);
  EXPECT_EQ(r[0].Data[3], 0x44);
  EXPECT_EQ(r[0].Sync, 0x55);
  EXPECT_EQ(r[0].BreakBits, 13);
  EXPECT_EQ(r[1].MsgType, 2);  // read list
  EXPECT_EQ(r[1].DataLen, 2);  // stops at the empty field
  EXPECT_EQ(r[1].PID, 0x3D);
  EXPECT_EQ(r[1].Timestamp, 0u);  // 3.9 ms gap, 6 ms frame
  EXPECT_EQ(r[2].CheckType, 0);   // toggled
  EXPECT_EQ(r[2].DataLen, 8);
  // 1371.09375 ms less ((0 + 3) * 10 + 15) * 1000 / 19200 = 2 ms, truncated.
  EXPECT_EQ(r[2].Timestamp, 1369u);
  EXPECT_EQ(r[3].Timestamp, 0u);
  EXPECT_EQ(r[3].DataLen, 0);

  LIN_EX_MSG one[2];
  EXPECT_EQ(LIN_EX_GetListFileMsg(3, 5, one), 1);
  EXPECT_EQ(LIN_EX_GetListFileMsg(4, 1, one), 0);
  EXPECT_EQ(LIN_EX_GetListFileMsg(-1, 1, one), 0);
  EXPECT_EQ(LIN_EX_GetListFileMsg(0, 0, one), 0);
  EXPECT_EQ(LIN_EX_GetListFileMsg(0, 1, nullptr), LIN_EX_ERR_PARAMETER);
}

TEST_F(LinListFile, SkipsLinesThatAreNoRecords) {
  std::string short_line = line("5", "1", "10", {"1"});
  short_line.erase(short_line.rfind(','));  // 22 fields
  short_line += "\n";
  write(header() + short_line + line("x5", "1", "10", {"1"}) + line("", "1", "10", {"1"}) +
        "\n,,,\n" + std::string(100000, 'A') + "\n" + line("7", "abc", "zz", {"q", "1"}));
  ASSERT_EQ(decode(), 1);
  auto r = all(1);
  EXPECT_EQ(r[0].PID, 0);  // text that is no number reads as 0
  EXPECT_EQ(r[0].DataLen, 2);
  EXPECT_EQ(r[0].Data[1], 1);
}

TEST_F(LinListFile, RejectsMissingFilesWrongHeadersAndBadArguments) {
  EXPECT_EQ(LIN_EX_DecodeListFile("/nonexistent/dir/x.csv", 0, 19200, nullptr, 0, nullptr, 0),
            LIN_EX_ERR_OPEN_FILE);
  write(line("1", "1", "10", {"1"}));
  EXPECT_EQ(decode(), LIN_EX_ERR_FILE_FORMAT);
  write("");
  EXPECT_EQ(decode(), LIN_EX_ERR_FILE_FORMAT);
  write(std::string(lin::kListFileHeader) + "X\n");
  EXPECT_EQ(decode(), LIN_EX_ERR_FILE_FORMAT);
  write(header());
  EXPECT_EQ(decode(0, 0), LIN_EX_ERR_PARAMETER);
  EXPECT_EQ(LIN_EX_DecodeListFile(nullptr, 0, 19200, nullptr, 0, nullptr, 0), LIN_EX_ERR_PARAMETER);
  // Negative list lengths mean empty lists, whatever the pointers.
  write(header() + line("1", "0", "3D", {"1"}));
  EXPECT_EQ(LIN_EX_DecodeListFile(path_.c_str(), 0, 19200, nullptr, -3, nullptr, -1), 1);
}

TEST_F(LinListFile, ANewFileReplacesTheListOnlyOnceItsHeaderIsRecognised) {
  write(header() + line("1", "0", "10", {"1"}) + line("2", "0", "10", {"1"}));
  ASSERT_EQ(decode(), 2);
  write("not a list file\n");
  EXPECT_EQ(decode(), LIN_EX_ERR_FILE_FORMAT);
  EXPECT_EQ(all(2).size(), 2u);
  write(header());
  EXPECT_EQ(decode(), 0);
  LIN_EX_MSG m;
  EXPECT_EQ(LIN_EX_GetListFileMsg(0, 1, &m), 0);
}

TEST_F(LinListFile, ManyLinesGrowTheList) {
  std::string text = header();
  for (int i = 0; i < 20000; ++i) text += line(std::to_string(i), std::to_string(i * 0.015625), "10", {"1"});
  write(text);
  ASSERT_EQ(decode(0, 19200), 20000);
  LIN_EX_MSG m;
  ASSERT_EQ(LIN_EX_GetListFileMsg(19998, 1, &m), 1);
  EXPECT_EQ(m.Timestamp, 13u);  // 15.625 ms less ((1 + 3) * 10 + 15) * 1000 / 19200 = 2 ms
}

}  // namespace
}  // namespace veltrix::test
