// The reader on hand-written files: cleaning, header values, the section rules, limits
// and refusals.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "ldf/load.hpp"
#include "ldf_fixture.hpp"

using namespace ldftest;

namespace {

const char* kSmall = R"(LIN_description_file;
LIN_protocol_version = "2.1";
LIN_language_version = "2.1";
LIN_speed = 10.417 kbps;
Nodes { Master: M, 5 ms, 0.5 ms; Slaves: S1, S2; }
Signals {
  A: 4, 5, M, S1;
  B: 12, 0x10, S1, M;
}
Frames {
  F1: 0x10, M, 2 { A, 0; }
  F2: 0x11, S1, 2 { B, 4; }
}
Schedule_tables { T { F1 delay 10 ms; Nope delay 5 ms; F2 delay 20.5 ms; } }
)";

}  // namespace

TEST(LdfReader, VersionTexts) {
  struct Case {
    const char* text;
    int want;
  };
  for (Case c : {Case{"J2602_1_1.0", 200}, Case{"2.2", 220}, Case{"1.3", 130}, Case{"2.0", 200},
                 Case{"", 0}}) {
    SCOPED_TRACE(c.text);
    Handle h(write_temp(std::string("LIN_protocol_version = \"") + c.text +
                        "\";\nLIN_language_version = \"" + c.text + "\";\n"));
    ASSERT_NE(h.h, nullptr);
    EXPECT_EQ(h->ProtocolVersion, c.want);
    EXPECT_EQ(h->LanguageVersion, c.want);
  }
}

TEST(LdfReader, HeaderValuesReadAtMostSixteenCharacters) {
  // Only the first 16 characters count: "0000000000000002.5" reads as 2, not 2.5.
  Handle h(
      write_temp("LIN_protocol_version = \"0000000000000002.5\";\n"
                 "LIN_speed = 0000000000000019.2 kbps;"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->ProtocolVersion, 200);
  EXPECT_EQ(h->LINSpeed, 19000);
  Handle speed(write_temp(kSmall));
  EXPECT_EQ(speed->LINSpeed, 10417);
}

TEST(LdfReader, CommentsAreDroppedAroundAndInsideSections) {
  std::string text = std::string(kSmall) +
                     "/* a block comment\r\n spanning lines with Frames { X: 1, M, 1 { } } */\n";
  text.replace(text.find("F1: 0x10, M, 2 { A, 0; }"), 24,
               "F1: 0x10, M, 2 { A, 0; // trailing comment } not closing\r\n }");
  Handle h(write_temp(text));
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(h->FrameNum, 2);
  EXPECT_STREQ(h->Frames[0].Name, "F1");
  ASSERT_EQ(h->Frames[0].SignalNum, 1);
  EXPECT_STREQ(h->Frames[0].Signals[0].Name, "A");
  EXPECT_EQ(h->Frames[0].Signals[0].Value, 5);
}

TEST(LdfReader, CleaningKeepsOnlyPrintablesAndBlanksInsideQuotes) {
  using veltrix::ldf::clean_text;
  EXPECT_EQ(clean_text("LIN_speed = 19.2 kbps;\r\n"), "LIN_speed=19.2kbps;");
  EXPECT_EQ(clean_text("F1: 0x10, Master, 2 {"), "F1:0x10,Master,2{");
  EXPECT_EQ(clean_text("a, \"x  y\t\xC3\xA9z\" ,b"), "a,\"x  yz\",b");
  EXPECT_EQ(clean_text("a/* x */b/*/c*/d"), "abd");
  EXPECT_EQ(clean_text("a// x\rstill comment\nb"), "ab");  // a lone CR does not end it
  EXPECT_EQ(clean_text("a/* never closed"), "a");
}

TEST(LdfReader, QuotedLogicalTextKeepsInnerBlanks) {
  Handle h(write_temp(std::string(kSmall) +
                      "Signal_encoding_types { E { logical_value, 3, \"on  now\"; "
                      "physical_value, 0, 254, 0.5, -10, \"deg C\"; } }\n"
                      "Signal_representation { E: A, B; }\n"));
  ASSERT_NE(h.h, nullptr);
  const LDF_SIGNAL_CODING& c = h->Frames[0].Signals[0].SignalCoding;
  ASSERT_EQ(c.LogicalNum, 1);
  EXPECT_STREQ(c.LogicalValues[0].Text, "on  now");
  ASSERT_EQ(c.PhysicalNum, 1);
  EXPECT_STREQ(c.PhysicalValues[0].Unit, "deg C");
  EXPECT_EQ(c.PhysicalValues[0].Offset, -10.0);
  EXPECT_STREQ(h->Frames[1].Signals[0].SignalCoding.Name, "E");
}

TEST(LdfReader, ArraySignalInBothSignalSections) {
  Handle h(write_temp(R"(
Nodes { Master: Master, 5 ms, 0 ms; Slaves: Slave1; }
Signals { S1: 16, {1, 2}, Master, Slave1; }
Diagnostic_signals { S1: 16, {1, 2}, Master, Slave1; }
Frames { F: 0x01, Master, 2 { S1, 0; } }
Diagnostic_frames { D: 0x3C { S1, 0; } }
)"));
  ASSERT_NE(h.h, nullptr);
  // The frame takes the first S1, the one of the Signals section.
  const LDF_LIN_SIGNAL& s = frame(h.h, "F")->Signals[0];
  EXPECT_EQ(s.ArrayValue[0], 1);
  EXPECT_EQ(s.ArrayValue[1], 2);
  EXPECT_EQ(s.HasArrayInit, 1);
  EXPECT_EQ(s.IsArray, 0);
  EXPECT_EQ(s.Value, 0);
  EXPECT_STREQ(s.Publisher, "Master");
  ASSERT_EQ(s.SubscriberNum, 1);
  EXPECT_STREQ(s.Subscribers[0], "Slave1");
  EXPECT_EQ(frame(h.h, "D")->Size, 8);
  EXPECT_EQ(frame(h.h, "D")->IsDiagnostic, 1);

  Handle d(
      write_temp("Diagnostic_signals { S1: 16, {1, 2}, Master, Slave1; }\n"
                 "Diagnostic_frames { D: 0x3C { S1, 0; } }\n"));
  ASSERT_NE(d.h, nullptr);
  const LDF_LIN_SIGNAL& ds = d->Frames[0].Signals[0];
  EXPECT_EQ(ds.IsArray, 1);
  EXPECT_EQ(ds.HasArrayInit, 1);
  EXPECT_EQ(ds.ArrayValue[1], 2);
}

TEST(LdfReader, ScheduleEntriesUnknownFrameAndMalformed) {
  std::string text = kSmall;
  text.replace(text.find("F2 delay 20.5 ms;"), 17,
               "F2 delay 20.5 ms; F1 wait 10 ms; F2delay1; F1delay15;");
  Handle h(write_temp(text));
  ASSERT_NE(h.h, nullptr);
  ASSERT_EQ(h->SchNum, 1);
  const LDF_LIN_SCH& t = h->Schs[0];
  // "F1wait10ms" has no "delay" and "F2delay1" has only 8 characters: both skipped.
  ASSERT_EQ(t.FrameNum, 4);
  EXPECT_EQ(t.Frames[0].Frame.ID, 0x10);
  EXPECT_EQ(t.Frames[0].Frame.Signals, h->Frames[0].Signals);
  EXPECT_STREQ(t.Frames[1].Frame.Name, "Nope");
  EXPECT_EQ(t.Frames[1].Frame.ID, 0);
  EXPECT_EQ(t.Frames[1].Frame.SignalNum, 0);
  EXPECT_FLOAT_EQ(t.Frames[1].Delay, 5.0f);
  EXPECT_FLOAT_EQ(t.Frames[2].Delay, 20.5f);
  EXPECT_STREQ(t.Frames[3].Frame.Name, "F1");
  EXPECT_FLOAT_EQ(t.Frames[3].Delay, 15.0f);
}

TEST(LdfReader, ListsBeyondTheirBoundsAreTruncated) {
  std::string subs, faults, frames;
  for (int i = 0; i < 20; ++i) subs += ", N" + std::to_string(i);
  for (int i = 0; i < 20; ++i) faults += (i ? ", " : "") + std::string("Q") + std::to_string(i);
  for (int i = 0; i < 70; ++i) frames += "C" + std::to_string(i) + ";";
  Handle h(write_temp("Signals { A: 64, {1,2,3,4,5,6,7,8,9,10}, M" + subs +
                      "; }\n"
                      "Frames { F: 1, M, 8 { A, 0; } }\n"
                      "Node_attributes { N { fault_state_signals = " +
                      faults + "; configurable_frames { " + frames + " } } }\n"));
  ASSERT_NE(h.h, nullptr);
  const LDF_LIN_SIGNAL& a = h->Frames[0].Signals[0];
  ASSERT_EQ(a.SubscriberNum, LDF_MAX_SUBSCRIBERS);
  EXPECT_STREQ(a.Subscribers[15], "N15");
  EXPECT_EQ(a.ArrayValue[7], 8);
  EXPECT_EQ(h->NodeAttrs[0].FaultStateSignalNum, LDF_MAX_FAULT_SIGNALS);
  EXPECT_STREQ(h->NodeAttrs[0].FaultStateSignals[15], "Q15");
  EXPECT_EQ(h->NodeAttrs[0].ConfigFrameNum, LDF_MAX_CONFIG_FRAMES);
  EXPECT_STREQ(h->NodeAttrs[0].ConfigFrames[63], "C63");
}

TEST(LdfReader, FrameSizeAndOffsetsOutsideTheFrameAreBounded) {
  Handle h(
      write_temp("Signals { A: 8, 0xAB, M; B: 8, 0xCD, M; }\n"
                 "Frames { F: 0x05, M, 12 { A, 0; B, 200; } G: 0x05, M, -3 { A, 0; } }\n"));
  ASSERT_NE(h.h, nullptr);
  EXPECT_EQ(h->Frames[0].Size, 8);
  EXPECT_EQ(h->Frames[1].Size, 0);
  unsigned char data[8] = {};
  ASSERT_EQ(LDF_GetFrameRawValue(h.h, "F", data), 0);
  const unsigned char want[8] = {0xAB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(0, std::memcmp(data, want, 8));
}

// A Signals section of exactly `bytes` cleaned characters, braces included, whose first
// item is a real signal and the rest empty items.
std::string signals_section(size_t bytes) {
  std::string s = "Signals{A:8,0,M;";
  s.append(bytes - s.size() + 7 - 1, ';');  // "Signals" is not part of the section
  return s + "}Frames{F:1,M,1{A,0;}}";
}

TEST(LdfReader, SectionOfSixtyFourKibIsReadOneByteMoreIsRefused) {
  Handle fits(write_temp(signals_section(LDF_MAX_SECTION_BYTES)));
  ASSERT_NE(fits.h, nullptr);
  EXPECT_EQ(fits->Frames[0].SignalNum, 1);
  LDF_CODING c{};
  EXPECT_EQ(LDF_Decode(kDevice, write_temp(signals_section(LDF_MAX_SECTION_BYTES + 1)).c_str(), &c),
            -5);
  EXPECT_EQ(c.FrameNum, 0);
  const std::string big = write_temp(signals_section(LDF_MAX_SECTION_BYTES + 1));
  EXPECT_EQ(veltrix::ldf::parse_handle(kDevice, 0, 1, big.c_str()), nullptr);
}

TEST(LdfReader, MissingFileAndUnknownDevice) {
  LDF_CODING c{};
  EXPECT_EQ(LDF_Decode(kDevice, "/nonexistent/dir/file.ldf", &c), -1);
  EXPECT_EQ(LDF_Decode(kUnknownDevice, fixture("seat_heater.ldf").c_str(), &c), -3);
  EXPECT_EQ(LDF_Decode(kDevice, nullptr, &c), -4);
  EXPECT_EQ(LDF_Decode(kDevice, fixture("seat_heater.ldf").c_str(), nullptr), -4);
  EXPECT_EQ(LDF_Decode(kDevice, "/", &c), -1);  // a directory cannot be read
  EXPECT_EQ(veltrix::ldf::parse_handle(kUnknownDevice, 0, 1, fixture("seat_heater.ldf").c_str()), nullptr);
  EXPECT_EQ(veltrix::ldf::parse_handle(kDevice, 0, 1, nullptr), nullptr);
}

TEST(LdfReader, DecodeIntoCallerRecordAndRelease) {
  LDF_CODING c{};
  ASSERT_EQ(LDF_Decode(kDevice, fixture("cabin_lights.ldf").c_str(), &c), 0);
  EXPECT_EQ(c.FrameNum, 7);
  EXPECT_EQ(c.DevHandle, 0);
  EXPECT_EQ(LDF_DecodeFree(&c), 0);
  EXPECT_STREQ(c.Frames[6].Name, "SlaveResp");  // still valid
  EXPECT_EQ(LDF_Release(&c), 0);
  EXPECT_EQ(c.FrameNum, 0);
  EXPECT_EQ(c.Frames, nullptr);
  EXPECT_EQ(LDF_Release(&c), -4);
}

TEST(LdfReader, MalformedTextGivesEmptyRecordsWithoutCrashing) {
  const char* texts[] = {"",
                         "{{{{",
                         "}}}}",
                         "Frames{",
                         "Frames{:::}",
                         "Signals{;;;;:,,,{,}",
                         "Nodes{Master:;Slaves:,,;}",
                         "Schedule_tables{{{delay}}}",
                         "Node_attributes{N{configurable_frames",
                         "LIN_speed=",
                         "Signal_encoding_types{E{logical_value;physical_value,1;}}",
                         "Frames{F:1,,{A,;,0;}}",
                         "Node_attributes{{}{}X{product_id=;LIN_protocol=\"\"}}"};
  for (const char* t : texts) {
    SCOPED_TRACE(t);
    Handle h(write_temp(t));
    ASSERT_NE(h.h, nullptr);
    for (int i = 0; i < h->FrameNum; ++i) EXPECT_LE(h->Frames[i].Size, 8);
  }
  Handle nodes(write_temp("Nodes{Master:;Slaves:,,;}"));
  ASSERT_NE(nodes->Nodes, nullptr);
  EXPECT_EQ(nodes->Nodes->MasterName, nullptr);
  EXPECT_EQ(nodes->Nodes->SlaveNum, 0);
  Handle empty(write_temp("Nodes{}"));
  EXPECT_EQ(empty->Nodes, nullptr);
}

TEST(LdfReader, ConcurrentLoadsDoNotMixFiles) {
  // Each thread loads its own file repeatedly; the shared cleaned text must never leak
  // one file's sections into the other's records.
  std::atomic<int> wrong{0};
  auto run = [&](const std::string& path, int frames, const char* first) {
    for (int i = 0; i < 40; ++i) {
      LDF_CODING* h = veltrix::ldf::parse_handle(kDevice, 0, 1, path.c_str());
      if (!h || h->FrameNum != frames || std::strcmp(h->Frames[0].Name, first) != 0) ++wrong;
      if (h) LDF_Release(h);
    }
  };
  std::thread a(run, fixture("cabin_lights.ldf"), 7, "BCM_Cmd");
  std::thread b(run, fixture("seat_heater.ldf"), 2, "HeaterCmd");
  a.join();
  b.join();
  EXPECT_EQ(wrong.load(), 0);
}
