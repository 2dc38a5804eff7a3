# Convenience entry points; the build itself is CMake's.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
SL3D := $(BUILD_DIR)/bin/sl3d

.PHONY: all deps configure build demo test check sanitize fuzz-smoke bench coverage clean

all: build

deps:
	bash tools/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release

build: configure
	cmake --build $(BUILD_DIR) -j$(JOBS)

# The main job: measure the virtual sensor's scene with both methods.
demo: build
	$(SL3D) demo --out out/demo

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

# What CI runs: the plain suite, then the suite (bad inputs included) built
# with clang's AddressSanitizer and UndefinedBehaviorSanitizer, then every
# fuzz target for FUZZ_SECONDS on its seed corpus. Any sanitizer report or
# fuzzer crash fails it.
check: test sanitize fuzz-smoke

SANITIZE_DIR ?= build-sanitize
FUZZ_SECONDS ?= 30
FUZZ_TARGETS := hmat_fuzz rectify_maps_fuzz camera_yaml_fuzz stereo_yaml_fuzz q_yaml_fuzz \
  key_file_fuzz calib_dir_fuzz png_fuzz phaseshift_fuzz
# Line tables are all a report's stack trace needs, and much cheaper to build
# and link than full debug information.
SANITIZE_FLAGS := -O1 -gline-tables-only -fno-omit-frame-pointer -fno-sanitize-recover=all \
  -fsanitize=address,undefined,float-cast-overflow,fuzzer-no-link
# The library is a shared object: it takes the sanitizer runtime as a shared
# library too, found through the rpath.
SANITIZE_LINK = $(SANITIZE_FLAGS) -shared-libasan \
  -Wl,-rpath,$(dir $(shell clang -print-file-name=libclang_rt.asan-x86_64.so))
# A distinct exit code, so that a report never passes for the tool's own
# failure (1) in a test that expects one.
export ASAN_OPTIONS ?= exitcode=86:detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS ?= exitcode=86:print_stacktrace=1:halt_on_error=1
# In the suite every report also goes to a file of its own: a test that only
# asks for a non-zero exit of the tool cannot mistake a report for the
# failure it expects, and the files fail the run.
SANITIZE_REPORTS := $(abspath $(SANITIZE_DIR))/sanitizer-reports
CTEST_ARGS ?=

# Only what the suite and the fuzz targets need: no benchmarks, no Python
# module (the plain suite covers both bindings and install).
$(SANITIZE_DIR)/CMakeCache.txt: Makefile | deps
	CC=clang CXX=clang++ cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=None \
	  -DSL3D_BUILD_BENCHMARKS=OFF -DSL3D_BUILD_PYTHON=OFF -DSL3D_BUILD_FUZZERS=ON \
	  -DCMAKE_CXX_FLAGS="$(SANITIZE_FLAGS)" \
	  -DCMAKE_EXE_LINKER_FLAGS="$(SANITIZE_LINK)" -DCMAKE_SHARED_LINKER_FLAGS="$(SANITIZE_LINK)"

sanitize: $(SANITIZE_DIR)/CMakeCache.txt
	cmake --build $(SANITIZE_DIR) -j$(JOBS)
	rm -rf $(SANITIZE_REPORTS) && mkdir -p $(SANITIZE_REPORTS)
	@cd $(SANITIZE_DIR) && \
	  ASAN_OPTIONS=$(ASAN_OPTIONS):log_path=$(SANITIZE_REPORTS)/asan \
	  UBSAN_OPTIONS=$(UBSAN_OPTIONS):log_path=$(SANITIZE_REPORTS)/ubsan \
	  ctest --output-on-failure -j$(JOBS) -E '^install_test$$' $(CTEST_ARGS); status=$$?; \
	if [ -n "$$(ls -A $(SANITIZE_REPORTS))" ]; then \
	  for f in $(SANITIZE_REPORTS)/*; do echo "== $$f"; head -n 40 "$$f"; done; \
	  echo "sanitize: $$(ls $(SANITIZE_REPORTS) | wc -l) sanitizer report(s)"; status=1; \
	fi; exit $$status

# Two targets at a time on the two cores; each gets FUZZ_SECONDS.
fuzz-smoke: sanitize
	rm -rf $(SANITIZE_DIR)/corpus && $(SANITIZE_DIR)/bin/fuzz_seeds $(SANITIZE_DIR)/corpus
	fuzz/smoke.sh $(SANITIZE_DIR)/bin $(SANITIZE_DIR)/corpus $(SANITIZE_DIR)/fuzz \
	  $(FUZZ_SECONDS) $(JOBS) $(FUZZ_TARGETS)

# Line coverage of the library and the tool by the whole suite (gcovr), in a
# build of its own so that the instrumented objects never mix with the
# ordinary ones. -O1 keeps the line attribution close to the source. Tests
# running in parallel can update one counter file at once, which leaves gcov
# a negative branch count now and then: gcovr is told to pass over it.
COVERAGE_DIR ?= build-coverage
coverage: deps
	cmake -S . -B $(COVERAGE_DIR) -DCMAKE_BUILD_TYPE=None -DSL3D_BUILD_BENCHMARKS=OFF \
	  -DCMAKE_CXX_FLAGS="-O1 -g -DNDEBUG --coverage" \
	  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
	cmake --build $(COVERAGE_DIR) -j$(JOBS)
	find $(COVERAGE_DIR) -name '*.gcda' -delete
	cd $(COVERAGE_DIR) && ctest --output-on-failure -j$(JOBS)
	gcovr -r . --gcov-ignore-parse-errors --object-directory $(COVERAGE_DIR) --filter 'src/sl3d/' \
	  --exclude '.*_test\.(cpp|h)$$' --print-summary -o $(COVERAGE_DIR)/coverage.txt
	tail -n 4 $(COVERAGE_DIR)/coverage.txt

bench: build
	$(BUILD_DIR)/bin/sl3d_bench --benchmark_min_time=1

clean:
	rm -rf $(BUILD_DIR) $(COVERAGE_DIR) $(SANITIZE_DIR) out
