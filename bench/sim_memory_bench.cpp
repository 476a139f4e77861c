// Memory of a long soak through the virtual adapter: resident set growth per command
// exchange once the adapter's command record has reached its bound. A growth of more than a
// few bytes per exchange means every transfer stays allocated somewhere; the program then
// aborts, so a leak cannot hide behind a fast round trip.
//
//   build-bench/bench/sim_memory_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/virtual_adapter.hpp"
#include "device/transport.hpp"
#include "sim/model.hpp"
#include "sim/testbed.hpp"
#include "veltrix/usb_device.h"

namespace {

constexpr uint32_t kSerial = 0x51000002;
constexpr uint32_t kEcho = 0x0E01;
constexpr size_t kFrameBytes = 20;  // one CAN frame record per exchange
// Past the record's bound, so the record no longer grows during the measured run.
constexpr int kWarmUp = int(veltrix::sim::Model::kRecordMaxEntries) + 1000;
constexpr int kMeasured = 20000;
// Allocator slack; a leaked URB alone costs well over a hundred bytes.
constexpr double kMaxGrowthPerExchange = 16.0;

long resident_bytes() {
  long pages_total = 0, pages_resident = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  int got = std::fscanf(f, "%ld %ld", &pages_total, &pages_resident);
  std::fclose(f);
  return got == 2 ? pages_resident * sysconf(_SC_PAGESIZE) : -1;
}

void setup_once() {
  veltrix::bench::open_virtual_adapter(
      kSerial, [](veltrix::sim::Model& m) { return veltrix::bench::install_echo(m, kEcho); });
}

// Runs n echo exchanges and checks that every one came back intact.
void soak(int n) {
  std::vector<uint8_t> out(kFrameBytes), in(kFrameBytes);
  for (int i = 0; i < n; ++i) {
    for (size_t k = 0; k < out.size(); ++k) out[k] = uint8_t(i + int(k));
    auto r = veltrix::exchange(kSerial, {.cmd = kEcho, .payload = out, .reply = in});
    if (!r.ok() || r.copied != kFrameBytes || in != out) {
      std::fprintf(stderr, "exchange %d failed or came back altered\n", i);
      std::abort();
    }
  }
}

void BM_SoakResidentGrowth(benchmark::State& state) {
  setup_once();
  double per_exchange = 0;
  for (auto _ : state) {
    soak(kWarmUp);
    const long before = resident_bytes();
    soak(kMeasured);
    const long after = resident_bytes();
    if (before < 0 || after < 0) std::abort();
    per_exchange = double(after - before) / kMeasured;
  }
  state.counters["bytes_per_exchange"] = per_exchange;
  state.counters["exchanges"] = kMeasured;
  if (per_exchange > kMaxGrowthPerExchange) {
    std::fprintf(stderr, "resident set grew %.1f bytes per exchange\n", per_exchange);
    std::abort();
  }
}
BENCHMARK(BM_SoakResidentGrowth)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
