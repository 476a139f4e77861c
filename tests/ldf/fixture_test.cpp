// The LDF files written for the suite, parsed into handles and checked against what they
// say: every section the reader knows, so the suite needs nothing from outside the tree.
#include <cstring>
#include <string>
#include <vector>

#include "ldf/load.hpp"
#include "ldf/readers.hpp"
#include "ldf_fixture.hpp"

using namespace ldftest;

TEST(LdfFixtureFile, CabinFileHeaderNodesAndFrames) {
  Handle h(fixture("cabin_lights.ldf"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 220);
  EXPECT_EQ(h->LanguageVersion, 220);
  EXPECT_EQ(h->LINSpeed, 19200);
  ASSERT_NE(h->Nodes, nullptr);
  EXPECT_STREQ(h->Nodes->MasterName, "BCM");
  EXPECT_FLOAT_EQ(h->Nodes->TimeBase, 10.0f);
  EXPECT_FLOAT_EQ(h->Nodes->Jitter, 0.5f);
  ASSERT_EQ(h->Nodes->SlaveNum, 2);
  EXPECT_STREQ(h->Nodes->SlaveNames[0], "DDM");
  EXPECT_STREQ(h->Nodes->SlaveNames[1], "PDM");

  ASSERT_EQ(h->FrameNum, 7);
  struct Want {
    const char* name;
    int id;
    const char* pub;
    int size;
    int diag;
  };
  const Want want[] = {{"BCM_Cmd", 0x11, "BCM", 1, 0},    {"DDM_Dim", 0x12, "DDM", 2, 0},
                       {"DDM_Stat", 0x13, "DDM", 1, 0},    {"PDM_Dim", 0x14, "PDM", 2, 0},
                       {"PDM_Stat", 0x15, "PDM", 1, 0},    {"MasterReq", 60, "BCM", 8, 1},
                       {"SlaveResp", 61, nullptr, 8, 1}};
  for (int i = 0; i < 7; ++i) {
    const LDF_LIN_FRAME& f = h->Frames[i];
    SCOPED_TRACE(want[i].name);
    EXPECT_STREQ(f.Name, want[i].name);
    EXPECT_EQ(f.ID, want[i].id);
    if (want[i].pub)
      EXPECT_STREQ(f.Publisher, want[i].pub);
    else
      EXPECT_EQ(f.Publisher, nullptr);
    EXPECT_EQ(f.Size, want[i].size);
    EXPECT_EQ(f.IsDiagnostic, want[i].diag);
  }
  EXPECT_EQ(signal_names(frame(h.h, "DDM_Stat")),
            (std::vector<std::string>{"DDMfault", "SelfCheck"}));
  EXPECT_EQ(frame(h.h, "DDM_Stat")->Signals[1].StartBit, 1);
  EXPECT_EQ(frame(h.h, "DDM_Dim")->Signals[0].StartBit, 8);
  // The master request's signals are published by the master, the response's by nobody.
  const LDF_LIN_FRAME* mrf = frame(h.h, "MasterReq");
  ASSERT_EQ(mrf->SignalNum, 8);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(mrf->Signals[i].StartBit, 8 * i);
    EXPECT_EQ(mrf->Signals[i].Size, 8);
    EXPECT_STREQ(mrf->Signals[i].Publisher, "BCM");
  }
  EXPECT_EQ(frame(h.h, "SlaveResp")->Signals[7].Publisher, nullptr);
  EXPECT_STREQ(frame(h.h, "SlaveResp")->Signals[7].Name, "SlaveRespB7");
}

TEST(LdfFixtureFile, CabinFileSignalsAndEncodings) {
  Handle h(fixture("cabin_lights.ldf"));
  ASSERT_NE(h.h, nullptr);
  const LDF_LIN_SIGNAL& req = frame(h.h, "BCM_Cmd")->Signals[0];
  EXPECT_STREQ(req.Name, "CabinLightCmd");
  EXPECT_EQ(req.Size, 2);
  EXPECT_STREQ(req.Publisher, "BCM");
  ASSERT_EQ(req.SubscriberNum, 2);
  EXPECT_STREQ(req.Subscribers[0], "DDM");
  EXPECT_STREQ(req.Subscribers[1], "PDM");
  EXPECT_EQ(req.Max, 3.0);
  EXPECT_STREQ(req.SignalCoding.Name, "LampState");
  ASSERT_EQ(req.SignalCoding.LogicalNum, 4);
  EXPECT_EQ(req.SignalCoding.LogicalValues[3].Value, 3);
  EXPECT_STREQ(req.SignalCoding.LogicalValues[3].Text, "unavailable");

  const LDF_LIN_SIGNAL& light = frame(h.h, "PDM_Dim")->Signals[0];
  EXPECT_STREQ(light.SignalCoding.Name, "DimLevel");
  ASSERT_EQ(light.SignalCoding.PhysicalNum, 1);
  const LDF_PHYSICAL_VALUE& r = light.SignalCoding.PhysicalValues[0];
  EXPECT_EQ(r.Min, 1);
  EXPECT_EQ(r.Max, 250);
  EXPECT_EQ(r.Scale, 0.4);
  EXPECT_EQ(r.Offset, 0.0);
  EXPECT_STREQ(r.Unit, "%");
  EXPECT_STREQ(frame(h.h, "PDM_Stat")->Signals[0].SignalCoding.Name, "FaultFlag");
  // SelfCheck is named by no representation.
  EXPECT_EQ(frame(h.h, "DDM_Stat")->Signals[1].SignalCoding.Name, nullptr);
}

TEST(LdfFixtureFile, CabinFileSchedules) {
  Handle h(fixture("cabin_lights.ldf"));
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(h->SchNum, 5);
  const char* names[] = {"Setup_Schedule", "Run_Schedule", "Diag_Request", "Diag_Response",
                         "Door_resolver"};
  for (int i = 0; i < 5; ++i) EXPECT_STREQ(h->Schs[i].Name, names[i]);
  // Configuration commands name no frame: kept, empty, with their delay.
  const LDF_LIN_SCH& config = h->Schs[0];
  ASSERT_EQ(config.FrameNum, 10);
  EXPECT_STREQ(config.Frames[0].Frame.Name, "AssignNAD{DDM}");
  EXPECT_STREQ(config.Frames[6].Frame.Name, "AssignFrameId{PDM,BCM_Cmd}");
  EXPECT_EQ(config.Frames[6].Frame.ID, 0);
  EXPECT_EQ(config.Frames[6].Frame.Signals, nullptr);
  EXPECT_FLOAT_EQ(config.Frames[9].Delay, 20.0f);
  EXPECT_EQ(schedule_entries(h->Schs[1]),
            (std::vector<std::string>{"BCM_Cmd", "DDM_Stat", "PDM_Stat", "Door_Event"}));
  EXPECT_EQ(h->Schs[1].Frames[2].Frame.ID, 0x15);
  EXPECT_EQ(h->Schs[1].Frames[3].Frame.Size, 0);  // event-triggered: not a known frame
  EXPECT_FLOAT_EQ(h->Schs[1].Frames[3].Delay, 10.0f);
  EXPECT_EQ(h->Schs[2].Frames[0].Frame.ID, 60);
  EXPECT_STREQ(h->Schs[2].Frames[0].Frame.Publisher, "BCM");
  EXPECT_EQ(schedule_entries(h->Schs[4]),
            (std::vector<std::string>{"BCM_Cmd", "DDM_Stat", "PDM_Stat", "PDM_Dim", "BCM_Cmd",
                                      "DDM_Stat", "PDM_Stat", "DDM_Dim"}));
}

TEST(LdfFixtureFile, CabinFileNodeAttributes) {
  Handle h(fixture("cabin_lights.ldf"));
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(h->NodeAttrNum, 2);
  const LDF_NODE_ATTR* pdm = node(h.h, "PDM");
  ASSERT_NE(pdm, nullptr);
  EXPECT_EQ(pdm->ProtocolVersion, 210);
  EXPECT_EQ(pdm->ConfiguredNAD, 0x32);
  EXPECT_EQ(pdm->InitialNAD, 0);
  EXPECT_EQ(pdm->SupplierID, 0x1A2B);
  EXPECT_EQ(pdm->FunctionID, 0x3C4D);
  EXPECT_EQ(pdm->VariantID, 2);
  EXPECT_STREQ(pdm->ResponseError, "PDMfault");
  EXPECT_EQ(pdm->FaultStateSignalNum, 0);
  EXPECT_FLOAT_EQ(pdm->P2_min, 100.0f);
  EXPECT_FLOAT_EQ(pdm->ST_min, 20.0f);
  EXPECT_FLOAT_EQ(pdm->N_As_timeout, 0.0f);
  ASSERT_EQ(pdm->ConfigFrameNum, 4);
  EXPECT_STREQ(pdm->ConfigFrames[0], "Door_Event");
  EXPECT_STREQ(pdm->ConfigFrames[3], "PDM_Stat");

  const LDF_NODE_ATTR* ddm = node(h.h, "DDM");
  ASSERT_NE(ddm, nullptr);
  EXPECT_EQ(ddm->ProtocolVersion, 220);
  EXPECT_EQ(ddm->ConfiguredNAD, 0x31);
  EXPECT_EQ(ddm->InitialNAD, 0x05);
  EXPECT_EQ(ddm->SupplierID, 0x1A2B);
  EXPECT_EQ(ddm->FunctionID, 0x3C4E);
  EXPECT_EQ(ddm->VariantID, 0);
  ASSERT_EQ(ddm->FaultStateSignalNum, 1);
  EXPECT_STREQ(ddm->FaultStateSignals[0], "SelfCheck");
  EXPECT_FLOAT_EQ(ddm->N_As_timeout, 800.0f);
  EXPECT_FLOAT_EQ(ddm->N_Cr_timeout, 900.0f);
  ASSERT_EQ(ddm->ConfigFrameNum, 4);
  EXPECT_STREQ(ddm->ConfigFrames[2], "DDM_Dim");
}

TEST(LdfFixtureFile, SeatHeaterFileCrLfSizesFromIdentifiersAndSporadicFrames) {
  Handle h(fixture("seat_heater.ldf"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 210);
  EXPECT_EQ(h->LanguageVersion, 210);
  EXPECT_EQ(h->LINSpeed, 10417);
  ASSERT_NE(h->Nodes, nullptr);
  EXPECT_STREQ(h->Nodes->MasterName, "SCU");
  EXPECT_FLOAT_EQ(h->Nodes->Jitter, 0.1f);
  ASSERT_EQ(h->Nodes->SlaveNum, 1);
  EXPECT_STREQ(h->Nodes->SlaveNames[0], "HTR");
  ASSERT_EQ(h->FrameNum, 2);
  // No size in the file: identifiers 0..0x1F carry 2 bytes.
  EXPECT_EQ(frame(h.h, "HeaterCmd")->Size, 2);
  EXPECT_STREQ(frame(h.h, "HeaterCmd")->Publisher, "SCU");
  EXPECT_EQ(frame(h.h, "HeaterStat")->Size, 4);
  ASSERT_EQ(h->SchNum, 1);
  EXPECT_EQ(schedule_entries(h->Schs[0]),
            (std::vector<std::string>{"HeaterCmd", "HeaterStat", "Heater_SF"}));
  EXPECT_FLOAT_EQ(h->Schs[0].Frames[1].Delay, 12.5f);
  EXPECT_EQ(h->Schs[0].Frames[2].Frame.Size, 0);  // the sporadic slot is not a frame
  ASSERT_EQ(h->NodeAttrNum, 1);
  const LDF_NODE_ATTR& a = h->NodeAttrs[0];
  EXPECT_STREQ(a.Name, "HTR");
  EXPECT_EQ(a.ProtocolVersion, 210);  // unquoted LIN_protocol = 2.1
  EXPECT_EQ(a.ConfiguredNAD, 0x0A);
  EXPECT_EQ(a.InitialNAD, 0x0A);
  EXPECT_EQ(a.SupplierID, 2);
  EXPECT_EQ(a.FunctionID, 0x10);
  EXPECT_EQ(a.VariantID, 255);
  EXPECT_STREQ(a.ResponseError, "PadTemp");
  ASSERT_EQ(a.ConfigFrameNum, 1);
  EXPECT_STREQ(a.ConfigFrames[0], "HeaterCmd");
}

TEST(LdfFixtureFile, SeatHeaterFileArraysAndEncodings) {
  Handle h(fixture("seat_heater.ldf"));
  ASSERT_NE(h.h, nullptr);
  const LDF_LIN_FRAME* stat = frame(h.h, "HeaterStat");
  ASSERT_NE(stat, nullptr);
  ASSERT_EQ(stat->SignalNum, 2);
  const LDF_LIN_SIGNAL& serial = stat->Signals[1];
  EXPECT_STREQ(serial.Name, "SerialNo");
  EXPECT_EQ(serial.StartBit, 16);
  EXPECT_EQ(serial.Size, 16);
  EXPECT_EQ(serial.HasArrayInit, 1);
  EXPECT_EQ(serial.ArrayValue[0], 0x12);
  EXPECT_EQ(serial.ArrayValue[1], 34);
  EXPECT_STREQ(serial.SignalCoding.Name, "SerialEnc");
  EXPECT_EQ(serial.SignalCoding.LogicalNum + serial.SignalCoding.PhysicalNum, 0);

  const LDF_SIGNAL_CODING& temp = stat->Signals[0].SignalCoding;
  EXPECT_STREQ(temp.Name, "TempEnc");
  ASSERT_EQ(temp.PhysicalNum, 1);
  EXPECT_EQ(temp.PhysicalValues[0].Min, 0);
  EXPECT_EQ(temp.PhysicalValues[0].Max, 1000);
  EXPECT_DOUBLE_EQ(temp.PhysicalValues[0].Scale, 0.125);  // 1.25E-01
  EXPECT_DOUBLE_EQ(temp.PhysicalValues[0].Offset, -40.0);  // -4.0e1
  EXPECT_STREQ(temp.PhysicalValues[0].Unit, "deg C");  // blank inside quotes kept
  ASSERT_EQ(temp.LogicalNum, 1);
  EXPECT_EQ(temp.LogicalValues[0].Value, 1023);
  EXPECT_STREQ(temp.LogicalValues[0].Text, "sensor open");

  // A physical value travels as (value - offset) / scale.
  ASSERT_EQ(LDF_SetSignalValue(h.h, "HeaterStat", "PadTemp", 21.5), 0);
  EXPECT_EQ(stat->Signals[0].Value, 492);
  double back = 0;
  ASSERT_EQ(LDF_GetSignalValue(h.h, "HeaterStat", "PadTemp", &back), 0);
  EXPECT_DOUBLE_EQ(back, 21.5);
}
