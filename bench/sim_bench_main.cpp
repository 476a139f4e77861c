// The main of every benchmark that runs against virtual adapters: it re-executes itself
// under umockdev (the emulated USB device needs it) before running the benchmarks.
#include <benchmark/benchmark.h>

#include "sim/reexec.hpp"

int main(int argc, char** argv) {
  veltrix::sim::ensure_umockdev(argc, argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
