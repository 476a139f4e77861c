// Parse time of the largest sample LDF file, from disk and from memory, and the cost of
// packing one frame.
#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <string>

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
    if (!h) {
      state.SkipWithError("parse failed");
      return;
    }
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
    if (veltrix::ldf::decode_text(kDevice, text, h, true) != 0) {
      delete h;
      state.SkipWithError("parse failed");
      return;
    }
    LDF_Release(h);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(BM_LdfDecodeFromMemory);

void BM_LdfGetFrameRawValue(benchmark::State& state) {
  LDF_CODING* h = LDF_ParserFile(kDevice, 0, 1, kLargest.c_str());
  unsigned char data[8];
  for (auto _ : state) {
    LDF_GetFrameRawValue(h, "MasterReq", data);
    benchmark::DoNotOptimize(data);
  }
  LDF_Release(h);
}
BENCHMARK(BM_LdfGetFrameRawValue);

}  // namespace
