# make run    builds and runs the firewall headless in a private network namespace
# make test   builds and runs every test
BUILD ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)

.PHONY: all deps configure build run test bench tsan asan format clean

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

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-tsan build-asan
