// I2C and SPI throughput through the virtual adapter: SPI flash reads, I2C EEPROM reads,
// and the SPI slave continuous reader. Each benchmark checks the bytes it moved against
// the adapter's memory (or the stream) captured before timing, and aborts on a mismatch.
//
// The virtual adapter does not clock its buses, so every figure is the host side's rate
// (library plus USB emulation); the bus-clock limit is reported beside it as
// `bus_limit_Bps`, and `of_bus_limit` says how many times faster than the bus the host
// side is. Above 1 the real bus, not the library, is the bottleneck.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/virtual_adapter.hpp"
#include "peripherals/spi/spi_state.hpp"
#include "sim/i2c_bus.hpp"
#include "sim/spi_bus.hpp"
#include "sim/testbed.hpp"
#include "veltrix/i2c.h"
#include "veltrix/spi.h"
#include "veltrix/usb_device.h"

namespace {

constexpr uint32_t kSerial = 0x4B000001;
constexpr double kSpiClockHz = 20e6;
constexpr double kI2cClockHz = 400e3;

std::shared_ptr<veltrix::sim::Model> g_model;

using veltrix::bench::fail;

std::vector<uint8_t> pattern(size_t n, unsigned seed) {
  std::vector<uint8_t> b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t((i * 131 + i / 251 + seed) & 0xFF);
  return b;
}

void setup_once() {
  g_model = veltrix::bench::open_virtual_adapter(kSerial, [](veltrix::sim::Model& m) {
    SPI_FLASH_CONFIG c{};
    c.Cmd[SPI_FLASH_CMD_READ_DATA] = 0x03;
    c.Cmd[SPI_FLASH_CMD_READ_ID] = 0x9F;
    c.IDLength = 3;
    if (SPI_FlashInit(int(kSerial), 0, unsigned(kSpiClockHz), &c) != 0) return false;
    if (SMBUS_Init(int(kSerial), 0, unsigned(kI2cClockHz), 0) != 0) return false;
    std::scoped_lock g(veltrix::sim::sim_mutex());
    veltrix::sim::spi_bus(m).ch[0].flash.mem = pattern(veltrix::sim::NorFlash::kSize, 1);
    veltrix::sim::i2c_bus(m).ch[0].eeprom().mem = pattern(veltrix::sim::Eeprom24::kSize, 2);
    return true;
  });
}

void clear_record() {
  std::scoped_lock g(veltrix::sim::sim_mutex());
  g_model->clear_record();
}

// Reads the whole 1 MiB flash in chunks of range(0) bytes.
void BM_SpiFlashRead(benchmark::State& state) {
  setup_once();
  const size_t chunk = size_t(state.range(0));
  const auto want = pattern(veltrix::sim::NorFlash::kSize, 1);
  std::vector<uint8_t> got(want.size());
  for (auto _ : state) {
    for (size_t at = 0; at < got.size(); at += chunk)
      if (SPI_FlashRead(int(kSerial), 0, unsigned(at), got.data() + at, int(chunk)) != 0)
        fail("flash read failed");
    clear_record();
  }
  if (got != want) fail("flash contents read back wrong");
  const double bytes = double(state.iterations()) * double(got.size());
  state.SetBytesProcessed(int64_t(bytes));
  state.counters["bus_limit_Bps"] = kSpiClockHz / 8;
  state.counters["of_bus_limit"] =
      benchmark::Counter(bytes / (kSpiClockHz / 8), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SpiFlashRead)->Arg(4096)->Arg(65536)->UseRealTime()->Unit(benchmark::kMillisecond);

// Reads the whole 32 KiB EEPROM in sequential reads of range(0) bytes after setting the
// address pointer.
void BM_I2cEepromRead(benchmark::State& state) {
  setup_once();
  const size_t chunk = size_t(state.range(0));
  const auto want = pattern(veltrix::sim::Eeprom24::kSize, 2);
  std::vector<uint8_t> got(want.size());
  for (auto _ : state) {
    for (size_t at = 0; at < got.size(); at += chunk) {
      uint8_t a[2] = {uint8_t(at >> 8), uint8_t(at)};
      if (IIC_WriteReadBytes(int(kSerial), 0, 0x50, a, 2, got.data() + at, int(chunk), 100) != 0)
        fail("EEPROM read failed");
    }
    clear_record();
  }
  if (got != want) fail("EEPROM contents read back wrong");
  const double bytes = double(state.iterations()) * double(got.size());
  state.SetBytesProcessed(int64_t(bytes));
  // Each byte costs nine clocks (eight data bits and the acknowledge).
  state.counters["bus_limit_Bps"] = kI2cClockHz / 9;
  state.counters["of_bus_limit"] =
      benchmark::Counter(bytes / (kI2cClockHz / 9), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_I2cEepromRead)->Arg(256)->Arg(4096)->UseRealTime()->Unit(benchmark::kMillisecond);

double thread_cpu_s(pthread_t t) {
  clockid_t id;
  timespec ts{};
  if (pthread_getcpuclockid(t, &id) != 0 || clock_gettime(id, &ts) != 0) return 0;
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

std::atomic<uint64_t> g_stream_bytes{0};
std::atomic<uint64_t> g_stream_sum{0};

// The remote master clocks 16 MiB in at range(0) MB/s; the reader thread hands every
// chunk to a callback that counts and sums it. Reports the sustained rate and the reader
// thread's CPU time as a share of one core.
void BM_SpiSlaveStream(benchmark::State& state) {
  setup_once();
  const size_t total = 16u << 20;
  const double rate = double(state.range(0)) * 1e6;
  const auto data = pattern(total, 3);
  uint64_t want_sum = 0;
  for (uint8_t b : data) want_sum += b;
  double cpu_share = 0, wall_total = 0;
  for (auto _ : state) {
    g_stream_bytes = 0;
    g_stream_sum = 0;
    {
      std::scoped_lock g(veltrix::sim::sim_mutex());
      veltrix::sim::spi_bus(*g_model).ch[1].master_stream(data, rate);
    }
    const auto start = std::chrono::steady_clock::now();
    if (SPI_SlaveContinueRead(int(kSerial), 1, [](int, int, unsigned char* p, int n) {
          uint64_t s = 0;
          for (int i = 0; i < n; ++i) s += p[i];
          g_stream_sum += s;
          g_stream_bytes += uint64_t(n);
        }) != 0)
      fail("continuous read did not start");
    pthread_t reader;
    {
      auto& slot = veltrix::spi::state().slave[size_t(veltrix::spi::slot_of(int(kSerial)))];
      std::scoped_lock g(slot.control);
      reader = slot.reader.native_handle();
    }
    const double cpu0 = thread_cpu_s(reader);
    double cpu = 0;
    for (int i = 0; i < 600000 && g_stream_bytes < total; ++i) {
      cpu = thread_cpu_s(reader) - cpu0;  // read while the thread still exists
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (SPI_SlaveContinueReadStop(int(kSerial), 1) != 0) fail("stop failed");
    if (g_stream_bytes != total || g_stream_sum != want_sum) fail("stream arrived incomplete");
    cpu_share += cpu;
    wall_total += wall;
    clear_record();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(total));
  state.counters["reader_cpu_percent_of_core"] = wall_total > 0 ? cpu_share / wall_total * 100 : 0;
}
BENCHMARK(BM_SpiSlaveStream)
    ->Arg(8)
    ->Arg(1000)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
