// DBC parse, decode and encode speed on the large sample database.
// Results and the machine they were taken on are recorded in docs/dbc.md.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_check.hpp"
#include "bench/dbc_corpus.hpp"
#include "dbc/decoder.hpp"
#include "veltrix/dbc.h"

namespace {

constexpr int kDirectDevice = int(0xFF000000u);
const std::string kFile = std::string(VELTRIX_CORPUS_DIR) + "/dbc/vw_mlb.dbc";

struct Message {
  std::string name;
  uint32_t id;
  int index;  // its position in the file
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
    Message c{m.name, m.id, int(i), {}, {}};
    for (const auto& s : m.signals) {
      c.signals.push_back(s.name);
      c.values.push_back((s.minimum + s.maximum) / 2);
    }
    out.push_back(std::move(c));
  }
  return out;
}

// File to ready handle, for each larger sample file; bytes processed are the file's.
void BM_ParseFile(benchmark::State& state, const char* name) {
  const veltrix::bench::DbcSample sample = veltrix::bench::dbc_sample(name);
  veltrix::bench::check(!sample.text.empty() && sample.messages > 0, "the sample file is readable");
  for (auto _ : state) {
    long long h = DBC_ParserFile(kDirectDevice, sample.path.c_str());
    state.PauseTiming();
    veltrix::bench::check(h != 0 && DBC_GetMsgQuantity(h) == sample.messages,
                          "the parse yields every message of the file");
    DBC_Release(h);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(sample.text.size()));
}
const bool kParseFileRegistered = [] {
  for (const char* name : veltrix::bench::kLargeDbcFiles) {
    benchmark::RegisterBenchmark(("BM_ParseFile/" + std::string(name)).c_str(), BM_ParseFile, name)
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

struct Rx {
  CAN_MSG frame;
  const Message* message;
};

// 8192 random frames of the file's messages, each carrying random bytes.
std::vector<Rx> random_frames(const std::vector<Message>& msgs) {
  std::mt19937_64 rng(1);
  std::vector<Rx> frames(8192);
  for (Rx& r : frames) {
    r.message = &msgs[rng() % msgs.size()];
    r.frame = CAN_MSG{};
    r.frame.ID = r.message->id & 0x1FFFFFFF;
    r.frame.ExtFlag = uint8_t(r.message->id >> 31);
    r.frame.DataLen = 8;
    for (auto& b : r.frame.Data) b = uint8_t(rng());
  }
  return frames;
}

// The sum of every selected signal's value, through the name-based calls.
double decode_by_name(long long h, const Rx& r) {
  double sum = 0;
  if (DBC_SyncCANMsgToValue(h, &r.frame, 1) != 0) return std::nan("");
  for (const std::string& s : r.message->signals) {
    double v;
    const int rc = DBC_GetSignalValue(h, r.message->name.c_str(), s.c_str(), &v);
    if (rc == 0) sum += v;
    else if (rc != DBC_ERR_MUX_INACTIVE) return std::nan("");
  }
  return sum;
}

// The same sum through the one-call decode.
double decode_bulk(long long h, const Rx& r, double* values, int capacity) {
  const int n = DBC_DecodeCANMsg(h, &r.frame, nullptr, values, capacity);
  if (n < 0 || n > capacity) return std::nan("");
  double sum = 0;
  for (int i = 0; i < n; ++i)
    if (!std::isnan(values[i])) sum += values[i];
  return sum;
}

// What each frame decodes to, read once through the name-based calls before timing.
std::vector<double> expected_sums(long long h, const std::vector<Rx>& frames) {
  std::vector<double> expected(frames.size());
  size_t decoded_signals = 0;
  for (size_t k = 0; k < frames.size(); ++k) {
    expected[k] = decode_by_name(h, frames[k]);
    veltrix::bench::check(!std::isnan(expected[k]), "decoding a frame before timing");
    decoded_signals += frames[k].message->signals.size();
  }
  veltrix::bench::check(decoded_signals > frames.size(), "frames carry signals");
  return expected;
}

// The same sum through DBC_SyncCANMsgToValue and DBC_GetSignalValueByIndex.
double decode_by_index(long long h, const Rx& r) {
  double sum = 0;
  if (DBC_SyncCANMsgToValue(h, &r.frame, 1) != 0) return std::nan("");
  for (int s = 0; s < int(r.message->signals.size()); ++s) {
    double v;
    const int rc = DBC_GetSignalValueByIndex(h, r.message->index, s, &v);
    if (rc == 0)
      sum += v;
    else if (rc != DBC_ERR_MUX_INACTIVE)
      return std::nan("");
  }
  return sum;
}

// Times `decode` over the random frames; every timed result must equal the sum read
// through the name-based calls before timing.
template <typename Decode>
void time_decodes(benchmark::State& state, const char* what, Decode decode) {
  const std::vector<Message> msgs = catalogue();
  long long h = DBC_ParserFile(kDirectDevice, kFile.c_str());
  veltrix::bench::check(h != 0 && !msgs.empty(), "parse of vw_mlb.dbc");
  const std::vector<Rx> frames = random_frames(msgs);
  const std::vector<double> expected = expected_sums(h, frames);
  size_t i = 0, wrong = 0;
  for (auto _ : state) {
    const size_t k = i++ & 8191;
    if (decode(h, frames[k]) != expected[k]) ++wrong;
  }
  veltrix::bench::check(wrong == 0, what);
  state.SetItemsProcessed(int64_t(state.iterations()));
  DBC_Release(h);
}

void BM_DecodeFrames(benchmark::State& state) {
  time_decodes(state, "timed decodes match the values read before timing", decode_by_name);
}
BENCHMARK(BM_DecodeFrames);

// Every signal of a frame in one call, by message index: no names on the hot path.
void BM_DecodeFramesBulk(benchmark::State& state) {
  double values[256];
  time_decodes(state, "one-call decodes match the name-based values",
               [&values](long long h, const Rx& r) { return decode_bulk(h, r, values, 256); });
}
BENCHMARK(BM_DecodeFramesBulk);

void BM_DecodeFramesByIndex(benchmark::State& state) {
  time_decodes(state, "index reads match the name-based values", decode_by_index);
}
BENCHMARK(BM_DecodeFramesByIndex);

void BM_EncodeMessages(benchmark::State& state) {
  const std::vector<Message> msgs = catalogue();
  long long h = DBC_ParserFile(kDirectDevice, kFile.c_str());
  veltrix::bench::check(h != 0 && !msgs.empty(), "parse of vw_mlb.dbc");
  auto encode = [&](const Message& m, CAN_MSG* frame) {
    int failed = 0;
    for (size_t s = 0; s < m.signals.size(); ++s)
      failed |= DBC_SetSignalValue(h, m.name.c_str(), m.signals[s].c_str(), m.values[s]);
    return failed | DBC_SyncValueToCANMsg(h, m.name.c_str(), frame);
  };
  // The frame each message encodes to, built once before timing.
  std::vector<CAN_MSG> expected(msgs.size());
  for (size_t k = 0; k < msgs.size(); ++k)
    veltrix::bench::check(encode(msgs[k], &expected[k]) == 0, "encoding before timing");
  size_t i = 0, wrong = 0;
  CAN_MSG frame{};
  for (auto _ : state) {
    const size_t k = i++ % msgs.size();
    if (encode(msgs[k], &frame) != 0 || std::memcmp(frame.Data, expected[k].Data, 8) != 0) ++wrong;
  }
  veltrix::bench::check(wrong == 0, "timed encodes match the frames built before timing");
  state.SetItemsProcessed(int64_t(state.iterations()));
  DBC_Release(h);
}
BENCHMARK(BM_EncodeMessages);

// The same frames through DBC_SetSignalValueByIndex and DBC_EncodeCANMsgByIndex, checked
// against the name-based encodes made before timing.
void BM_EncodeMessagesByIndex(benchmark::State& state) {
  const std::vector<Message> msgs = catalogue();
  long long h = DBC_ParserFile(kDirectDevice, kFile.c_str());
  veltrix::bench::check(h != 0 && !msgs.empty(), "parse of vw_mlb.dbc");
  std::vector<CAN_MSG> expected(msgs.size());
  for (size_t k = 0; k < msgs.size(); ++k) {
    int failed = 0;
    for (size_t s = 0; s < msgs[k].signals.size(); ++s)
      failed |= DBC_SetSignalValue(h, msgs[k].name.c_str(), msgs[k].signals[s].c_str(),
                                   msgs[k].values[s]);
    failed |= DBC_SyncValueToCANMsg(h, msgs[k].name.c_str(), &expected[k]);
    veltrix::bench::check(failed == 0, "encoding by name before timing");
  }
  auto encode = [&](const Message& m, CAN_MSG* frame) {
    int failed = 0;
    for (size_t s = 0; s < m.values.size(); ++s)
      failed |= DBC_SetSignalValueByIndex(h, m.index, int(s), m.values[s]);
    return failed | DBC_EncodeCANMsgByIndex(h, m.index, frame);
  };
  size_t i = 0, wrong = 0;
  CAN_MSG frame{};
  for (auto _ : state) {
    const size_t k = i++ % msgs.size();
    if (encode(msgs[k], &frame) != 0 || std::memcmp(frame.Data, expected[k].Data, 8) != 0) ++wrong;
  }
  veltrix::bench::check(wrong == 0, "index encodes match the name-based frames");
  state.SetItemsProcessed(int64_t(state.iterations()));
  DBC_Release(h);
}
BENCHMARK(BM_EncodeMessagesByIndex);

}  // namespace
