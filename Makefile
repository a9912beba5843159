# The project's commands. `make run` starts the daemon, `make test` builds the
# normal and the sanitizer configuration and runs every test in both.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN ?= build-asan
FUZZ ?= build-fuzz
RUNDIR ?= /tmp/dhcpv6relaymgr

.PHONY: all deps build build-asan build-fuzz test test-normal test-asan fuzz-smoke bench run lab clean

all: build

deps:
	@scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DQOR_SANITIZE=ON -DQOR_BENCH=OFF >/dev/null
	cmake --build $(ASAN) -j$(JOBS)

build-fuzz: deps
	CXX=clang++ cmake -S . -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQOR_FUZZ=ON >/dev/null
	cmake --build $(FUZZ) -j$(JOBS)

test-normal: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: build-asan
	cd $(ASAN) && ctest --output-on-failure -j$(JOBS)

# A short run of every libFuzzer target from its corpus.
fuzz-smoke: build-fuzz
	scripts/fuzz-smoke.sh $(FUZZ)

test: test-normal test-asan fuzz-smoke

bench: build
	$(BUILD)/bench_micro

HOSTMAP ?= examples/hostmap.ini
run: build
	$(BUILD)/dhcpv6relaymgr --rundir $(RUNDIR) --host-map $(HOSTMAP)

# The demonstration lab (root): a DHCPv6 client, this relay and a Kea server
# in network namespaces; LAB_RELAY=dhcrelay runs ISC dhcrelay in its place.
lab: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target dhcpv6relaymgr dhcpv6-cli
	BUILD=$(BUILD) scripts/lab.sh

# The relay load test (root): the same DHCPv6 load through ISC dhcrelay and
# through dhcpv6relaymgr in network namespaces, and a table of exchanges/s,
# latency, CPU and memory of each. BENCH_ARGS passes options
# (bench/relay-bench.sh --help), e.g. BENCH_ARGS='--runs throughput'.
.PHONY: bench-relay
bench-relay: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQOR_BENCH=ON >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target dhcpv6relaymgr dhcpv6-cli \
		bench_load_gen bench_load_server bench_load_fwd
	BUILD=$(BUILD) bench/relay-bench.sh $(BENCH_ARGS)

clean:
	rm -rf $(BUILD) $(ASAN) $(FUZZ)
