# Set-up and everyday commands. Every target installs what is missing first.
BUILD       ?= build
SAN_BUILD   ?= build-sanitize
BENCH_BUILD ?= build-bench
FUZZ_BUILD  ?= build-fuzz
TSAN_BUILD  ?= build-tsan
MEMCHECK_BUILD ?= build-memcheck
FUZZ_SECONDS ?= 60
JOBS        ?= 2
CMAKE_FLAGS ?=

.PHONY: all deps build demo test sanitize bench install clean python fuzz tsan memcheck format format-check

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)

demo: build
	./$(BUILD)/tools/lxopt-demo

# The Python package into $(BUILD)/python (PYTHONPATH=$(BUILD)/python).
python: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target python

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

sanitize: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DLXOPT_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(SAN_BUILD) -j$(JOBS)
	cd $(SAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --output-on-failure -j$(JOBS)

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DLXOPT_BUILD_BENCH=ON \
		-DLXOPT_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j$(JOBS)
	@for b in $(BENCH_BUILD)/bench/bench_*; do [ -x "$$b" ] && "$$b" || exit 1; done

# LxOpt next to GSL multimin, dlib and scipy.optimize on one problem set, and
# per-iteration scaling; writes docs/performance.md and its profile SVG (the
# full tables go to $(BENCH_BUILD)/peer-results).
.PHONY: bench-peers
bench-peers: deps
	@bash scripts/install-peer-deps.sh
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DLXOPT_BUILD_BENCH=ON \
		-DLXOPT_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j$(JOBS) --target peer_compare peer_scaling lxbench_problems
	bash scripts/run-peer-bench.sh $(BENCH_BUILD)

# Force calls to convergence on molecules, clusters and surfaces: LxOpt next to
# ASE, scipy and RDKit (bench/molecular); writes docs/molecular.md and its plot.
# MOLBENCH_FLAGS=--quick for a short run.
MOLBENCH_FLAGS ?=
.PHONY: bench-molecular
bench-molecular: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target lxmolbench
	MPLBACKEND=Agg /usr/bin/python3 bench/molecular/run.py \
		--lib $(BUILD)/bench/molecular/liblxmolbench.so --doc docs/molecular.md $(MOLBENCH_FLAGS)

# libFuzzer targets (fuzz/) with ASan and UBSan, FUZZ_SECONDS each, on a copy
# of the seed corpus; fails when a target finds a crash.
fuzz:
	@bash scripts/install-deps.sh clang libclang-rt-14-dev
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DLXOPT_FUZZ=ON -DLXOPT_BUILD_TESTS=OFF -DLXOPT_BUILD_TOOLS=OFF -DLXOPT_BUILD_PYTHON=OFF \
		$(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j$(JOBS) --target fuzz_all
	bash fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# The concurrency test under ThreadSanitizer (library and test_threads only).
tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLXOPT_TSAN=ON \
		-DLXOPT_BUILD_TOOLS=OFF -DLXOPT_BUILD_PYTHON=OFF $(CMAKE_FLAGS)
	cmake --build $(TSAN_BUILD) -j$(JOBS) --target lxopt test_threads
	TSAN_OPTIONS=halt_on_error=1 ./$(TSAN_BUILD)/tests/test_threads

# The test suite under valgrind memcheck (ctest -T memcheck); the tests that
# cannot run under valgrind, and why, are listed in scripts/memcheck.sh.
memcheck:
	@bash scripts/install-deps.sh valgrind
	cmake -S . -B $(MEMCHECK_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLXOPT_BUILD_PYTHON=OFF \
		$(CMAKE_FLAGS)
	cmake --build $(MEMCHECK_BUILD) -j$(JOBS)
	bash scripts/memcheck.sh $(MEMCHECK_BUILD) $(JOBS)

install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD) $(TSAN_BUILD) $(MEMCHECK_BUILD)

# clang-format (.clang-format) over every C++ file the repository tracks.
FORMAT_FILES = git ls-files '*.cpp' '*.h'
format:
	@bash scripts/install-deps.sh clang-format
	$(FORMAT_FILES) | xargs clang-format -i

format-check:
	@bash scripts/install-deps.sh clang-format
	$(FORMAT_FILES) | xargs clang-format --dry-run --Werror
