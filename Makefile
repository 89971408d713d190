# The two front doors: `make run` and `make test`; `make format` before a commit.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
RELEASE_DIR := build/release
DEBUG_DIR := build/debug

.PHONY: all deps test-deps build build-crash-release build-debug run test format clean

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
	cmake --build $(DEBUG_DIR) -j $(JOBS)

run: build
	scripts/run-with-devsim $(RELEASE_DIR)/bin

test: test-deps build-crash-release build-debug
	cd $(DEBUG_DIR) && ctest --output-on-failure -j 2 --timeout 300

# The root .clang-format over every C++ file; make test fails while one differs (test_format).
format:
	scripts/format

clean:
	rm -rf build
