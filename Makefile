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

# Each fuzzer runs FUZZ_SECONDS in turn, then its final coverage is printed;
# findings land in $(BUILD_FUZZ)/findings/<target>, logs in $(BUILD_FUZZ).
FUZZ_TARGETS ?= connection settings

fuzz: setup
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_FUZZ) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DQEL_FUZZ=ON -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF
	cmake --build $(BUILD_FUZZ) -j $(JOBS) --target $(addprefix qel_fuzz_,$(FUZZ_TARGETS))
	@failed=""; for t in $(FUZZ_TARGETS); do \
	  mkdir -p $(BUILD_FUZZ)/corpus/$$t $(BUILD_FUZZ)/findings/$$t; \
	  echo "fuzzing $$t for $(FUZZ_SECONDS) s (log: $(BUILD_FUZZ)/fuzz-$$t.log)"; \
	  $(BUILD_FUZZ)/bin/qel_fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -max_len=16384 \
	    -artifact_prefix=$(BUILD_FUZZ)/findings/$$t/ $(BUILD_FUZZ)/corpus/$$t fuzz/corpus/$$t \
	    > $(BUILD_FUZZ)/fuzz-$$t.log 2>&1 || { failed="$$failed $$t"; tail -n 40 $(BUILD_FUZZ)/fuzz-$$t.log; }; \
	done; \
	for t in $(FUZZ_TARGETS); do \
	  echo "$$t: $$(grep -o 'cov: [0-9]*' $(BUILD_FUZZ)/fuzz-$$t.log | tail -n 1 | cut -d' ' -f2) edges covered"; \
	done; \
	if [ -n "$$failed" ]; then echo "fuzzing found faults in:$$failed"; exit 1; fi

bench: build
	$(BUILD)/bin/qel_figures
	$(BUILD)/bin/qel_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp' '*.h.in')

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ)
