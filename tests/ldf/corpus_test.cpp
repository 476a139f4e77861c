// The sample files from outside the tree, parsed into handles and checked against what
// they say; skipped when the samples are absent.
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/corpus.hpp"
#include "ldf/load.hpp"
#include "ldf/readers.hpp"
#include "ldf_fixture.hpp"

using namespace ldftest;


class LdfCorpus : public veltrix::test::CorpusTest {};

TEST_F(LdfCorpus, J2602File) {
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

TEST_F(LdfCorpus, SporadicFramesFile) {
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

TEST_F(LdfCorpus, EncodersFileArraysAndCrLf) {
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

TEST_F(LdfCorpus, EncodersFileEncodingTypesIncludingScientificNotation) {
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
