// The handle's queries: names, counts, publishers, and their result codes.
#include <cstring>
#include <string>

#include "ldf_fixture.hpp"

using namespace ldftest;

namespace {

class LdfHandle : public ::testing::Test {
 protected:
  LdfHandle() : h(fixture("cabin_lights.ldf")) {}
  Handle h;
  char name[256] = {};
};

// Two frames share a name; the first has one signal, the second two.
const char* kDuplicates = R"(
Nodes { Master: M, 5 ms, 0 ms; Slaves: S; }
Signals { A: 8, 0, M, S; B: 8, 0, S, M; C: 8, 0, S, M; }
Frames { D: 1, M, 1 { A, 0; } D: 2, S, 2 { B, 0; C, 8; } P: 3, , 1 { A, 0; } }
Schedule_tables { T { D delay 1 ms; } T { D delay 1 ms; P delay 2 ms; } }
)";

}  // namespace

TEST_F(LdfHandle, ParseStoresDeviceChannelAndMode) {
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->DevHandle, kDevice);
  EXPECT_EQ(h->LINIndex, 0);
  EXPECT_EQ(h->MasterMode, 1);
  EXPECT_EQ(h->Initialized, 0);  // no LIN channel set up
  LDF_CODING* slave = veltrix::ldf::parse_handle(kDevice, 3, 7, fixture("seat_heater.ldf").c_str());
  ASSERT_NE(slave, nullptr);
  EXPECT_EQ(slave->LINIndex, 3);
  EXPECT_EQ(slave->MasterMode, 1);  // any non-zero flag
  EXPECT_EQ(LDF_Release(slave), 0);
  LDF_CODING* s0 = veltrix::ldf::parse_handle(kDevice, 1, 0, fixture("seat_heater.ldf").c_str());
  ASSERT_NE(s0, nullptr);
  EXPECT_EQ(s0->MasterMode, 0);
  EXPECT_EQ(LDF_Release(s0), 0);
  EXPECT_EQ(LDF_Release(s0), -4);  // not a live handle any more
  EXPECT_EQ(LDF_Release(nullptr), -4);
  // Without an adapter behind the device the channel set-up fails: no handle.
  EXPECT_EQ(LDF_ParserFile(kDevice, 0, 1, fixture("seat_heater.ldf").c_str()), nullptr);
}

TEST_F(LdfHandle, HeaderAndCounts) {
  EXPECT_EQ(LDF_GetProtocolVersion(h.h), 220);
  EXPECT_EQ(LDF_GetLINSpeed(h.h), 19200);
  EXPECT_EQ(LDF_GetFrameQuantity(h.h), 7);
  EXPECT_EQ(LDF_GetSchQuantity(h.h), 5);
  EXPECT_EQ(LDF_GetFrameSignalQuantity(h.h, "MasterReq"), 8);
  EXPECT_EQ(LDF_GetFrameSignalQuantity(h.h, "DDM_Stat"), 2);
  EXPECT_EQ(LDF_GetSchFrameQuantity(h.h, "Door_resolver"), 8);
  EXPECT_EQ(LDF_GetFrameSignalQuantity(h.h, "ddm_stat"), -5);  // case-sensitive
  EXPECT_EQ(LDF_GetSchFrameQuantity(h.h, "nope"), -5);
  EXPECT_EQ(LDF_GetFrameSignalQuantity(h.h, nullptr), -5);
}

TEST_F(LdfHandle, NamesByIndexAndTheirBounds) {
  ASSERT_EQ(LDF_GetFrameName(h.h, 0, name), 0);
  EXPECT_STREQ(name, "BCM_Cmd");
  ASSERT_EQ(LDF_GetFrameName(h.h, 6, name), 0);
  EXPECT_STREQ(name, "SlaveResp");
  EXPECT_EQ(LDF_GetFrameName(h.h, 7, name), -5);
  EXPECT_EQ(LDF_GetFrameName(h.h, -1, name), -5);
  ASSERT_EQ(LDF_GetSchName(h.h, 4, name), 0);
  EXPECT_STREQ(name, "Door_resolver");
  EXPECT_EQ(LDF_GetSchName(h.h, 5, name), -5);
  ASSERT_EQ(LDF_GetFrameSignalName(h.h, "DDM_Stat", 1, name), 0);
  EXPECT_STREQ(name, "SelfCheck");
  EXPECT_EQ(LDF_GetFrameSignalName(h.h, "DDM_Stat", 2, name), -5);
  ASSERT_EQ(LDF_GetSchFrameName(h.h, "Run_Schedule", 3, name), 0);
  EXPECT_STREQ(name, "Door_Event");
  EXPECT_EQ(LDF_GetSchFrameName(h.h, "Run_Schedule", 4, name), -5);
}

TEST_F(LdfHandle, PublisherAndMasterName) {
  ASSERT_EQ(LDF_GetFramePublisher(h.h, "PDM_Dim", name), 0);
  EXPECT_STREQ(name, "PDM");
  ASSERT_EQ(LDF_GetFramePublisher(h.h, "MasterReq", name), 0);
  EXPECT_STREQ(name, "BCM");
  std::strcpy(name, "untouched");
  ASSERT_EQ(LDF_GetFramePublisher(h.h, "SlaveResp", name), 0);  // no publisher
  EXPECT_STREQ(name, "untouched");
  EXPECT_EQ(LDF_GetFramePublisher(h.h, "Nope", name), -5);
  ASSERT_EQ(LDF_GetMasterName(h.h, name), 0);
  EXPECT_STREQ(name, "BCM");
  Handle none(write_temp("Frames { F: 1, M, 1 { } }"));
  EXPECT_EQ(LDF_GetMasterName(none.h, name), -5);
}

TEST_F(LdfHandle, SignalFunctionsReportMissingFrameOrSignal) {
  double v = 0;
  EXPECT_EQ(LDF_GetSignalValue(h.h, "Nope", "SelfCheck", &v), -6);
  EXPECT_EQ(LDF_GetSignalValue(h.h, "DDM_Stat", "Nope", &v), -6);
  EXPECT_EQ(LDF_SetSignalValue(h.h, "DDM_Dim", "SelfCheck", 1), -6);  // signal of another frame
  EXPECT_EQ(LDF_GetSignalValueStr(h.h, "DDM_Stat", nullptr, name), -6);
  unsigned char data[8] = {};
  EXPECT_EQ(LDF_GetFrameRawValue(h.h, "Nope", data), -6);
  EXPECT_EQ(LDF_SetFrameRawValue(h.h, "Nope", data), -6);
  Handle empty(write_temp("LIN_speed = 19.2 kbps;"));
  EXPECT_EQ(LDF_GetFrameRawValue(empty.h, "F", data), -6);
  EXPECT_EQ(LDF_GetFrameName(empty.h, 0, name), -5);
  EXPECT_EQ(LDF_GetSchName(empty.h, 0, name), -5);
}

TEST_F(LdfHandle, NullHandleAndNullOutputs) {
  double v;
  EXPECT_EQ(LDF_GetProtocolVersion(nullptr), -4);
  EXPECT_EQ(LDF_GetFrameName(h.h, 0, nullptr), -4);
  EXPECT_EQ(LDF_GetFrameSignalQuantity(nullptr, "BCM_Cmd"), -4);
  EXPECT_EQ(LDF_SetSignalValue(nullptr, "BCM_Cmd", "CabinLightCmd", 1), -4);
  EXPECT_EQ(LDF_GetSignalValue(h.h, "BCM_Cmd", "CabinLightCmd", nullptr), -4);
  EXPECT_EQ(LDF_GetFrameRawValue(h.h, "BCM_Cmd", nullptr), -4);
  EXPECT_EQ(LDF_DataRawToFrame(&h->Frames[0], nullptr), -4);
  EXPECT_EQ(LDF_GetSignalValue(h.h, "BCM_Cmd", "CabinLightCmd", &v), 0);
}

TEST(LdfHandleDuplicates, FirstMatchWinsAndIndexedLookupsSkipShortRecords) {
  Handle h(write_temp(kDuplicates));
  ASSERT_NE(h.h, nullptr);
  char name[64];
  EXPECT_EQ(LDF_GetFrameSignalQuantity(h.h, "D"), 1);
  ASSERT_EQ(LDF_GetFrameSignalName(h.h, "D", 1, name), 0);  // from the second D
  EXPECT_STREQ(name, "C");
  ASSERT_EQ(LDF_GetFramePublisher(h.h, "D", name), 0);
  EXPECT_STREQ(name, "M");
  EXPECT_EQ(LDF_GetSchFrameQuantity(h.h, "T"), 1);
  ASSERT_EQ(LDF_GetSchFrameName(h.h, "T", 1, name), 0);
  EXPECT_STREQ(name, "P");
  // The setters act on the first D only.
  ASSERT_EQ(LDF_SetSignalValue(h.h, "D", "A", 7), 0);
  EXPECT_EQ(h->Frames[0].Signals[0].Value, 7);
  EXPECT_EQ(LDF_SetSignalValue(h.h, "D", "C", 7), -6);
  EXPECT_EQ(h->Frames[2].Publisher, nullptr);  // "P: 3, , 1": empty publisher field
}

// The exported first step of a decode: its codes, and that a later decode's reader sees the
// device flag it recorded.
TEST(LdfInit, CodesForDeviceFileAndPath) {
  EXPECT_EQ(LDF_Init(kUnknownDevice, corpus("lin_diagnostics.ldf").c_str()), -3);
  EXPECT_EQ(LDF_Init(kDevice, "/nonexistent/veltrix.ldf"), -1);
  EXPECT_EQ(LDF_Init(kDevice, nullptr), -1);
  EXPECT_EQ(LDF_Init(kDevice, corpus("lin_diagnostics.ldf").c_str()), 0);
  LDF_CODING c{};
  EXPECT_EQ(LDF_Decode(kUnknownDevice, corpus("lin_diagnostics.ldf").c_str(), &c), -3);
  EXPECT_EQ(c.FrameNum, 0);
}
