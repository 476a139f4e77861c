// Parse time of the largest sample LDF file, from disk and from memory, and the cost of
// packing one frame.
#include <benchmark/benchmark.h>

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

}  // namespace
