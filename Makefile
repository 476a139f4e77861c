# Top-level entry points. Each target installs what it needs (scripts/bootstrap) first.
JOBS ?= 2
CMAKE_FLAGS ?=
CTEST = ctest --output-on-failure -j $(JOBS)
SIM = build/veltrix-sim
CLI = build/tools/veltrix

.PHONY: all bootstrap build test install-check deb demo asan tsan tsan-stress bench bench-docs \
  bench-build fuzz fuzz-smoke clean

all: build

bootstrap:
	@scripts/bootstrap

build: bootstrap
	@cmake -S . -B build -G Ninja $(CMAKE_FLAGS) >/dev/null
	@cmake --build build -j $(JOBS)

test: build
	@$(CTEST) --test-dir build

# Installs into a temporary prefix and builds and runs the examples against it, with
# CMake and with pkg-config, from outside the source tree.
install-check: build
	@scripts/check-install build

# The Debian package, in build/.
deb: build
	@cd build && cpack -G DEB >/dev/null && ls -1 "$$PWD"/*.deb

# Builds only what the demo runs: the CLI and the virtual adapter.
demo: bootstrap
	@cmake -S . -B build -G Ninja $(CMAKE_FLAGS) >/dev/null
	@cmake --build build -j $(JOBS) --target veltrix veltrix_simpreload
	@scripts/demo

asan: bootstrap
	@cmake -S . -B build-asan -G Ninja -DVELTRIX_SANITIZE=address >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@$(CTEST) --test-dir build-asan

tsan: bootstrap
	@cmake -S . -B build-tsan -G Ninja -DVELTRIX_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j $(JOBS)
	@$(CTEST) --test-dir build-tsan

# The registry, lock and re-plug stress suites under ThreadSanitizer: only the two test
# binaries that hold them are built, which keeps this affordable in CI.
TSAN_STRESS_TESTS = ^(Registry\.|Transport\.|EveryLock/|ReplugStress\.)
tsan-stress: bootstrap
	@cmake -S . -B build-tsan -G Ninja -DVELTRIX_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target device_tests can_tests
	@$(CTEST) --test-dir build-tsan -R '$(TSAN_STRESS_TESTS)'

# Runs every benchmark (each checks what it times and fails otherwise) and writes the
# medians and spreads, with machine, commit and date, to build-bench/results.md.
BENCH_REPETITIONS ?= 5
bench: bench-build
	@scripts/bench-report build-bench build-bench/results.md --repetitions $(BENCH_REPETITIONS)

# The same run, also rewriting the results section of docs/benchmarks.md.
bench-docs: bench-build
	@scripts/bench-report build-bench build-bench/results.md --repetitions $(BENCH_REPETITIONS) \
	  --update-docs docs/benchmarks.md

bench-build: bootstrap
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELTRIX_BUILD_TESTS=OFF \
	  -DVELTRIX_BUILD_BENCH=ON >/dev/null
	@cmake --build build-bench -j $(JOBS)

# Builds every libFuzzer target with clang and runs each briefly (FUZZ_SECONDS each).
FUZZ_SECONDS ?= 20
fuzz: bootstrap
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DVELTRIX_BUILD_FUZZ=ON \
	  -DVELTRIX_BUILD_TESTS=OFF >/dev/null
	@cmake --build build-fuzz -j $(JOBS)
	@scripts/fuzz-smoke build-fuzz $(FUZZ_SECONDS)

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz
