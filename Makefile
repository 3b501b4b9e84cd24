# Everything goes through here: each target installs what is missing first.
BUILD      ?= build
BUILD_ASAN ?= build-asan
JOBS       ?= 2

BUILD_FUZZ ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: all setup build run test test-asan fuzz bench format clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/bin/qel node --port 4000

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

$(BUILD_ASAN)/build.ninja:
	cmake -S . -B $(BUILD_ASAN) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQEL_SANITIZE=ON

test-asan: setup $(BUILD_ASAN)/build.ninja
	cmake --build $(BUILD_ASAN) -j $(JOBS)
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

# The connection fuzzer for a bounded time; findings land in $(BUILD_FUZZ)/findings.
fuzz: setup
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_FUZZ) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DQEL_FUZZ=ON -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF
	cmake --build $(BUILD_FUZZ) -j $(JOBS) --target qel_fuzz_connection
	mkdir -p $(BUILD_FUZZ)/corpus $(BUILD_FUZZ)/findings
	$(BUILD_FUZZ)/bin/qel_fuzz_connection -max_total_time=$(FUZZ_SECONDS) -max_len=16384 \
	  -artifact_prefix=$(BUILD_FUZZ)/findings/ $(BUILD_FUZZ)/corpus fuzz/corpus/connection

bench: build
	$(BUILD)/bin/qel_figures
	$(BUILD)/bin/qel_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp' '*.h.in')

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ)
