// veltrix ldf show FILE: what an LDF file describes (header, nodes, frames with their
// signals, schedule tables, node attributes), as the library reads it.
// veltrix ldf run SERIAL CHANNEL FILE SCHEDULE: the adapter plays the master node of the
// file on CHANNEL and runs the schedule table once; prints every frame exchanged and the
// signal values of the schedule's frames afterwards. SERIAL is hexadecimal.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tools/cli.hpp"
#include "tools/file_check.hpp"
#include "veltrix/ldf.h"
#include "veltrix/lin.h"
#include "veltrix/usb_device.h"

namespace {

const char kUsage[] =
    "usage: veltrix ldf show FILE\n"
    "       veltrix ldf run SERIAL CHANNEL FILE SCHEDULE\n"
    "\n"
    "show prints what the file describes (header, nodes, frames with their signals,\n"
    "schedule tables, node attributes); it needs no adapter. run makes adapter SERIAL (hex)\n"
    "the master node of the file on LIN CHANNEL, runs the schedule table once and prints\n"
    "every frame exchanged and the signal values afterwards.\n";

int usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

void print_version(const char* label, int x100) {
  std::printf("%s %d.%d", label, x100 / 100, x100 % 100 / 10);
}

const char* or_dash(const char* s) { return s && *s ? s : "-"; }

void show_signal(const LDF_LIN_SIGNAL& s) {
  std::printf("    %-28s bit %2d  size %2d  ", s.Name, s.StartBit, s.Size);
  if (s.HasArrayInit) {
    std::printf("init {");
    for (int i = 0; i < s.Size / 8 && i < LDF_MAX_ARRAY_BYTES; ++i)
      std::printf("%s0x%02X", i ? "," : "", s.ArrayValue[i]);
    std::printf("}");
  } else {
    std::printf("init %lld", s.Value);
  }
  std::printf("  publisher %s", or_dash(s.Publisher));
  if (s.SubscriberNum) {
    std::printf("  subscribers");
    for (int i = 0; i < s.SubscriberNum; ++i) std::printf(" %s", s.Subscribers[i]);
  }
  if (s.SignalCoding.Name) std::printf("  encoding %s", s.SignalCoding.Name);
  std::printf("\n");
}

void show_frames(const LDF_CODING* h) {
  std::printf("frames (%d):\n", h->FrameNum);
  for (int i = 0; i < h->FrameNum; ++i) {
    const LDF_LIN_FRAME& f = h->Frames[i];
    unsigned char data[8] = {};
    LDF_GetFrameRawValue(h, f.Name, data);
    std::printf("  0x%02X %-24s %s publisher %s  %d byte(s)  data", unsigned(f.ID) & 0xFFu, f.Name,
                f.IsDiagnostic ? "diagnostic " : "", or_dash(f.Publisher), f.Size);
    for (int b = 0; b < f.Size; ++b) std::printf(" %02X", data[b]);
    std::printf("\n");
    for (int s = 0; s < f.SignalNum; ++s) show_signal(f.Signals[s]);
  }
}

void show_schedules(const LDF_CODING* h) {
  std::printf("schedule tables (%d):\n", h->SchNum);
  for (int i = 0; i < h->SchNum; ++i) {
    const LDF_LIN_SCH& t = h->Schs[i];
    std::printf("  %s (%d entries)\n", t.Name, t.FrameNum);
    for (int e = 0; e < t.FrameNum; ++e) {
      const LDF_LIN_SCH_FRAME& x = t.Frames[e];
      bool known = false;
      for (int f = 0; f < h->FrameNum && !known; ++f)
        known = std::strcmp(h->Frames[f].Name, x.Frame.Name) == 0;
      std::printf("    %-40s %8.3f ms%s\n", x.Frame.Name, double(x.Delay),
                  known ? "" : "  (no such frame: skipped on the bus)");
    }
  }
}

void show_nodes(const LDF_CODING* h) {
  if (h->Nodes) {
    std::printf("master %s  time base %g ms  jitter %g ms\nslaves:", or_dash(h->Nodes->MasterName),
                double(h->Nodes->TimeBase), double(h->Nodes->Jitter));
    for (int i = 0; i < h->Nodes->SlaveNum; ++i) std::printf(" %s", h->Nodes->SlaveNames[i]);
    std::printf("\n");
  }
}

void show_node_attributes(const LDF_CODING* h) {
  std::printf("node attributes (%d):\n", h->NodeAttrNum);
  for (int i = 0; i < h->NodeAttrNum; ++i) {
    const LDF_NODE_ATTR& a = h->NodeAttrs[i];
    std::printf("  %s  ", a.Name);
    print_version("LIN", a.ProtocolVersion);
    std::printf("  NAD 0x%02X (initial 0x%02X)  product 0x%04X 0x%04X %d\n", a.ConfiguredNAD,
                a.InitialNAD, unsigned(a.SupplierID), unsigned(a.FunctionID), a.VariantID);
    std::printf("    response_error %s  P2_min %g ms  ST_min %g ms  N_As %g ms  N_Cr %g ms\n",
                or_dash(a.ResponseError), double(a.P2_min), double(a.ST_min),
                double(a.N_As_timeout), double(a.N_Cr_timeout));
    if (a.FaultStateSignalNum) {
      std::printf("    fault_state_signals");
      for (int k = 0; k < a.FaultStateSignalNum; ++k) std::printf(" %s", a.FaultStateSignals[k]);
      std::printf("\n");
    }
    if (a.ConfigFrameNum) {
      std::printf("    configurable_frames");
      for (int k = 0; k < a.ConfigFrameNum; ++k) std::printf(" %s", a.ConfigFrames[k]);
      std::printf("\n");
    }
  }
}

// The header is the one thing every LDF file starts with: without it the reader would
// accept any text as an empty description, so its absence is named with the line where
// it should be. Returns false after printing that sentence.
bool has_header(const char* path) {
  std::ifstream in(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t line_no = 1;
  for (size_t i = 0; i < text.size();) {
    if (text.compare(i, 2, "//") == 0) {
      i = text.find('\n', i);
      if (i == std::string::npos) break;
    } else if (text.compare(i, 2, "/*") == 0) {
      const size_t end = text.find("*/", i + 2);
      const size_t stop = end == std::string::npos ? text.size() : end + 2;
      for (; i < stop; ++i) line_no += text[i] == '\n';
      continue;
    } else if (text[i] == ' ' || text[i] == '\t' || text[i] == '\r' || text[i] == '\f' ||
               text[i] == '\n') {
      line_no += text[i] == '\n';
      ++i;
      continue;
    } else if (text.compare(i, 20, "LIN_description_file") == 0) {
      return true;
    } else {
      std::fprintf(stderr,
                   "veltrix ldf: %s line %zu: an LDF file begins with \"LIN_description_file;\".\n",
                   path, line_no);
      return false;
    }
  }
  std::fprintf(stderr,
               "veltrix ldf: %s line %zu: the file ends before \"LIN_description_file;\".\n", path,
               line_no);
  return false;
}

int show(const char* path) {
  if (!veltrix::tools::check_text_file("ldf", path, "LDF") || !has_header(path)) return 1;
  LDF_CODING* h = LDF_LoadFile(path);
  if (!h) {
    std::fprintf(stderr,
                 "veltrix ldf: %s: the LDF reader refused the file (a section is "
                 "malformed or too long).\n",
                 path);
    return 1;
  }
  print_version("protocol", h->ProtocolVersion);
  print_version("  language", h->LanguageVersion);
  std::printf("  speed %d bit/s\n", h->LINSpeed);
  show_nodes(h);
  show_frames(h);
  show_schedules(h);
  show_node_attributes(h);
  LDF_Release(h);
  return 0;
}

bool parse_number(const char* s, int base, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, base);
  if (errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

// The name of the first frame with that protected identifier's low 6 bits, or "?".
const char* frame_name_of(const LDF_CODING* h, unsigned char pid) {
  for (int i = 0; i < h->FrameNum; ++i)
    if ((h->Frames[i].ID & 0x3F) == (pid & 0x3F)) return h->Frames[i].Name;
  return "?";
}

void print_exchanged(const LDF_CODING* h, LDF_CODING* driven) {
  std::vector<LIN_EX_MSG> msgs(LIN_EX_MAX_SCH_MSGS);
  int n = 0;
  while ((n = LDF_GetRawMsg(driven, msgs.data(), int(msgs.size()))) > 0) {
    for (int i = 0; i < n; ++i) {
      const LIN_EX_MSG& m = msgs[size_t(i)];
      std::printf("  %-24s %02X#", frame_name_of(h, m.PID), unsigned(m.PID) & 0x3Fu);
      for (int b = 0; b < m.DataLen && b < 8; ++b) std::printf("%02X", m.Data[b]);
      if (m.DataLen == 0) std::printf("  (no response)");
      std::printf("\n");
    }
  }
}

// Longest logical text or unit of a signal's encoding: LDF_GetSignalValueStr writes at
// most that plus 340 characters.
size_t longest_text(const LDF_LIN_SIGNAL& sig) {
  size_t n = 0;
  const LDF_SIGNAL_CODING& c = sig.SignalCoding;
  for (int k = 0; k < c.LogicalNum; ++k)
    if (c.LogicalValues[k].Text) n = std::max(n, std::strlen(c.LogicalValues[k].Text));
  for (int k = 0; k < c.PhysicalNum; ++k)
    if (c.PhysicalValues[k].Unit) n = std::max(n, std::strlen(c.PhysicalValues[k].Unit));
  return n;
}

void print_signals(const LDF_CODING* h, const char* schedule) {
  for (int i = 0; i < h->FrameNum; ++i) {
    const LDF_LIN_FRAME& f = h->Frames[i];
    bool in_schedule = false;
    for (int s = 0; s < h->SchNum && !in_schedule; ++s) {
      const LDF_LIN_SCH& sch = h->Schs[s];
      if (!sch.Name || std::strcmp(sch.Name, schedule) != 0) continue;
      for (int e = 0; e < sch.FrameNum && !in_schedule; ++e)
        in_schedule = sch.Frames[e].Frame.Name && std::strcmp(sch.Frames[e].Frame.Name, f.Name) == 0;
      break;  // the first table of that name is the one that ran
    }
    if (!in_schedule) continue;
    std::printf("  %s\n", f.Name);
    for (int k = 0; k < f.SignalNum; ++k) {
      const LDF_LIN_SIGNAL& sig = f.Signals[k];
      std::vector<char> text(longest_text(sig) + 341);
      if (LDF_GetSignalValueStr(h, f.Name, sig.Name, text.data()) == 0)
        std::printf("    %-28s %s\n", sig.Name, text.data());
    }
  }
}

int run(int argc, char** argv) {
  unsigned long serial, ch;
  if (argc != 6 || !parse_number(argv[2], 16, 0xFFFFFFFFul, &serial) ||
      !parse_number(argv[3], 10, LIN_EX_MAX_CHANNELS - 1, &ch))
    return usage();
  const int dev = int(unsigned(serial));
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(unsigned(serial)) != 1) {
    std::fprintf(stderr, "veltrix ldf: adapter %08lX not found or cannot be opened\n", serial);
    return 1;
  }
  int rc = 1;
  LDF_CODING* h = LDF_ParserFile(dev, static_cast<unsigned char>(ch), 1, argv[4]);
  if (!h) {
    std::fprintf(stderr, "veltrix ldf: %s cannot be read, or LIN channel %lu cannot be set up.\n",
                 argv[4], ch);
  } else if (LDF_GetSchFrameQuantity(h, argv[5]) < 0) {
    std::fprintf(stderr, "veltrix ldf: %s has no schedule table %s.\n", argv[4], argv[5]);
  } else {
    std::printf("schedule %s on channel %lu at %d bit/s, %d entries\n", argv[5], ch,
                h->LINSpeed, LDF_GetSchFrameQuantity(h, argv[5]));
    const int r = LDF_ExeSchToBus(h, argv[5], 1);
    std::printf("frames on the bus:\n");
    print_exchanged(h, h);
    if (r != 0) {
      // The code is the LDF family's or, passed through, the LIN family's: no one meaning.
      std::fprintf(stderr, "veltrix ldf: the schedule stopped with code %d.\n", r);
    } else {
      std::printf("signals afterwards:\n");
      print_signals(h, argv[5]);
      rc = 0;
    }
  }
  if (h) LDF_Release(h);
  USB_CloseDevice(unsigned(serial));
  return rc;
}

}  // namespace

int cmd_ldf(int argc, char** argv) {
  if (veltrix::tools::wants_help(argc, argv)) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 3 && std::strcmp(argv[1], "show") == 0) return show(argv[2]);
  if (argc >= 2 && std::strcmp(argv[1], "run") == 0) return run(argc, argv);
  return usage();
}
