# Front door: `make run` builds and plays the example on the virtual device,
# `make test` builds and passes every test (and the unit suites again under ASan + UBSan).
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
# `make fuzz FUZZ_SECONDS=N` runs every fuzz target for N seconds (FUZZ_TARGETS: a few by name).
FUZZ_SECONDS ?= 0
FUZZ_TARGETS ?=
JOBS       ?= $(shell nproc)
ARGS       ?=

.PHONY: all deps configure build run test unit-asan bench bench-web fuzz fuzz-deps fuzz-corpus clean

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

# The web server under load (wrk) and large uploads (curl), on loopback: see docs/bench-web.md.
bench-web: configure
	cmake --build $(BUILD) -j $(JOBS) --target tapwright
	TAPWRIGHT=$(BUILD)/tapwright bench/web-load.sh

# libFuzzer targets (clang, AddressSanitizer, UndefinedBehaviorSanitizer) in their own build
# folder; not part of `make test`. Builds them; with FUZZ_SECONDS=N also runs each for N seconds,
# two at a time, and reports the runs and any crash (inputs kept under $(FUZZ_BUILD)/crashes).
fuzz-deps:
	@scripts/install-deps fuzz

$(FUZZ_BUILD)/build.ninja: | fuzz-deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DTW_FUZZ=ON -DTW_BENCH=OFF \
		-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g"

fuzz: fuzz-deps $(FUZZ_BUILD)/build.ninja
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_all
	@if [ "$(FUZZ_SECONDS)" != "0" ]; then scripts/run-fuzz $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_TARGETS); fi

# Rewrites the seed inputs of fuzz/corpus from the engine's encoders.
fuzz-corpus: fuzz
	./$(FUZZ_BUILD)/fuzz/tw_make_corpus fuzz/corpus tests/data

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
