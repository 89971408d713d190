# The two front doors: `make run` and `make test`; `make format` before a commit.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
RELEASE_DIR := build/release
DEBUG_DIR := build/debug
FUZZ_DIR := build/fuzz
SOAK_DIR := build/soak
# Seconds each fuzz target runs in make fuzz; make test runs each for 5.
FUZZ_SECONDS ?= 30

.PHONY: all deps test-deps build build-crash-release build-debug run test package format clean fuzz fuzz-build soak

all: build

# What the program needs; the tests' own packages only for make test (scripts/install-deps --print).
deps:
	@scripts/install-deps

test-deps: deps
	@scripts/install-deps --tests

$(RELEASE_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(RELEASE_DIR) -DCMAKE_BUILD_TYPE=Release -DORVANTA_BUILD_TESTS=OFF

$(DEBUG_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(DEBUG_DIR) -DCMAKE_BUILD_TYPE=Debug -DORVANTA_SANITIZE=ON

build: deps $(RELEASE_DIR)/CMakeCache.txt
	cmake --build $(RELEASE_DIR) -j $(JOBS)

# The programs the crash tests crash: capture is off in the Debug tree's sanitizer build.
build-crash-release: deps $(RELEASE_DIR)/CMakeCache.txt
	cmake --build $(RELEASE_DIR) -j $(JOBS) --target orvanta CrashReporter

build-debug: deps $(DEBUG_DIR)/CMakeCache.txt
	scripts/timed "debug build" cmake --build $(DEBUG_DIR) -j $(JOBS)

# The Debian package, orvanta_<version>_<arch>.deb with its -dbgsym .ddeb, in the Release tree:
# the programs it holds (the crash tests' too), then CPack's DEB generator (cmake/Packaging.cmake).
package: test-deps $(RELEASE_DIR)/CMakeCache.txt
	cmake --build $(RELEASE_DIR) -j $(JOBS) --target orvanta CrashReporter orvanta_package_docs
	scripts/timed "make package" sh -c 'cd $(RELEASE_DIR) && cpack -G DEB'

run: build
	scripts/run-with-devsim $(RELEASE_DIR)/bin

# The package first (tests/package checks it), the suites (with the fuzz replays and the short
# soaks), then every fuzz target for 5 seconds.
test: test-deps package build-debug
	scripts/timed "test suites" sh -c 'cd $(DEBUG_DIR) && ctest --output-on-failure -j 2 --timeout 300'
	$(MAKE) --no-print-directory fuzz FUZZ_SECONDS=5

# The fuzz targets (fuzz/) with clang's libFuzzer, and only the libraries they need.
$(FUZZ_DIR)/CMakeCache.txt: | test-deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=Debug \
		-DCMAKE_CXX_FLAGS_DEBUG="-g -O1" -DORVANTA_FUZZ=ON -DORVANTA_BUILD_TESTS=OFF

fuzz-build: test-deps $(FUZZ_DIR)/CMakeCache.txt
	scripts/timed "fuzz build" cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzz_targets

fuzz: fuzz-build
	fuzz/run $(FUZZ_DIR) $(FUZZ_SECONDS)

# The soak programs (soak/) at their long lengths in a Release tree, where memory is held too, then
# make fuzz; one table at the end. Lengths: SOAK_UNPLUG, SOAK_KILL, SOAK_INPUTS, SOAK_SLOW_SECONDS.
$(SOAK_DIR)/CMakeCache.txt: | test-deps
	cmake -S . -B $(SOAK_DIR) -DCMAKE_BUILD_TYPE=Release -DORVANTA_BUILD_TESTS=OFF -DORVANTA_SOAK=ON

soak: test-deps $(SOAK_DIR)/CMakeCache.txt
	scripts/timed "soak build" cmake --build $(SOAK_DIR) -j $(JOBS) --target soak_programs
	scripts/timed "make soak" soak/run $(SOAK_DIR)

# The root .clang-format over every C++ file; make test fails while one differs (test_format).
format:
	scripts/format

clean:
	rm -rf build
