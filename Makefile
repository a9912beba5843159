# The project's commands. `make run` starts the daemon, `make test` builds the
# normal and the sanitizer configuration and runs every test in both.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN ?= build-asan
FUZZ ?= build-fuzz
RUNDIR ?= /tmp/dhcpv6relaymgr

.PHONY: all deps build build-asan build-fuzz test test-normal test-asan fuzz-smoke bench run clean

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

clean:
	rm -rf $(BUILD) $(ASAN) $(FUZZ)
