# Thin faces of the CMake build. Each installs the build tools that it needs, or says exactly which are missing.

BUILD := build/release
JOBS := $(shell nproc)
CONFIGURE = cmake --preset release $(CMAKE_FLAGS)
COMPILE = cmake --build $(BUILD) -j $(JOBS) --target

.PHONY: all demo test sanitize tsan lint fuzz soak coverage bench performance docs install clean tools \
    test-tools bench-tools fuzz-tools lint-tools coverage-tools chart-tools docs-tools

all: tools
	$(CONFIGURE) -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=OFF
	$(COMPILE) all

# A column query on 120,000 real flights, checked against plain loops. Other data: make demo FLIGHTS=file.csv
demo: tools
	$(CONFIGURE) -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=OFF
	$(COMPILE) flights
	$(BUILD)/examples/flights $(FLIGHTS)

test: test-tools
	$(CONFIGURE) -DKEL_BUILD_TESTS=ON -DKEL_BUILD_BENCH=OFF
	$(COMPILE) all
	ctest --preset release -j $(JOBS)

# The same tests under the address and undefined-behaviour sanitizers.
sanitize: test-tools
	cmake --preset sanitize $(CMAKE_FLAGS)
	cmake --build build/sanitize -j $(JOBS)
	ctest --preset sanitize -j $(JOBS)

# Threads under the thread sanitizer: rounds of the soak test, the same each time, and the tests of thread records.
tsan: test-tools
	cmake --preset tsan $(CMAKE_FLAGS)
	cmake --build build/tsan -j $(JOBS) --target soak test_init
	ctest --preset tsan -R '^thread\.'
	build/tsan/tests/soak 10 1 256

# Which lines of the library no test reaches.
coverage: coverage-tools
	cmake --preset coverage $(CMAKE_FLAGS)
	cmake --build build/coverage -j $(JOBS)
	LLVM_PROFILE_FILE=$(CURDIR)/build/coverage/profiles/%m.profraw ctest --preset coverage -j $(JOBS) -E ^library$$
	tools/coverage.sh build/coverage

# clang-tidy over the library and the examples, as the release build compiles them, but for an option of gcc's.
lint: lint-tools
	$(CONFIGURE)
	mkdir -p build/lint
	sed 's/ -fno-gnu-unique//' $(BUILD)/compile_commands.json >build/lint/compile_commands.json
	git ls-files 'common/*.cpp' 'pics/*.cpp' 'examples/*/*.cpp' | xargs -P $(JOBS) -n 2 clang-tidy -p build/lint --quiet

# The fuzzers, each for some seconds.
SECONDS := 60
FUZZERS := fuzz_request fuzz_zip fuzz_encode
fuzz: fuzz-tools
	cmake --preset fuzz $(CMAKE_FLAGS)
	cmake --build build/fuzz -j $(JOBS) --target $(FUZZERS)
	mkdir -p build/corpus
	for fuzzer in $(FUZZERS); do \
	    mkdir -p build/corpus/$$fuzzer && \
	    build/fuzz/tests/$$fuzzer -max_total_time=$(SECONDS) -max_len=4096 -len_control=0 -use_value_profile=1 \
	        -artifact_prefix=build/corpus/$$fuzzer- build/corpus/$$fuzzer || exit 1; \
	done

# Threads of random requests against the models, while allocations fail at random.
MINUTES := 3
soak: test-tools
	$(CONFIGURE) -DKEL_BUILD_TESTS=ON -DKEL_BUILD_BENCH=OFF
	$(COMPILE) soak
	$(BUILD)/tests/soak $(MINUTES)

# One table of all operations, also as build/bench.json; about two minutes. Options go to the benchmark program, and a
# filter reaches the longer list, too: make bench BENCH=--benchmark_filter=nop
RESULTS := build/bench.json
bench: bench-tools
	$(CONFIGURE) -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=ON
	$(COMPILE) kel_bench
	$(BUILD)/bench/kel_bench --benchmark_out=$(RESULTS) $(BENCH)

# The table and the chart of docs/performance.md: the best of some runs on this machine.
RUNS := 1 2 3
performance: chart-tools bench
	for run in $(RUNS); do \
	    $(BUILD)/bench/kel_bench --benchmark_out=build/bench$$run.json || exit 1; \
	done
	bench/chart.py docs/performance.md docs/performance.svg $(RESULTS) $(RUNS:%=build/bench%.json)

# The reference: build/release/docs/html/index.html
docs: docs-tools
	$(CONFIGURE)
	$(COMPILE) docs

# To another place: make install PREFIX=/opt/kel (DESTDIR is heeded)
install: all
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf build

tools:
	@tools/need.sh
test-tools:
	@tools/need.sh gtest client
bench-tools:
	@tools/need.sh benchmark
fuzz-tools:
	@tools/need.sh gtest fuzz
lint-tools:
	@tools/need.sh lint
coverage-tools:
	@tools/need.sh gtest coverage
docs-tools:
	@tools/need.sh docs
chart-tools:
	@tools/need.sh chart
