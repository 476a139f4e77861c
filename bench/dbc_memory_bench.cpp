// Heap held by a loaded DBC database, for each larger sample file, as a multiple of the
// file's size. Every allocation of the program goes through the counting operators below;
// what DBC_LoadFile allocates and does not free before it returns is what the database
// holds. The run checks the handle and its message count, and that releasing the database
// gives every byte back; it aborts otherwise.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "bench/bench_check.hpp"
#include "bench/dbc_corpus.hpp"
#include "veltrix/dbc.h"

namespace {

// Usable sizes, as the allocator hands them out: the memory a block really takes.
std::atomic<long long> g_live{0};

void* counted_alloc(size_t n) {
  void* p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  g_live.fetch_add((long long)malloc_usable_size(p), std::memory_order_relaxed);
  return p;
}

void counted_free(void* p) noexcept {
  if (!p) return;
  g_live.fetch_sub((long long)malloc_usable_size(p), std::memory_order_relaxed);
  std::free(p);
}

}  // namespace

void* operator new(size_t n) { return counted_alloc(n); }
void* operator new[](size_t n) { return counted_alloc(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  try {
    return counted_alloc(n);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { counted_free(p); }
void operator delete[](void* p) noexcept { counted_free(p); }
void operator delete(void* p, size_t) noexcept { counted_free(p); }
void operator delete[](void* p, size_t) noexcept { counted_free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { counted_free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { counted_free(p); }

namespace {

void BM_DatabaseHeap(benchmark::State& state, const char* name) {
  const veltrix::bench::DbcSample sample = veltrix::bench::dbc_sample(name);
  veltrix::bench::check(!sample.text.empty() && sample.messages > 0, "the sample file is readable");
  // The first load also creates the handle table; that is not the database's.
  veltrix::bench::check(DBC_Release(DBC_LoadFile(sample.path.c_str())) == DBC_OK, "a first load");

  long long held = 0;
  for (auto _ : state) {
    const long long before = g_live.load();
    const long long h = DBC_LoadFile(sample.path.c_str());
    held = g_live.load() - before;
    veltrix::bench::check(h != 0 && DBC_GetMsgQuantity(h) == sample.messages,
                          "the database holds every message of the file");
    veltrix::bench::check(DBC_Release(h) == DBC_OK && g_live.load() == before,
                          "releasing the database frees all it held");
  }
  state.counters["held_bytes"] = double(held);
  state.counters["file_bytes"] = double(sample.text.size());
  state.counters["held_per_file_byte"] = double(held) / double(sample.text.size());
}
const bool kRegistered = [] {
  for (const char* name : veltrix::bench::kLargeDbcFiles) {
    benchmark::RegisterBenchmark(("BM_DatabaseHeap/" + std::string(name)).c_str(), BM_DatabaseHeap,
                                 name)
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
