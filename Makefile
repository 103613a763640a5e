# The entry points of the project: `make run`, `make check`, and for the
# board `make cross` and `make package`.
BUILD      := build
ASAN_BUILD := build-asan
COV_BUILD  := build-coverage
# The product as coverage counts it: everything but tests, tools, fuzz and bench.
COV_DIRS   := app base http upnp ssdp dms media mdns
JOBS       ?= $(shell nproc)
CROSS_ARCHES   := i386 armhf arm64
# How this machine starts a 32-bit x86 program: natively, or through
# qemu-user where the kernel cannot (the system tests then need the kernel).
# Asked when a recipe runs, after `make deps` may have installed libc6-i386.
I386_NATIVE = $(shell /lib/ld-linux.so.2 --version >/dev/null 2>&1 && echo yes)
I386_RUN    = $(if $(I386_NATIVE),,qemu-i386)
PACKAGE_ARCHES := amd64 $(CROSS_ARCHES)

.PHONY: all build build-tests package-deps asan alloc-failures run check coverage deps build-deps fuzz bench bench-quick clean cross package \
        $(CROSS_ARCHES:%=cross-%) $(PACKAGE_ARCHES:%=package-%)

all: build

# The server and its tools, which need only a compiler, CMake and make.
build:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_TESTS=OFF >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

# The same build directory with the tests, fuzz replays and benchmarks too
# (GoogleTest needed). Each target names DMS_TESTS, so `make run` and
# `make check` can take turns in build/.
build-tests:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_TESTS=ON >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

# The sanitizer build is also the failure-injection build: its executables
# carry the allocator of tests/inject, inert unless a test arms it.
asan:
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DDMS_SANITIZE=ON -DDMS_ALLOC_FAILURES=ON -DDMS_TESTS=ON >/dev/null
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# Every allocation of the scripted session failed in turn, in both modes
# (`make check` runs a sample of them): tests/system/test_alloc_failures.py.
ALLOC_JOBS ?= 6
alloc-failures: asan
	tools/netns-run env DMS_BUILD_DIR=$(CURDIR)/$(ASAN_BUILD) DMS_ALLOC_FAILURES=1 DMS_ALLOC_SWEEP=full \
	  DMS_ALLOC_JOBS=$(ALLOC_JOBS) ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 /usr/bin/python3 -m pytest -q -s -p no:cacheprovider \
	  --basetemp=$(CURDIR)/$(ASAN_BUILD)/alloc-failures tests/system/test_alloc_failures.py

# Installs the build tools when missing, builds, writes a demo library and a
# dmsConfig on first use, and runs the server in the foreground inside a
# private network namespace until Ctrl-C.
run: build-deps
	$(MAKE) build
	@if [ ! -f $(BUILD)/dmsConfig ]; then \
	  $(BUILD)/dms-mkdemo $(CURDIR)/$(BUILD)/demo && \
	  printf 'deviceName = "DMS demo"\npath = "%s"\nrefreshInterval = "30"\nmodelDescription = "DMS demo library"\n' \
	    "$(CURDIR)/$(BUILD)/demo" > $(BUILD)/dmsConfig; \
	fi
	DMS_NETNS_NAME=dms-demo tools/netns-run $(BUILD)/dms

deps:
	tools/install-deps

build-deps:
	tools/install-deps build

check: deps build-tests asan cross
	cmake --build $(BUILD) -j $(JOBS) --target bench
	cd $(BUILD) && ctest --output-on-failure -j 2
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j 2
	$(if $(I386_NATIVE),cd build-i386 && ctest --output-on-failure -L system,\
	  @echo "-- i386 system tests skipped: this kernel cannot start 32-bit x86 programs")
	$(MAKE) bench-quick

# Builds for the boards, build-i386/, build-armhf/ and build-arm64/: every
# unit test and fuzz-corpus replay runs in each, the i386 build natively, the
# ARM builds under qemu-user. (`make check` adds the system tests on i386.)
cross: deps $(CROSS_ARCHES:%=cross-%)

$(CROSS_ARCHES:%=cross-%): cross-%:
	cmake -S . -B build-$* -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-$*.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_TESTS=ON >/dev/null
	cmake --build build-$* -j $(JOBS)
	cd build-$* && ctest --output-on-failure -j 2 -LE system

# Board releases: a size-optimised, stripped build of dms and dms-probe per
# architecture (build-release-<arch>/) and its Debian package in dist/,
# checked by lintian as Debian checks its own (an error or a warning fails
# the target).
package: $(PACKAGE_ARCHES:%=package-%)

package-deps:
	tools/install-deps package

$(PACKAGE_ARCHES:%=package-%): package-%: package-deps
	cmake -S . -B build-release-$* -DCMAKE_BUILD_TYPE=MinSizeRel -DDMS_SIZE_RELEASE=ON \
	  $(if $(filter amd64,$*),,-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-$*.cmake) >/dev/null
	cmake --build build-release-$* -j $(JOBS) --target dms dms-probe
	tools/package/make-deb build-release-$* $* dist
	lintian --fail-on error,warning \
	  dist/dms_$$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build-release-$*/CMakeCache.txt)_$*.deb

# Line and branch coverage of the product by the whole suite (unit tests, fuzz
# replays, system tests): an instrumented build runs ctest, then gcovr sums
# the counters of the product folders. The server writes its counters when
# it returns from main after SIGTERM.
coverage:
	cmake -S . -B $(COV_BUILD) -DCMAKE_BUILD_TYPE=Debug -DDMS_COVERAGE=ON -DDMS_TESTS=ON >/dev/null
	cmake --build $(COV_BUILD) -j $(JOBS)
	find $(COV_BUILD) -name '*.gcda' -delete
	cd $(COV_BUILD) && ctest --output-on-failure -j 2
	gcovr --root $(CURDIR) --object-directory $(CURDIR)/$(COV_BUILD) \
	  $(foreach dir,$(COV_DIRS),--filter '$(CURDIR)/$(dir)/') \
	  --exclude-throw-branches --print-summary --output $(COV_BUILD)/coverage.txt

# Speed and memory benchmarks: installs the tools that make real media files,
# builds every bench/*.cpp in the normal and the i386 build and runs each one
# in both on generated files under /tmp (or BENCH_DIR); then runs every
# bench/*_bench.py, which start the server (and nginx) inside a private
# network namespace. Targets are reported, never asserted.
BENCH_DIR ?= /tmp
bench:
	tools/install-deps bench
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_TESTS=ON >/dev/null
	cmake --build $(BUILD) -j $(JOBS) --target bench
	cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-i386.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDMS_TESTS=ON >/dev/null
	cmake --build build-i386 -j $(JOBS) --target dms bench
	@for src in bench/*.cpp; do \
	  name=$$(basename $$src .cpp); \
	  $(BUILD)/$$name $(BENCH_DIR) || exit 1; \
	  echo "-- the same, i386 build (the board's memory figures)"; \
	  $(I386_RUN) build-i386/$$name $(BENCH_DIR) || exit 1; \
	done
	@for script in bench/*_bench.py; do \
	  DMS_BUILD_DIR=$(CURDIR)/$(BUILD) BENCH_DIR=$(BENCH_DIR) tools/netns-run /usr/bin/python3 $$script || exit 1; \
	done

# Every benchmark once in its quick mode, on a few byte-built files, figures
# not looked at: part of `make check`, so that no benchmark breaks unseen.
bench-quick:
	cmake --build $(BUILD) -j $(JOBS) --target bench
	@for src in bench/*.cpp; do \
	  $(BUILD)/$$(basename $$src .cpp) --quick $(BENCH_DIR) >/dev/null || exit 1; \
	done
	@for script in bench/*_bench.py; do \
	  DMS_BUILD_DIR=$(CURDIR)/$(BUILD) BENCH_DIR=$(BENCH_DIR) \
	    tools/netns-run /usr/bin/python3 $$script --quick >/dev/null || exit 1; \
	done
	@echo "-- every benchmark ran in its quick mode"

# Coverage-guided fuzzing with libFuzzer (clang): FUZZ_SECONDS per harness,
# FUZZ_JOBS harnesses at a time; each corpus grows, then is minimised. The
# harnesses talk over socket pairs only; the private namespace makes sure.
FUZZ_SECONDS ?= 60
FUZZ_JOBS    ?= 2
fuzz:
	FUZZ_JOBS=$(FUZZ_JOBS) tools/netns-run tools/fuzz-all $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(COV_BUILD) build-fuzz $(CROSS_ARCHES:%=build-%) $(PACKAGE_ARCHES:%=build-release-%) dist
