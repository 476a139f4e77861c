// Parse time of the largest sample LDF file, from disk and from memory, and the cost of
// packing one frame.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "bench/bench_check.hpp"
#include "ldf/decode.hpp"
#include "ldf/handle.hpp"
#include "veltrix/ldf.h"

namespace {

constexpr int kDevice = int(0xFF000000u);  // registry position 0, no adapter needed
const std::string kLargest = std::string(VELTRIX_CORPUS_DIR) + "/ldf/lin_diagnostics.ldf";

void BM_LdfParserFile(benchmark::State& state) {
  for (auto _ : state) {
    // The file-to-handle part of LDF_ParserFile; opening the LIN channel needs an adapter.
    LDF_CODING* h = veltrix::ldf::parse_handle(kDevice, 0, 1, kLargest.c_str());
    veltrix::bench::check(h != nullptr && h->FrameNum == 7, "parse of the sample file");
    benchmark::DoNotOptimize(h->FrameNum);
    LDF_Release(h);
  }
}
BENCHMARK(BM_LdfParserFile);

void BM_LdfDecodeFromMemory(benchmark::State& state) {
  std::stringstream ss;
  ss << std::ifstream(kLargest, std::ios::binary).rdbuf();
  const std::string text = ss.str();
  for (auto _ : state) {
    auto* h = new LDF_CODING{};
    veltrix::bench::check(veltrix::ldf::decode_text(kDevice, text, h, true) == 0 && h->FrameNum == 7,
                          "decode of the sample text");
    LDF_Release(h);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(BM_LdfDecodeFromMemory);

// Packs the master request after setting its first byte; the handle comes from the
// file-to-handle step (opening a LIN channel would need an adapter).
void BM_LdfGetFrameRawValue(benchmark::State& state) {
  LDF_CODING* h = veltrix::ldf::parse_handle(kDevice, 0, 1, kLargest.c_str());
  veltrix::bench::check(h != nullptr, "parse of the sample file");
  veltrix::bench::check(LDF_SetSignalValue(h, "MasterReq", "MasterReqB0", 0x3C) == 0,
                        "set MasterReqB0");
  unsigned char data[8] = {};
  int failed = 0;
  for (auto _ : state) {
    failed |= LDF_GetFrameRawValue(h, "MasterReq", data);
    benchmark::DoNotOptimize(data);
  }
  veltrix::bench::check(failed == 0 && data[0] == 0x3C, "packing MasterReq");
  LDF_Release(h);
}
BENCHMARK(BM_LdfGetFrameRawValue);

// A generated description of about `bytes` bytes: n slaves' worth of signals, frames,
// encoding types, representations and one schedule table, written the way people write
// them (indented, a comment on every line). Parse time per byte must not grow with n.
std::string generated_ldf(size_t bytes, int* frames) {
  const int n = int(bytes / 350) + 1;
  auto pad = [](std::string line) {
    line += "  // ";
    while (line.size() < 68) line += '.';
    return line + "\n";
  };
  auto name = [](const char* prefix, int k) {
    char b[32];
    std::snprintf(b, sizeof b, "%s_%05d", prefix, k);
    return std::string(b);
  };
  std::string t = "LIN_description_file;\nLIN_protocol_version = \"2.1\";\n"
                  "LIN_language_version = \"2.1\";\nLIN_speed = 19.2 kbps;\n"
                  "Nodes {\n  Master: M, 5 ms, 0.1 ms;\n  Slaves: S;\n}\n";
  t += "Signals {\n";
  for (int k = 0; k < n; ++k) t += pad("  " + name("Sig", k) + ": 8, 0, M, S;");
  t += "}\nFrames {\n";
  for (int k = 0; k < n; ++k)
    t += pad("  " + name("Frm", k) + ": " + std::to_string(k % 60) + ", M, 1 { " + name("Sig", k) +
             ", 0; }");
  t += "}\nSchedule_tables {\n  Main {\n";
  for (int k = 0; k < n; ++k) t += pad("    " + name("Frm", k) + " delay 10 ms;");
  t += "  }\n}\nSignal_encoding_types {\n";
  for (int k = 0; k < n; ++k)
    t += pad("  " + name("Enc", k) + " { physical_value, 0, 255, 0.5, 1, \"u\"; }");
  t += "}\nSignal_representation {\n";
  for (int k = 0; k < n; ++k) t += pad("  " + name("Enc", k) + ": " + name("Sig", k) + ";");
  t += "}\n";
  *frames = n;
  return t;
}

void BM_LdfDecodeGenerated(benchmark::State& state) {
  int frames = 0;
  const std::string text = generated_ldf(size_t(state.range(0)), &frames);
  for (auto _ : state) {
    auto* h = new LDF_CODING{};
    const bool ok = veltrix::ldf::decode_text(kDevice, text, h, true) == 0 &&
                    h->FrameNum == frames && h->SchNum == 1 && h->Schs[0].FrameNum == frames &&
                    h->Frames[frames - 1].Signals != nullptr &&
                    h->Frames[frames - 1].Signals[0].SignalCoding.PhysicalNum == 1;
    veltrix::bench::check(ok, "decode of a generated description");
    LDF_Release(h);
  }
  state.counters["file_bytes"] = double(text.size());
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(BM_LdfDecodeGenerated)->Arg(5000)->Arg(57000)->Arg(500000)->Unit(benchmark::kMicrosecond);

}  // namespace
