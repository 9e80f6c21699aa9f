# Thin wrapper over CMake. `make run` builds and starts the daemon; `make test` builds and runs
# every test. Both install the Debian packages they need when run as root.
BUILD      ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_ARGS ?=
JOBS       ?= $(shell nproc)
PORT       ?= 1080
LISTEN     ?= 127.0.0.1

# npm (for the e2e tests' npm clients) is asked for only when missing: some nodejs builds bring
# their own and conflict with Debian's npm package.
PACKAGES := cmake ninja-build g++ clang libc++-14-dev libc++abi-14-dev pkgconf libgtest-dev libgmock-dev libbenchmark-dev \
            libc-ares-dev libcrypt-dev curl ncat proxychains4 nodejs \
            python3-socks python3-pytest python3-prometheus-client default-jdk haproxy abigail-tools

ARMHF_PACKAGES := g++-arm-linux-gnueabihf qemu-user googletest

FUZZ_SECONDS ?= 60

.PHONY: all build deps test run bench test-armhf abi-check fuzz clean

all: build

deps:
	@missing=$$(for p in $(PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done; \
	  case " $(PACKAGES) " in *" nodejs "*) command -v npm >/dev/null || echo npm;; esac); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "installing:" $$missing; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; \
	  else \
	    echo "missing packages (run as root to install):" $$missing; \
	  fi; \
	fi

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DCMAKE_EXPORT_COMPILE_COMMANDS=ON $(CMAKE_ARGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

run: build
	./$(BUILD)/zrt-proxy --port $(PORT) --listen $(LISTEN)

bench: deps
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRT_BUILD_BENCH=ON -DZRT_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	bench/run.sh build-bench

# The engine and its unit tests cross-built for 32-bit ARM and run under qemu-arm.
test-armhf:
	@$(MAKE) --no-print-directory deps PACKAGES="$(ARMHF_PACKAGES) cmake ninja-build"
	tools/fetch-armhf-cares build-armhf/target
	cmake -S . -B build-armhf -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake -DZRT_TARGET_ROOTS=$(CURDIR)/build-armhf/target $(CMAKE_ARGS)
	cmake --build build-armhf -j $(JOBS)
	cd build-armhf && ctest --output-on-failure -j $(JOBS) --timeout 600 -LE slow

# The library's interface against its baseline in abi/ (BUILD=build-armhf after test-armhf for
# 32-bit ARM); tools/abi-check BUILD --update records a new one.
abi-check: build
	tools/abi-check $(BUILD)

# Every libFuzzer target for FUZZ_SECONDS each (clang, ASan+UBSan+leak checks).
fuzz: deps
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DZRT_SANITIZE=fuzzer -DZRT_BUILD_E2E=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	tests/fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) build-*
