// veltrix ldf show FILE: what an LDF file describes (header, nodes, frames with their
// signals, schedule tables, node attributes), as the library reads it.
#include <cstdio>
#include <cstring>

#include "veltrix/ldf.h"

namespace {

// The file is only read, no adapter is involved: 0xFF0000nn names registry position nn
// directly, which the reader accepts without a scan.
constexpr int kNoAdapter = int(0xFF000000u);

int usage() {
  std::fprintf(stderr, "usage: veltrix ldf show FILE\n");
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

int show(const char* path) {
  LDF_CODING* h = LDF_ParserFile(kNoAdapter, 0, 1, path);
  if (!h) {
    std::fprintf(stderr, "veltrix ldf: cannot read %s as an LDF file\n", path);
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

}  // namespace

int cmd_ldf(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "show") == 0) return show(argv[2]);
  return usage();
}
