// The host-side half of bus execution: checksum choice, protected identifiers and the
// LIN_EX_MSG records built from a handle's frames and schedules.
#include "ldf/bus_records.hpp"

#include <cstring>
#include <string>
#include <vector>

#include "ldf_fixture.hpp"

using namespace ldftest;
namespace ldf = veltrix::ldf;

namespace {

std::string file_of_version(const char* version) {
  return std::string("LIN_protocol_version = \"") + version + R"(";
Nodes { Master: M, 5 ms, 0 ms; Slaves: S; }
Signals { A: 4, 5, M, S; B: 16, 0x1234, S, M; }
Frames { W: 0x10, M, 2 { A, 0; } R: 0x11, S, 2 { B, 0; } R2: 0x51, S, 2 { B, 0; } }
Diagnostic_frames { MasterReq: 0x3C { } SlaveResp: 0x3D { } }
Schedule_tables { T { W delay 10.9 ms; Gone delay 5 ms; R delay 20 ms; MasterReq delay 0.4 ms; } }
)";
}

}  // namespace

TEST(LdfBusRecords, ChecksumByVersionAndIdentifier) {
  Handle v13(write_temp(file_of_version("1.3")));
  Handle v21(write_temp(file_of_version("2.1")));
  Handle j(write_temp(file_of_version("J2602_1_1.0")));
  ASSERT_NE(v13.h, nullptr);
  EXPECT_EQ(ldf::checksum_type(*v13.h, 0x10), 0);
  EXPECT_EQ(ldf::checksum_type(*v21.h, 0x10), 1);
  EXPECT_EQ(ldf::checksum_type(*j.h, 0x10), 1);
  EXPECT_EQ(ldf::checksum_type(*v21.h, 0x3B), 1);
  EXPECT_EQ(ldf::checksum_type(*v21.h, 0x3C), 0);
  EXPECT_EQ(ldf::checksum_type(*v21.h, 0x3F), 0);
  EXPECT_EQ(ldf::checksum_type(*v21.h, 0x7C), 0);  // low 6 bits decide
  LDF_CODING edge{};
  edge.ProtocolVersion = 199;
  EXPECT_EQ(ldf::checksum_type(edge, 0x10), 0);
  edge.ProtocolVersion = 200;
  EXPECT_EQ(ldf::checksum_type(edge, 0x10), 1);
}

TEST(LdfBusRecords, ProtectedIdentifiers) {
  EXPECT_EQ(ldf::protected_id(0x3C), 0x3C);
  EXPECT_EQ(ldf::protected_id(0x3D), 0x7D);
  EXPECT_EQ(ldf::protected_id(0x01), 0xC1);
  EXPECT_EQ(ldf::protected_id(0x00), 0x80);
  EXPECT_EQ(ldf::protected_id(0x10), 0x50);
  EXPECT_EQ(ldf::protected_id(0xFF), ldf::protected_id(0x3F));
}

TEST(LdfBusRecords, WriteReadAndSlaveEntryRecords) {
  Handle h(write_temp(file_of_version("2.1")));
  ASSERT_NE(h.h, nullptr);
  const LDF_LIN_FRAME& w = *frame(h.h, "W");
  const LDF_LIN_FRAME& r = *frame(h.h, "R");
  EXPECT_TRUE(ldf::master_publishes(*h.h, w));
  EXPECT_FALSE(ldf::master_publishes(*h.h, r));
  EXPECT_TRUE(ldf::master_publishes(*h.h, *frame(h.h, "MasterReq")));
  EXPECT_FALSE(ldf::master_publishes(*h.h, *frame(h.h, "SlaveResp")));

  LIN_EX_MSG m;
  ASSERT_EQ(ldf::frame_record(*h.h, w, 1, true, m), 0);
  const unsigned char write[20] = {0,    0, 0, 0, 1, 1, 2, 0x55, 0x50, 0xF5,
                                   0xFF, 0, 0, 0, 0, 0, 0, 0,    13,   0};
  EXPECT_EQ(0, std::memcmp(&m, write, 20));
  ASSERT_EQ(ldf::frame_record(*h.h, w, 1, false, m), 0);
  EXPECT_EQ(m.Data[0], 0x05);
  EXPECT_EQ(m.Data[1], 0x00);
  ASSERT_EQ(ldf::frame_record(*h.h, r, 2, true, m), 0);
  const unsigned char read[20] = {0, 0, 0, 0, 2, 1, 0, 0x55, 0x11, 0,
                                  0, 0, 0, 0, 0, 0, 0, 0,    13,   0};
  EXPECT_EQ(0, std::memcmp(&m, read, 20));
  ASSERT_EQ(ldf::frame_record(*h.h, r, 3, true, m), 0);
  EXPECT_EQ(m.PID, 0x11);  // bare: the slave table adds parity when loading
  EXPECT_EQ(m.DataLen, 2);
  EXPECT_EQ(m.Data[0], 0x34);
  EXPECT_EQ(m.Data[1], 0x12);
}

TEST(LdfBusRecords, CapturedAndReadDataGoIntoSignals) {
  Handle h(write_temp(file_of_version("2.1")));
  LIN_EX_MSG m{};
  m.MsgType = 9;
  m.PID = 0x91;  // identifier 0x11 with parity bits
  m.DataLen = 2;
  m.Data[0] = 0xCD;
  m.Data[1] = 0xAB;
  m.Data[2] = 0x77;  // checksum copy, not data
  // R (0x11) and R2 (0x51) both match in the low 6 bits.
  EXPECT_EQ(ldf::take_capture(*h.h, m), 2);
  EXPECT_EQ(frame(h.h, "R")->Signals[0].Value, 0xABCD);
  EXPECT_EQ(frame(h.h, "R2")->Signals[0].Value, 0xABCD);
  EXPECT_EQ(frame(h.h, "W")->Signals[0].Value, 5);
  m.DataLen = 1;
  ASSERT_EQ(ldf::take_response(*frame(h.h, "R"), m), 2);
  EXPECT_EQ(frame(h.h, "R")->Signals[0].Value, 0xCD);  // byte past DataLen reads as 0
  m.DataLen = 0;
  EXPECT_EQ(ldf::take_capture(*h.h, m), 0);
}

TEST(LdfBusRecords, ScheduleLoadListSkipsUnknownFrames) {
  Handle h(write_temp(file_of_version("2.1")));
  std::vector<LIN_EX_MSG> list;
  ASSERT_EQ(ldf::schedule_records(*h.h, h->Schs[0], true, list), 3);
  EXPECT_EQ(list[0].MsgType, 1);
  EXPECT_EQ(list[0].Timestamp, 10u);  // 10.9 ms: whole milliseconds
  EXPECT_EQ(list[0].Data[0], 0xF5);
  EXPECT_EQ(list[1].MsgType, 2);
  EXPECT_EQ(list[1].PID, 0x11);
  EXPECT_EQ(list[1].Timestamp, 20u);
  EXPECT_EQ(list[2].MsgType, 1);  // MasterReq: published by the master
  EXPECT_EQ(list[2].CheckType, 0);
  EXPECT_EQ(list[2].PID, 0x3C);
  EXPECT_EQ(list[2].DataLen, 8);
  EXPECT_EQ(list[2].Timestamp, 0u);
  EXPECT_EQ(ldf::whole_ms(-3.0f), 0u);
  EXPECT_EQ(ldf::whole_ms(1e30f), 0xFFFFFFFFu);
}
