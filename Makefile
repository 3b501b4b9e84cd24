# Everything goes through here: each target installs what is missing first.
BUILD      ?= build
BUILD_ASAN ?= build-asan
JOBS       ?= 2

BUILD_FUZZ ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: all setup build run python test test-asan soak soak-hosts fuzz bench format clean

all: build

# setup installs what building and running need; the test, bench, fuzz and
# format targets add their own group of packages.
setup:
	@bash scripts/setup.sh

CONFIGURE = cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

$(BUILD)/build.ninja:
	$(CONFIGURE)

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

# Only the command and the library: the tests, examples and soak wait for make build.
run: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS) --target qel_cli
	$(BUILD)/bin/qel node --port 4000

# The Python module, in $(BUILD)/python (docs/python.md).
python: setup
	@bash scripts/setup.sh python
	$(CONFIGURE)
	cmake --build $(BUILD) -j $(JOBS) --target qel_python

# The tests and benchmarks skip themselves while their packages are missing,
# so these targets configure again once the packages are in. No tests at all
# means GoogleTest was still not found: that fails rather than passes.
test: setup
	@bash scripts/setup.sh test python
	$(CONFIGURE)
	cmake --build $(BUILD) -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure --no-tests=error -j $(JOBS)

test-asan: setup
	@bash scripts/setup.sh test
	cmake -S . -B $(BUILD_ASAN) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQEL_SANITIZE=ON
	cmake --build $(BUILD_ASAN) -j $(JOBS)
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure --no-tests=error -j $(JOBS)

# A ring of nodes on loopback, one node killed and restarted every 2 s while
# another sends to a third; prints what arrived, crashes and peak memory.
# SOAK_ARGS takes more options (build/bin/qel_soak --help).
SOAK_SECONDS ?= 60
SOAK_ARGS ?=

soak: setup
	$(CONFIGURE)
	cmake --build $(BUILD) -j $(JOBS) --target qel_soak
	$(BUILD)/bin/qel_soak --seconds $(SOAK_SECONDS) $(SOAK_ARGS)

# One node per network namespace, 24 linked as a random graph, under link faults and
# kills (root; skipped otherwise). SOAK_ARGS as for soak (--hosts, --seed, ...).
soak-hosts: setup
	@bash scripts/setup.sh hosts
	$(CONFIGURE)
	cmake --build $(BUILD) -j $(JOBS) --target qel_soak
	$(BUILD)/bin/qel_soak --netns $(SOAK_ARGS)

# Each fuzzer runs FUZZ_SECONDS in turn, then its final coverage and speed are printed;
# findings land in $(BUILD_FUZZ)/findings/<target>, logs in $(BUILD_FUZZ).
FUZZ_TARGETS ?= connection settings

fuzz: setup
	@bash scripts/setup.sh fuzz
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
	  echo "$$t: $$(grep -o 'cov: [0-9]*' $(BUILD_FUZZ)/fuzz-$$t.log | tail -n 1 | cut -d' ' -f2) edges covered," \
	    "$$(grep -o 'exec/s: [0-9]*' $(BUILD_FUZZ)/fuzz-$$t.log | tail -n 1 | cut -d' ' -f2) runs a second"; \
	done; \
	if [ -n "$$failed" ]; then echo "fuzzing found faults in:$$failed"; exit 1; fi

bench: setup
	@bash scripts/setup.sh bench
	$(CONFIGURE)
	cmake --build $(BUILD) -j $(JOBS) --target qel_bench qel_figures
	$(BUILD)/bin/qel_figures
	$(BUILD)/bin/qel_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

format:
	@bash scripts/setup.sh format
	clang-format -i $$(git ls-files '*.h' '*.cpp' '*.h.in')

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ)
