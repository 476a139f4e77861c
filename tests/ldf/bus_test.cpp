// Bus execution of an LDF handle against the virtual LIN bus: the channel set-up when the
// file is opened, frames and schedules run from the host in both roles, a schedule loaded
// into the adapter, and the message buffer every exchanged frame goes to.
#include <string>
#include <vector>

#include "ldf/bus.hpp"
#include "ldf_fixture.hpp"
#include "tests/lin/lin_fixture.hpp"
#include "veltrix/ldf.h"

namespace veltrix::test {
namespace {

// W is the master's (identifier 0x05, PID 0x85); R (0x10, PID 0x50) and Q (0x22, which no
// virtual node answers) are the slave's. The virtual bus's node 0x10 answers 11 22 33 44.
constexpr const char* kFile = R"(LIN_description_file;
LIN_protocol_version = "2.1";
LIN_language_version = "2.1";
LIN_speed = 19.2 kbps;
Nodes { Master: M, 5 ms, 0 ms; Slaves: S; }
Signals { A: 4, 5, M, S; B: 16, 0x1234, S, M; C: 8, 0, S, M; }
Frames { W: 0x05, M, 2 { A, 0; } R: 0x10, S, 4 { B, 0; C, 16; } Q: 0x22, S, 2 { C, 0; } }
Schedule_tables {
  T { W delay 10.9 ms; Gone delay 5 ms; R delay 20 ms; }
  U { Q delay 5 ms; W delay 7 ms; }
}
)";

std::vector<uint32_t> g_waits;
void record_wait(uint32_t ms) { g_waits.push_back(ms); }

class LdfBus : public LinTest {
 protected:
  void SetUp() override {
    ldf::bus_wait = record_wait;
    g_waits.clear();
  }
  void TearDown() override {
    if (h_) LDF_Release(h_);
  }
  // Opens the adapter and the file on channel 0; the record of the set-up is kept.
  void open(unsigned char master) {
    m_ = plug_and_open(kLinDev);
    h_ = LDF_ParserFile(kLinDev, 0, master, ldftest::write_temp(kFile).c_str());
    ASSERT_NE(h_, nullptr);
  }
  double value(const char* frame, const char* signal) {
    double v = -1;
    EXPECT_EQ(LDF_GetSignalValue(h_, frame, signal, &v), 0);
    return v;
  }
  std::vector<LIN_EX_MSG> raw_msgs() {
    std::vector<LIN_EX_MSG> m(16);
    int n = LDF_GetRawMsg(h_, m.data(), int(m.size()));
    EXPECT_GE(n, 0);
    m.resize(size_t(std::max(n, 0)));
    return m;
  }
  LDF_CODING* h_ = nullptr;
};

TEST_F(LdfBus, OpeningSetsUpTheChannelAtTheFilesSpeed) {
  open(1);
  EXPECT_EQ(sent(0x0F06), (std::vector<Bytes>{{0, 0x00, 0x00, 0x4B, 0x00, 1}}));
  EXPECT_EQ(h_->Initialized, 1);
  EXPECT_EQ(h_->MasterMode, 1);
  LDF_CODING* slave = LDF_ParserFile(kLinDev, 2, 0, ldftest::write_temp(kFile).c_str());
  ASSERT_NE(slave, nullptr);
  EXPECT_THAT(sent(0x0F06).back(), BytesEq({2, 0x00, 0x00, 0x4B, 0x00, 0}));
  EXPECT_EQ(slave->MasterMode, 0);
  EXPECT_EQ(LDF_Release(slave), 0);
  // Channel 4 does not exist: the set-up fails and no handle is returned.
  EXPECT_EQ(LDF_ParserFile(kLinDev, 4, 1, ldftest::write_temp(kFile).c_str()), nullptr);
}

TEST_F(LdfBus, RefusesBeforeTouchingTheBus) {
  open(1);
  m_->clear_record();
  EXPECT_EQ(LDF_ExeFrameToBus(nullptr, "W", 1), -4);
  EXPECT_EQ(LDF_GetRawMsg(nullptr, nullptr, 1), -4);
  EXPECT_EQ(LDF_ExeFrameToBus(h_, "Gone", 1), -5);
  EXPECT_EQ(LDF_ExeFrameToBus(h_, nullptr, 1), -5);
  EXPECT_EQ(LDF_ExeSchToBus(h_, "Nope", 1), -5);
  EXPECT_EQ(LDF_SetSchToTable(h_, "Nope", 1), -5);
  h_->Initialized = 0;
  EXPECT_EQ(LDF_ExeFrameToBus(h_, "W", 1), -3);
  EXPECT_EQ(LDF_ExeSchToBus(h_, "T", 1), -3);
  EXPECT_EQ(LDF_SetSchToTable(h_, "T", 1), -3);
  EXPECT_TRUE(m_->commands_with_code(0x0F07).empty());
  EXPECT_TRUE(m_->commands_with_code(0x0F0C).empty());
}

TEST_F(LdfBus, MasterWriteSendsThePackedFrame) {
  open(1);
  ASSERT_EQ(LDF_SetSignalValue(h_, "W", "A", 7), 0);
  ASSERT_EQ(LDF_ExeFrameToBus(h_, "W", 1), 0);
  ASSERT_EQ(LDF_ExeFrameToBus(h_, "W", 0), 0);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 2u);
  ASSERT_EQ(p[0].size(), 21u);
  // Enhanced checksum over PID 0x85: ones fill F7 FF, zeros fill 07 00.
  EXPECT_EQ(sent_record(p[0], 0), wire_record(0, 1, 1, 2, 0x85, {0xF7, 0xFF, 0x82}, 0x82));
  EXPECT_EQ(sent_record(p[1], 0), wire_record(0, 1, 1, 2, 0x85, {0x07, 0x00, 0x73}, 0x73));
  auto got = raw_msgs();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].PID, 0x85);
  EXPECT_EQ(got[0].Data[0], 0xF7);
  EXPECT_EQ(got[1].Data[0], 0x07);
}

TEST_F(LdfBus, MasterReadUnpacksTheResponse) {
  open(1);
  ASSERT_EQ(LDF_ExeFrameToBus(h_, "R", 1), 0);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 1u);
  EXPECT_EQ(sent_record(p[0], 0), wire_record(0, 2, 1, 0, 0x50, {}, 0));
  EXPECT_EQ(value("R", "B"), double(0x2211));
  EXPECT_EQ(value("R", "C"), double(0x33));
  // Nobody answers 0x22: no data, the signal keeps its value.
  ASSERT_EQ(LDF_SetSignalValue(h_, "Q", "C", 9), 0);
  EXPECT_EQ(LDF_ExeFrameToBus(h_, "Q", 1), -7);
  EXPECT_EQ(value("Q", "C"), 9.0);
  auto got = raw_msgs();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].DataLen, 4);
  EXPECT_EQ(got[0].Data[2], 0x33);
  EXPECT_EQ(got[1].PID, sim::lin_pid(0x22));
  EXPECT_EQ(got[1].DataLen, 0);
}

TEST_F(LdfBus, ExchangeWithoutRecordIsPassedThrough) {
  open(1);
  // The virtual adapter runs no frames on a channel configured as slave: no record.
  ASSERT_EQ(LIN_EX_Init(kLinDev, 0, 19200, 0), 0);
  EXPECT_EQ(LDF_ExeFrameToBus(h_, "W", 1), 0);
  EXPECT_EQ(LDF_ExeSchToBus(h_, "T", 1), 0);
  EXPECT_EQ(sent(0x0F07).size(), 2u);  // the schedule stopped after its first entry
  EXPECT_TRUE(g_waits.empty());
  EXPECT_TRUE(raw_msgs().empty());
}

TEST_F(LdfBus, SlaveModeLoadsResponsesAndTakesInCaptures) {
  open(0);
  ASSERT_EQ(LDF_ExeFrameToBus(h_, "R", 1), 0);
  auto p = sent(0x0F08);
  ASSERT_EQ(p.size(), 1u);
  ASSERT_EQ(p[0].size(), 21u);
  // B = 0x1234, C = 0, byte 3 filled; enhanced checksum over PID 0x50.
  EXPECT_EQ(sent_record(p[0], 0),
            wire_record(0, 3, 1, 4, 0x50, {0x34, 0x12, 0x00, 0xFF, 0x69}, 0x69));

  with_bus([](sim::LinBus& b) { b.master_write(0, 0x05, {0x0A, 0x00}, true); });
  ASSERT_EQ(LDF_ExeFrameToBus(h_, "W", 1), 0);
  EXPECT_EQ(sent(0x0F09), (std::vector<Bytes>{{0}}));
  EXPECT_EQ(value("W", "A"), 10.0);
  auto got = raw_msgs();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].PID, 0x85);
  EXPECT_EQ(got[0].DataLen, 2);

  // A schedule in slave mode handles its entries at once, without waits.
  m_->clear_record();
  ASSERT_EQ(LDF_SetSchToTable(h_, "U", 1), 0);
  ASSERT_EQ(LDF_ExeSchToBus(h_, "U", 1), 0);
  EXPECT_EQ(sent(0x0F08).size(), 2u);  // Q, once per call
  EXPECT_EQ(sent(0x0F09).size(), 2u);  // W
  EXPECT_TRUE(sent(0x0F0C).empty());
  EXPECT_TRUE(g_waits.empty());
}

TEST_F(LdfBus, ScheduleRunWaitsEachEntrysDelay) {
  open(1);
  ASSERT_EQ(LDF_ExeSchToBus(h_, "T", 1), 0);
  auto p = sent(0x0F07);
  ASSERT_EQ(p.size(), 2u);  // Gone names no frame
  EXPECT_EQ(sent_record(p[0], 0), wire_record(0, 1, 1, 2, 0x85, {0xF5, 0xFF, 0x84}, 0x84));
  EXPECT_EQ(sent_record(p[1], 0), wire_record(0, 2, 1, 0, 0x50, {}, 0));
  EXPECT_EQ(g_waits, (std::vector<uint32_t>{10, 20}));
  EXPECT_EQ(value("R", "B"), double(0x2211));

  // An unanswered read does not stop a schedule.
  g_waits.clear();
  ASSERT_EQ(LDF_ExeSchToBus(h_, "U", 1), 0);
  EXPECT_EQ(sent(0x0F07).size(), 4u);
  EXPECT_EQ(g_waits, (std::vector<uint32_t>{5, 7}));
  EXPECT_EQ(raw_msgs().size(), 4u);
}

TEST_F(LdfBus, ScheduleLoadedIntoTheAdapterReadsBack) {
  open(1);
  m_->clear_record();
  ASSERT_EQ(LDF_SetSchToTable(h_, "T", 1), 0);
  auto p = sent(0x0F0C);
  ASSERT_EQ(p.size(), 1u);
  ASSERT_EQ(p[0].size(), 41u);
  EXPECT_EQ(sent_record(p[0], 0), wire_record(10, 1, 1, 2, 0x85, {0xF5, 0xFF, 0x84}, 0x84));
  EXPECT_EQ(sent_record(p[0], 1), wire_record(20, 2, 1, 0, 0x50, {}, 0));
  EXPECT_TRUE(sent(0x0F07).empty());

  std::vector<LIN_EX_MSG> back(LIN_EX_MAX_SCH_MSGS);
  ASSERT_EQ(LIN_EX_MasterGetSch(kLinDev, 0, back.data()), 2);
  EXPECT_EQ(back[0].MsgType, 1);
  EXPECT_EQ(back[0].PID, 0x85);
  EXPECT_EQ(back[0].Timestamp, 10u);
  EXPECT_EQ(back[0].Data[1], 0xFF);
  EXPECT_EQ(back[1].MsgType, 2);
  EXPECT_EQ(back[1].PID, 0x50);
  EXPECT_EQ(back[1].Timestamp, 20u);
}

}  // namespace
}  // namespace veltrix::test
