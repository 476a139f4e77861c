// Command exchanges through the real libusb against the virtual adapter: the cost of one
// command/reply round trip in the library and the USB emulation together.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/virtual_adapter.hpp"
#include "device/transport.hpp"
#include "sim/testbed.hpp"
#include "veltrix/usb_device.h"

namespace {

constexpr uint32_t kSerial = 0x51000001;
constexpr uint32_t kEcho = 0x0E01;

void setup_once() {
  veltrix::bench::open_virtual_adapter(
      kSerial, [](veltrix::sim::Model& m) { return veltrix::bench::install_echo(m, kEcho); });
}

void BM_Exchange(benchmark::State& state) {
  setup_once();
  std::vector<uint8_t> out(size_t(state.range(0)), 0x5A), in(out.size());
  for (auto _ : state) {
    auto r = veltrix::exchange(kSerial, {.cmd = kEcho, .payload = out, .reply = in});
    if (!r.ok()) state.SkipWithError("exchange failed");
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0) * 2);
}
BENCHMARK(BM_Exchange)->Arg(0)->Arg(64)->Arg(2000)->Arg(40000)->UseRealTime();

}  // namespace
