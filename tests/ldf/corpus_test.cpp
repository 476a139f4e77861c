// Every sample file parsed into a handle, checked against what the file says.
#include <cstring>
#include <string>
#include <vector>

#include "ldf/load.hpp"
#include "ldf/readers.hpp"
#include "ldf_fixture.hpp"

using namespace ldftest;

namespace {

std::vector<std::string> signal_names(const LDF_LIN_FRAME* f) {
  std::vector<std::string> out;
  for (int i = 0; i < f->SignalNum; ++i) out.push_back(f->Signals[i].Name);
  return out;
}

std::vector<std::string> schedule_entries(const LDF_LIN_SCH& s) {
  std::vector<std::string> out;
  for (int i = 0; i < s.FrameNum; ++i) out.push_back(s.Frames[i].Frame.Name);
  return out;
}

const LDF_NODE_ATTR* node(const LDF_CODING* c, const std::string& name) {
  for (int i = 0; i < c->NodeAttrNum; ++i)
    if (name == c->NodeAttrs[i].Name) return &c->NodeAttrs[i];
  return nullptr;
}

}  // namespace

TEST(LdfCorpus, DiagnosticsFileHeaderNodesAndFrames) {
  Handle h(corpus("lin_diagnostics.ldf"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 220);
  EXPECT_EQ(h->LanguageVersion, 220);
  EXPECT_EQ(h->LINSpeed, 19200);
  ASSERT_NE(h->Nodes, nullptr);
  EXPECT_STREQ(h->Nodes->MasterName, "CEM");
  EXPECT_FLOAT_EQ(h->Nodes->TimeBase, 5.0f);
  EXPECT_FLOAT_EQ(h->Nodes->Jitter, 0.1f);
  ASSERT_EQ(h->Nodes->SlaveNum, 2);
  EXPECT_STREQ(h->Nodes->SlaveNames[0], "LSM");
  EXPECT_STREQ(h->Nodes->SlaveNames[1], "RSM");

  ASSERT_EQ(h->FrameNum, 7);
  struct Want {
    const char* name;
    int id;
    const char* pub;
    int size;
    int diag;
  };
  const Want want[] = {{"CEM_Frm1", 1, "CEM", 1, 0},    {"LSM_Frm1", 2, "LSM", 2, 0},
                       {"LSM_Frm2", 3, "LSM", 1, 0},    {"RSM_Frm1", 4, "RSM", 2, 0},
                       {"RSM_Frm2", 5, "RSM", 1, 0},    {"MasterReq", 60, "CEM", 8, 1},
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
  EXPECT_EQ(signal_names(frame(h.h, "LSM_Frm2")),
            (std::vector<std::string>{"LSMerror", "IntTest"}));
  EXPECT_EQ(frame(h.h, "LSM_Frm2")->Signals[1].StartBit, 1);
  EXPECT_EQ(frame(h.h, "LSM_Frm1")->Signals[0].StartBit, 8);
  // The master request's signals are published by the master, the response's by nobody.
  const LDF_LIN_FRAME* mrf = frame(h.h, "MasterReq");
  ASSERT_EQ(mrf->SignalNum, 8);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(mrf->Signals[i].StartBit, 8 * i);
    EXPECT_EQ(mrf->Signals[i].Size, 8);
    EXPECT_STREQ(mrf->Signals[i].Publisher, "CEM");
  }
  EXPECT_EQ(frame(h.h, "SlaveResp")->Signals[7].Publisher, nullptr);
  EXPECT_STREQ(frame(h.h, "SlaveResp")->Signals[7].Name, "SlaveRespB7");
}

TEST(LdfCorpus, DiagnosticsFileSignalsAndEncodings) {
  Handle h(corpus("lin_diagnostics.ldf"));
  ASSERT_NE(h.h, nullptr);
  const LDF_LIN_SIGNAL& req = frame(h.h, "CEM_Frm1")->Signals[0];
  EXPECT_STREQ(req.Name, "InternalLightsRequest");
  EXPECT_EQ(req.Size, 2);
  EXPECT_STREQ(req.Publisher, "CEM");
  ASSERT_EQ(req.SubscriberNum, 2);
  EXPECT_STREQ(req.Subscribers[0], "LSM");
  EXPECT_STREQ(req.Subscribers[1], "RSM");
  EXPECT_EQ(req.Max, 3.0);
  EXPECT_STREQ(req.SignalCoding.Name, "Dig2Bit");
  ASSERT_EQ(req.SignalCoding.LogicalNum, 4);
  EXPECT_EQ(req.SignalCoding.LogicalValues[3].Value, 3);
  EXPECT_STREQ(req.SignalCoding.LogicalValues[3].Text, "void");

  const LDF_LIN_SIGNAL& light = frame(h.h, "RSM_Frm1")->Signals[0];
  EXPECT_STREQ(light.SignalCoding.Name, "LightEncoding");
  ASSERT_EQ(light.SignalCoding.PhysicalNum, 1);
  const LDF_PHYSICAL_VALUE& r = light.SignalCoding.PhysicalValues[0];
  EXPECT_EQ(r.Min, 1);
  EXPECT_EQ(r.Max, 254);
  EXPECT_EQ(r.Scale, 1.0);
  EXPECT_EQ(r.Offset, 100.0);
  EXPECT_STREQ(r.Unit, "lux");
  EXPECT_STREQ(frame(h.h, "RSM_Frm2")->Signals[0].SignalCoding.Name, "ErrorEncoding");
  // IntTest is named by no representation.
  EXPECT_EQ(frame(h.h, "LSM_Frm2")->Signals[1].SignalCoding.Name, nullptr);
}

TEST(LdfCorpus, DiagnosticsFileSchedules) {
  Handle h(corpus("lin_diagnostics.ldf"));
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(h->SchNum, 5);
  const char* names[] = {"Configuration_Schedule", "Normal_Schedule", "MRF_schedule",
                         "SRF_schedule", "Collision_resolver"};
  for (int i = 0; i < 5; ++i) EXPECT_STREQ(h->Schs[i].Name, names[i]);
  // Configuration commands name no frame: kept, empty, with their delay.
  const LDF_LIN_SCH& config = h->Schs[0];
  ASSERT_EQ(config.FrameNum, 10);
  EXPECT_STREQ(config.Frames[0].Frame.Name, "AssignNAD{LSM}");
  EXPECT_STREQ(config.Frames[6].Frame.Name, "AssignFrameId{RSM,CEM_Frm1}");
  EXPECT_EQ(config.Frames[6].Frame.ID, 0);
  EXPECT_EQ(config.Frames[6].Frame.Signals, nullptr);
  EXPECT_FLOAT_EQ(config.Frames[9].Delay, 15.0f);
  EXPECT_EQ(schedule_entries(h->Schs[1]),
            (std::vector<std::string>{"CEM_Frm1", "LSM_Frm2", "RSM_Frm2", "Node_Status_Event"}));
  EXPECT_EQ(h->Schs[1].Frames[2].Frame.ID, 5);
  EXPECT_EQ(h->Schs[1].Frames[3].Frame.Size, 0);  // event-triggered: not a known frame
  EXPECT_FLOAT_EQ(h->Schs[1].Frames[3].Delay, 10.0f);
  EXPECT_EQ(h->Schs[2].Frames[0].Frame.ID, 60);
  EXPECT_STREQ(h->Schs[2].Frames[0].Frame.Publisher, "CEM");
  EXPECT_EQ(schedule_entries(h->Schs[4]),
            (std::vector<std::string>{"CEM_Frm1", "LSM_Frm2", "RSM_Frm2", "RSM_Frm1", "CEM_Frm1",
                                      "LSM_Frm2", "RSM_Frm2", "LSM_Frm1"}));
}

TEST(LdfCorpus, DiagnosticsFileNodeAttributes) {
  Handle h(corpus("lin_diagnostics.ldf"));
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(h->NodeAttrNum, 2);
  const LDF_NODE_ATTR* rsm = node(h.h, "RSM");
  ASSERT_NE(rsm, nullptr);
  EXPECT_EQ(rsm->ProtocolVersion, 200);
  EXPECT_EQ(rsm->ConfiguredNAD, 0x20);
  EXPECT_EQ(rsm->InitialNAD, 0);
  EXPECT_EQ(rsm->SupplierID, 0x4E4E);
  EXPECT_EQ(rsm->FunctionID, 0x4553);
  EXPECT_EQ(rsm->VariantID, 1);
  EXPECT_STREQ(rsm->ResponseError, "RSMerror");
  EXPECT_EQ(rsm->FaultStateSignalNum, 0);
  EXPECT_FLOAT_EQ(rsm->P2_min, 150.0f);
  EXPECT_FLOAT_EQ(rsm->ST_min, 50.0f);
  EXPECT_FLOAT_EQ(rsm->N_As_timeout, 0.0f);
  ASSERT_EQ(rsm->ConfigFrameNum, 4);
  EXPECT_STREQ(rsm->ConfigFrames[0], "Node_Status_Event");
  EXPECT_STREQ(rsm->ConfigFrames[3], "RSM_Frm2");

  const LDF_NODE_ATTR* lsm = node(h.h, "LSM");
  ASSERT_NE(lsm, nullptr);
  EXPECT_EQ(lsm->ProtocolVersion, 220);
  EXPECT_EQ(lsm->ConfiguredNAD, 0x21);
  EXPECT_EQ(lsm->InitialNAD, 0x01);
  EXPECT_EQ(lsm->SupplierID, 0x4A4F);
  EXPECT_EQ(lsm->FunctionID, 0x4841);
  EXPECT_EQ(lsm->VariantID, 0);
  ASSERT_EQ(lsm->FaultStateSignalNum, 1);
  EXPECT_STREQ(lsm->FaultStateSignals[0], "IntTest");
  EXPECT_FLOAT_EQ(lsm->N_As_timeout, 1000.0f);
  EXPECT_FLOAT_EQ(lsm->N_Cr_timeout, 1000.0f);
  ASSERT_EQ(lsm->ConfigFrameNum, 4);
  EXPECT_STREQ(lsm->ConfigFrames[2], "LSM_Frm1");
}

TEST(LdfCorpus, J2602File) {
  Handle h(corpus("j2602_1.ldf"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 200);
  EXPECT_EQ(h->LanguageVersion, 200);
  EXPECT_EQ(h->LINSpeed, 19200);
  EXPECT_STREQ(h->Nodes->MasterName, "CEM");
  EXPECT_FLOAT_EQ(h->Nodes->Jitter, 0.1f);
  ASSERT_EQ(h->Nodes->SlaveNum, 1);
  EXPECT_STREQ(h->Nodes->SlaveNames[0], "LSM");
  ASSERT_EQ(h->FrameNum, 2);
  // No size in the file: identifiers 0..0x1F carry 2 bytes.
  EXPECT_EQ(frame(h.h, "VL1_CEM_Frm1")->Size, 2);
  EXPECT_STREQ(frame(h.h, "VL1_LSM_Frm1")->Publisher, "LSM");
  EXPECT_STREQ(frame(h.h, "VL1_LSM_Frm1")->Signals[0].SignalCoding.Name, "Dig2Bit");
  ASSERT_EQ(h->NodeAttrNum, 1);
  EXPECT_EQ(h->NodeAttrs[0].ProtocolVersion, 200);  // unquoted LIN_protocol = 2.0
  EXPECT_EQ(h->NodeAttrs[0].ConfiguredNAD, 1);
  EXPECT_EQ(h->NodeAttrs[0].ConfigFrameNum, 0);
  ASSERT_EQ(h->SchNum, 1);
  EXPECT_EQ(schedule_entries(h->Schs[0]),
            (std::vector<std::string>{"VL1_CEM_Frm1", "VL1_LSM_Frm1"}));
  EXPECT_FLOAT_EQ(h->Schs[0].Frames[1].Delay, 15.0f);
}

TEST(LdfCorpus, SporadicFramesFile) {
  Handle h(corpus("ldf_with_sporadic_frames.ldf"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 220);
  EXPECT_FLOAT_EQ(h->Nodes->TimeBase, 10.0f);
  EXPECT_FLOAT_EQ(h->Nodes->Jitter, 0.0f);
  ASSERT_EQ(h->FrameNum, 1);
  const LDF_LIN_FRAME* f = frame(h.h, "REQ_POST_RUN");
  EXPECT_EQ(f->ID, 30);
  EXPECT_EQ(f->Size, 4);
  EXPECT_EQ(f->Signals[1].StartBit, 16);
  EXPECT_EQ(f->Signals[1].Size, 12);
  const LDF_SIGNAL_CODING& c = f->Signals[1].SignalCoding;
  EXPECT_STREQ(c.Name, "POST_RUN_DURATION_Encoding");
  ASSERT_EQ(c.LogicalNum, 3);
  EXPECT_STREQ(c.LogicalValues[0].Text, "not avaible");  // blank inside quotes kept
  EXPECT_EQ(c.LogicalValues[2].Value, 4095);
  ASSERT_EQ(c.PhysicalNum, 1);
  EXPECT_EQ(c.PhysicalValues[0].Max, 4092);
  EXPECT_STREQ(c.PhysicalValues[0].Unit, "s");
  ASSERT_EQ(h->SchNum, 1);
  ASSERT_EQ(h->Schs[0].FrameNum, 1);
  EXPECT_STREQ(h->Schs[0].Frames[0].Frame.Name, "SF_REQ_POST_RUN");
  EXPECT_EQ(h->Schs[0].Frames[0].Frame.Size, 0);
  const LDF_NODE_ATTR& a = h->NodeAttrs[0];
  EXPECT_STREQ(a.Name, "SLAVE");
  EXPECT_EQ(a.ConfiguredNAD, 0x0D);
  EXPECT_EQ(a.InitialNAD, 0x0D);
  EXPECT_EQ(a.SupplierID, 2);
  EXPECT_EQ(a.VariantID, 255);
  EXPECT_STREQ(a.ResponseError, "CYC_READ_STATUS_LIN_RESPONSE");
  ASSERT_EQ(a.ConfigFrameNum, 1);
  EXPECT_STREQ(a.ConfigFrames[0], "REQ_POST_RUN");
}

TEST(LdfCorpus, EncodersFileArraysAndCrLf) {
  Handle h(corpus("lin_encoders.ldf"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 210);
  EXPECT_STREQ(h->Nodes->MasterName, "main_node");
  const LDF_LIN_FRAME* f = frame(h.h, "dummy_frame");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->ID, 0x25);
  EXPECT_EQ(f->Size, 8);
  const LDF_LIN_SIGNAL& bcd = f->Signals[0];
  EXPECT_EQ(bcd.HasArrayInit, 1);
  EXPECT_EQ(bcd.IsArray, 0);
  EXPECT_EQ(bcd.Value, 0);
  EXPECT_EQ(bcd.ArrayValue[0], 0x32);
  EXPECT_EQ(bcd.ArrayValue[1], 32);
  EXPECT_STREQ(bcd.SignalCoding.Name, "BCDEncoding");
  EXPECT_EQ(f->Signals[1].ArrayValue[1], 0x16);
  EXPECT_EQ(f->Signals[1].StartBit, 16);
  unsigned char data[8];
  ASSERT_EQ(LDF_GetFrameRawValue(h.h, "dummy_frame", data), 0);
  const unsigned char want[8] = {0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(0, std::memcmp(data, want, 8));
  // MasterReq and SlaveResp are not declared in this file: entries kept, empty.
  ASSERT_EQ(h->SchNum, 3);
  EXPECT_STREQ(h->Schs[0].Frames[0].Frame.Name, "MasterReq");
  EXPECT_EQ(h->Schs[0].Frames[0].Frame.ID, 0);
  EXPECT_EQ(h->NodeAttrs[0].SupplierID, 5);
  EXPECT_EQ(h->NodeAttrs[0].FunctionID, 0xA5A5);
}

TEST(LdfCorpus, EncodersFileEncodingTypesIncludingScientificNotation) {
  using namespace veltrix::ldf;
  std::vector<LDF_SIGNAL_CODING> codings;
  Storage mem;
  {
    std::scoped_lock lock(load_mutex());
    ASSERT_EQ(LDF_Init(load_state(), kDevice, corpus("lin_encoders.ldf").c_str()), 0);
    ASSERT_EQ(LDF_GetSignalsCoding(load_state(), mem, codings), 9);
  }
  const LDF_SIGNAL_CODING& bat = codings[1];
  EXPECT_STREQ(bat.Name, "V_battery");
  ASSERT_EQ(bat.LogicalNum, 3);
  EXPECT_STREQ(bat.LogicalValues[0].Text, "under voltage");
  ASSERT_EQ(bat.PhysicalNum, 3);
  EXPECT_EQ(bat.PhysicalValues[1].Min, 64);
  EXPECT_EQ(bat.PhysicalValues[1].Max, 191);
  EXPECT_DOUBLE_EQ(bat.PhysicalValues[1].Scale, 0.0104);
  EXPECT_DOUBLE_EQ(bat.PhysicalValues[2].Offset, 13.0);
  EXPECT_STREQ(codings[6].Name, "AsciiEncoding");
  EXPECT_EQ(codings[6].LogicalNum + codings[6].PhysicalNum, 0);
  const LDF_SIGNAL_CODING& sci = codings[8];
  EXPECT_STREQ(sci.Name, "ScientificEncoding");
  ASSERT_EQ(sci.PhysicalNum, 5);
  EXPECT_DOUBLE_EQ(sci.PhysicalValues[0].Scale, 5.6785558246e-04);
  EXPECT_DOUBLE_EQ(sci.PhysicalValues[1].Scale, 7.654E-02);
  EXPECT_DOUBLE_EQ(sci.PhysicalValues[3].Scale, 1.222E09);
  EXPECT_DOUBLE_EQ(sci.PhysicalValues[4].Scale, 350.0);
  EXPECT_DOUBLE_EQ(sci.PhysicalValues[4].Offset, 5.0);
  EXPECT_EQ(sci.PhysicalValues[4].Max, 65535);
}
