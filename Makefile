# make run    builds and runs the firewall headless in a private network namespace
# make test   builds and runs every test
BUILD ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)

.PHONY: all deps configure build run test bench tsan asan fuzz windows-core format clean

all: build

deps:
	@tools/install-deps

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	tools/sandbox tools/run-demo $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Benchmarks: figures for docs/performance.md.
bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b; done

tsan:
	$(MAKE) test BUILD=build-tsan CMAKE_FLAGS="-DTESSMARK_SANITIZE=thread -DTESSMARK_BUILD_BENCH=OFF"

asan:
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DTESSMARK_SANITIZE=address -DTESSMARK_BUILD_BENCH=OFF"

# libFuzzer harnesses (fuzz/fuzz_*.cpp), built with clang into build-fuzz and run one after the
# other for FUZZ_SECONDS each; FUZZ=name runs fuzz_name alone. Independent of `make test`.
FUZZ_SECONDS ?= 600
FUZZ ?=
fuzz:
	@tools/install-fuzz-deps
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DTESSMARK_BUILD_FUZZ=ON \
	  -DTESSMARK_BUILD_TESTS=OFF -DTESSMARK_BUILD_BENCH=OFF >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target $(if $(FUZZ),fuzz_$(FUZZ),fuzzers)
	@fuzz/run-fuzzers build-fuzz $(FUZZ_SECONDS) $(FUZZ)

# Every core file compiled for Windows with mingw-w64: the core names no Linux interface.
windows-core: deps
	@tools/check-core-windows

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-tsan build-asan
