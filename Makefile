# Every target sets up what it needs on a fresh Debian 12 machine, idempotently.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD ?= build/release
TEST_BUILD ?= build/test
BENCH_BUILD ?= build/bench
GUI ?= ON

DEB_PACKAGES := cmake ninja-build g++ pkg-config python3 \
  qt6-base-dev qt6-base-dev-tools qt6-multimedia-dev libgl-dev \
  libplist-dev libudev-dev libsystemd-dev libfmt-dev libcli11-dev \
  libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev \
  xorriso sleuthkit gdisk fdisk p7zip-full xz-utils unzip nlohmann-json3-dev zlib1g-dev libxxhash-dev libssl-dev \
  imagemagick python3-pil ffmpeg sox lame qpdf zip dbus-daemon xvfb xauth exfatprogs exfat-fuse \
  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav
# Only the benchmarks compare against these.
BENCH_PACKAGES := testdisk

.PHONY: all deps bench-deps build test demo bench fuzz fuzz-seeds mutate clean

all: build

deps: PACKAGES = $(DEB_PACKAGES)
bench-deps: PACKAGES = $(DEB_PACKAGES) $(BENCH_PACKAGES)
deps bench-deps:
	@missing=$$(for p in $(PACKAGES); do \
	    dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  SUDO=; [ "$$(id -u)" -eq 0 ] || SUDO=sudo; \
	  $$SUDO apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq --no-install-recommends $$missing; \
	else echo "All build and test dependencies are installed."; fi

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_GUI=$(GUI)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

$(TEST_BUILD)/build.ninja:
	cmake -S . -B $(TEST_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DAMBREL_SANITIZE=ON -DAMBREL_GUI=$(GUI)

test: deps $(TEST_BUILD)/build.ninja fuzz-seeds
	cmake --build $(TEST_BUILD) -j $(JOBS)
	cd $(TEST_BUILD) && ctest --output-on-failure -j $(JOBS)

# The libFuzzer harnesses built with clang (which also proves the engine builds
# with clang) and run once over their seed corpora.
build/fuzz/build.ninja:
	CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DAMBREL_GUI=OFF -DAMBREL_TESTS=OFF -DAMBREL_FUZZ=ON

fuzz-seeds: deps build/fuzz/build.ninja
	cmake --build build/fuzz -j $(JOBS) --target fuzzers
	./tools/fuzz.sh build/fuzz 0

demo: build
	./tools/demo.sh $(BUILD)

$(BENCH_BUILD)/build.ninja:
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DAMBREL_GUI=$(GUI) -DAMBREL_BENCH=ON

bench: bench-deps $(BENCH_BUILD)/build.ninja
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	./tools/bench.sh $(BENCH_BUILD)

# Real coverage-guided fuzzing (clang's libFuzzer); `make test` only replays the seed corpora.
FUZZ_SECONDS ?= 600
fuzz: deps build/fuzz/build.ninja
	cmake --build build/fuzz -j $(JOBS) --target fuzzers
	./tools/fuzz.sh build/fuzz $(FUZZ_SECONDS)

# Mutants of the shared real images (bit flips, zeroed and copied sectors in
# their metadata) through tree, tree --advanced, deleted and recover of the
# sanitizer build, for MUTATE_MINUTES; findings are kept in $(TEST_BUILD)/mutate-findings.
MUTATE_MINUTES ?= 25
mutate: deps $(TEST_BUILD)/build.ninja
	cmake --build $(TEST_BUILD) -j $(JOBS) --target ambrel-cli
	nice python3 tools/mutate.py --cli $(TEST_BUILD)/app/cli/ambrel-cli --minutes $(MUTATE_MINUTES) \
	  --keep $(TEST_BUILD)/mutate-findings --summary $(TEST_BUILD)/mutate-summary.json

clean:
	rm -rf build
