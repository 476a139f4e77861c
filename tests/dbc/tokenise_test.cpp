// The reader's token rules, seen through the exported functions: each file is loaded from
// disk and every message is listed with its id, DLC, sender, signals and the frame its
// signals encode to, so a change in how lines are cut shows as a different record.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "dbc_test_util.hpp"
#include "veltrix/dbc.h"

namespace veltrix::dbc {
namespace {

using test::TempFile;

// "Name id=HEX ext=E dlc=D from=SENDER data=BYTES {Signal=TEXT ...}" per message, where
// each signal was set to 1 before the frame was encoded, and TEXT is its value text.
std::string describe(long long h) {
  std::string out;
  const int count = DBC_GetMsgQuantity(h);
  for (int i = 0; i < count; ++i) {
    char name[16384], sender[16384];
    if (DBC_GetMsgName(h, i, name) != DBC_OK || DBC_GetMsgPublisher(h, name, sender) != DBC_OK)
      return "listing failed";
    const int signals = DBC_GetMsgSignalQuantity(h, name);
    std::string texts;
    for (int s = 0; s < signals; ++s) {
      char sig[16384], text[16384];
      if (DBC_GetMsgSignalName(h, name, unsigned(s), sig) != DBC_OK ||
          DBC_SetSignalValue(h, name, sig, 1.0) != DBC_OK ||
          DBC_GetSignalValueStr(h, name, sig, text) != DBC_OK)
        return "signal access failed";
      texts += std::string(" ") + sig + "=" + text;
    }
    CAN_MSG f{};
    if (DBC_SyncValueToCANMsg(h, name, &f) != DBC_OK) return "encoding failed";
    char head[128];
    std::snprintf(head, sizeof head, " id=%X ext=%u dlc=%u data=", f.ID, f.ExtFlag, f.DataLen);
    std::string line = std::string(name) + head;
    for (uint8_t b : f.Data) {
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02X", b);
      line += hex;
    }
    out += line + " from=" + sender + " {" + texts + " }\n";
  }
  return out;
}

struct Case {
  const char* what;
  std::string text;
  std::string expected;  // describe() of the loaded file
};

const std::string kLongNode(8191 - std::string("BO_ 1 Long: 8 ").size(), 'n');
const std::string kLongerNode(9000, 'n');

const Case kCases[] = {
    {"a tab does not separate tokens",
     "BO_ 1 M: 8 N\n"
     "\tSG_ Tabbed : 0|8@1+ (1,0) [0|255] \"\" X\n"
     " SG_ Kept : 8|8@1+ (1,0) [0|255] \"k\tm\" X\n"
     "BO_\t2 Hidden: 8 N\n",
     "M id=1 ext=0 dlc=8 data=0001000000000000 from=N { Kept=1.000000 k\tm }\n"},
    {"runs of spaces count as one, also inside a quoted unit or value text",
     "BO_   3    Runs:   8     Node\n"
     "  SG_   S   :   0|8@1+   (1,0)   [0|255]   \"km   h\"   X\n"
     "  SG_   V   :   8|8@1+   (1,0)   [0|255]   \"\"   X\n"
     "VAL_   3   V   1   \"a    b\"   2 \"c\";\n",
     "Runs id=3 ext=0 dlc=8 data=0101000000000000 from=Node { S=1.000000 km h V=a b }\n"},
    {"semicolons vanish wherever they stand",
     "B;O_ 4 Semi;colon: 8 No;de;\n"
     " SG_ S;ig : 0|8@1+ (1,0) [0|255] \"\" X;\n",
     "Semicolon id=4 ext=0 dlc=8 data=0100000000000000 from=Node { Sig=1.000000  }\n"},
    {"a free-standing colon after a name or multiplex token",
     "BO_ 6 Loose : 7 N\n"
     " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" X\n"
     " SG_ Sel m0 : 8|8@1+ (1,0) [0|255] \"\" X\n"
     "BO_ 7 Two::Colons:: 8 N\n",
     "Loose id=6 ext=0 dlc=7 data=0001000000000000 from=N { Sw=1.000000  Sel=1.000000  }\n"
     "TwoColons id=7 ext=0 dlc=8 data=0000000000000000 from=N { }\n"},
    {"ids and DLCs in hexadecimal and octal; 2048 and above are extended",
     "BO_ 0x10 Hex: 0x8 N\n"
     "BO_ 010 Oct: 010 N\n"
     "BO_ 0x800 Big: 8 N\n"
     "BO_ junk Zero: 8 N\n",
     "Hex id=10 ext=0 dlc=8 data=0000000000000000 from=N { }\n"
     "Oct id=8 ext=0 dlc=8 data=0000000000000000 from=N { }\n"
     "Big id=800 ext=1 dlc=8 data=0000000000000000 from=N { }\n"
     "Zero id=0 ext=0 dlc=8 data=0000000000000000 from=N { }\n"},
    {"a line of 8191 characters and a longer one are read whole",
     "BO_ 1 Long: 8 " + kLongNode + "\nBO_ 2 Longer: 8 " + kLongerNode + "\n",
     "Long id=1 ext=0 dlc=8 data=0000000000000000 from=" + kLongNode + " { }\n" +
         "Longer id=2 ext=0 dlc=8 data=0000000000000000 from=" + kLongerNode + " { }\n"},
    {"CRLF line ends and a last line without any end",
     "BO_ 8 Crlf: 8 N\r\n SG_ S : 7|8@0+ (1,0) [0|255] \"u\" X\r\nBO_ 9 Last: 2 Tail",
     "Crlf id=8 ext=0 dlc=8 data=0100000000000000 from=N { S=1.000000 u }\n"
     "Last id=9 ext=0 dlc=2 data=0000000000000000 from=Tail { }\n"},
    {"a comment or value table continued on further lines keeps its first line",
     "BO_ 1 M: 8 N\n"
     " SG_ S : 0|8@1+ (1,0) [0|255] \"\" X\n"
     "CM_ SG_ 1 S \"first\n"
     "BO_ 2 Inside: 8 N\n"
     "second\";\n",
     "M id=1 ext=0 dlc=8 data=0100000000000000 from=N { S=1.000000  }\n"
     "Inside id=2 ext=0 dlc=8 data=0000000000000000 from=N { }\n"},
};

TEST(DbcTokenise, LinesAreCutAsTheFormatReaderAlwaysHas) {
  for (const Case& c : kCases) {
    TempFile file(c.text);
    const long long h = DBC_LoadFile(file.path());
    ASSERT_NE(h, 0) << c.what;
    EXPECT_EQ(describe(h), c.expected) << c.what;
    EXPECT_EQ(DBC_Release(h), DBC_OK);
  }
}

TEST(DbcTokenise, LinesLackingANeededTokenRefuseTheWholeFile) {
  const char* refused[] = {
      "BO_ 10 NoSender: 8\n",
      "BO_ 10 NoSender: 8",
      "BO_ 11 Loose : 8\n",
      "BO_ 1 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\nCM_ SG_ 1 S;\n",
      "BO_ 1 M: 8 N\nBA_DEF_ BO_ \"X\" INT 0 1;\n;BA_ \"X\" BO_ 1;\n",
  };
  for (const char* text : refused) {
    TempFile file(text);
    EXPECT_EQ(DBC_LoadFile(file.path()), 0) << text;
    EXPECT_EQ(DBC_ParserFile(test::kDirectDevice, file.path()), 0) << text;
  }
}

}  // namespace
}  // namespace veltrix::dbc
