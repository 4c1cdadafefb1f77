# Front door: `make run` builds and plays the example on the virtual device,
# `make test` builds and passes every test (and the unit suites again under ASan + UBSan).
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
ARGS       ?=

.PHONY: all deps configure build run test unit-asan bench clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

configure: deps $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Builds only what it runs: the engine and the tapwright executable.
run: configure
	cmake --build $(BUILD) -j $(JOBS) --target tapwright
	./$(BUILD)/tapwright play examples/hello.lua $(ARGS)

$(ASAN_BUILD)/build.ninja: | deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTW_SANITIZE=ON -DTW_UNIT_ONLY=ON -DTW_BENCH=OFF

unit-asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) --no-print-directory unit-asan

bench: build
	./$(BUILD)/bench/tw_bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
