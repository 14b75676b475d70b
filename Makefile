# Set-up and everyday commands. Every target installs what is missing first.
BUILD       ?= build
SAN_BUILD   ?= build-sanitize
BENCH_BUILD ?= build-bench
JOBS        ?= 2
CMAKE_FLAGS ?=

.PHONY: all deps build demo test sanitize bench install clean python

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
# per-iteration scaling; writes bench/results/ and docs/performance.md.
.PHONY: bench-peers
bench-peers: deps
	@bash scripts/install-peer-deps.sh
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DLXOPT_BUILD_BENCH=ON \
		-DLXOPT_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j$(JOBS) --target peer_compare peer_scaling lxbench_problems
	bash scripts/run-peer-bench.sh $(BENCH_BUILD)

install: build
	cmake --install $(BUILD) $(if $(PREFIX),--prefix $(PREFIX))

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(BENCH_BUILD)
