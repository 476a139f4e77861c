// DBC parse, decode and encode speed on the large sample database.
// Results and the machine they were taken on are recorded in docs/dbc.md.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "dbc/decoder.hpp"
#include "veltrix/dbc.h"

namespace {

constexpr int kDirectDevice = int(0xFF000000u);
const std::string kFile = std::string(VELTRIX_CORPUS_DIR) + "/dbc/vw_mlb.dbc";

struct Message {
  std::string name;
  uint32_t id;
  std::vector<std::string> signals;
  std::vector<double> values;  // inside each signal's range
};

// The messages a frame can reach (the first of each id) with their signal names.
std::vector<Message> catalogue() {
  auto db = veltrix::dbc::DBC_Decoder::load(kFile, nullptr);
  std::vector<Message> out;
  if (!db) return out;
  for (uint32_t i = 0; i < db->messages().size(); ++i) {
    const auto& m = db->messages()[i];
    if (db->findMessageById(m.id) != i || db->findMessage(m.name) != i) continue;
    Message c{m.name, m.id, {}, {}};
    for (const auto& s : m.signals) {
      c.signals.push_back(s.name);
      c.values.push_back((s.minimum + s.maximum) / 2);
    }
    out.push_back(std::move(c));
  }
  return out;
}

void BM_ParseFile(benchmark::State& state) {
  for (auto _ : state) {
    long long h = DBC_ParserFile(kDirectDevice, kFile.c_str());
    if (!h) state.SkipWithError("parse failed");
    state.PauseTiming();
    DBC_Release(h);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ParseFile)->Unit(benchmark::kMillisecond);

void BM_DecodeFrames(benchmark::State& state) {
  const std::vector<Message> msgs = catalogue();
  long long h = DBC_ParserFile(kDirectDevice, kFile.c_str());
  std::mt19937_64 rng(1);
  struct Rx {
    CAN_MSG frame;
    const Message* message;
  };
  std::vector<Rx> frames(8192);
  for (Rx& r : frames) {
    r.message = &msgs[rng() % msgs.size()];
    r.frame = CAN_MSG{};
    r.frame.ID = r.message->id & 0x1FFFFFFF;
    r.frame.ExtFlag = uint8_t(r.message->id >> 31);
    r.frame.DataLen = 8;
    for (auto& b : r.frame.Data) b = uint8_t(rng());
  }
  size_t i = 0;
  double sink = 0;
  for (auto _ : state) {
    const Rx& r = frames[i++ & 8191];
    DBC_SyncCANMsgToValue(h, &r.frame, 1);
    for (const std::string& s : r.message->signals) {
      double v;
      if (DBC_GetSignalValue(h, r.message->name.c_str(), s.c_str(), &v) == 0) sink += v;
    }
  }
  benchmark::DoNotOptimize(sink);
  state.SetItemsProcessed(int64_t(state.iterations()));
  DBC_Release(h);
}
BENCHMARK(BM_DecodeFrames);

void BM_EncodeMessages(benchmark::State& state) {
  const std::vector<Message> msgs = catalogue();
  long long h = DBC_ParserFile(kDirectDevice, kFile.c_str());
  size_t i = 0;
  CAN_MSG frame{};
  for (auto _ : state) {
    const Message& m = msgs[i++ % msgs.size()];
    for (size_t s = 0; s < m.signals.size(); ++s) {
      DBC_SetSignalValue(h, m.name.c_str(), m.signals[s].c_str(), m.values[s]);
    }
    DBC_SyncValueToCANMsg(h, m.name.c_str(), &frame);
    benchmark::DoNotOptimize(frame);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  DBC_Release(h);
}
BENCHMARK(BM_EncodeMessages);

}  // namespace
