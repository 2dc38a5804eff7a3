# Convenience entry points; the build itself is CMake's.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
SL3D := $(BUILD_DIR)/bin/sl3d

.PHONY: all deps configure build demo test bench coverage clean

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

# Line coverage of the library and the tool by the whole suite (gcovr), in a
# build of its own so that the instrumented objects never mix with the
# ordinary ones. -O1 keeps the line attribution close to the source.
COVERAGE_DIR ?= build-coverage
coverage: deps
	cmake -S . -B $(COVERAGE_DIR) -DCMAKE_BUILD_TYPE=None -DSL3D_BUILD_BENCHMARKS=OFF \
	  -DCMAKE_CXX_FLAGS="-O1 -g -DNDEBUG --coverage" \
	  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
	cmake --build $(COVERAGE_DIR) -j$(JOBS)
	find $(COVERAGE_DIR) -name '*.gcda' -delete
	cd $(COVERAGE_DIR) && ctest --output-on-failure -j$(JOBS)
	gcovr -r . --object-directory $(COVERAGE_DIR) --filter 'src/sl3d/' \
	  --exclude '.*_test\.(cpp|h)$$' --print-summary -o $(COVERAGE_DIR)/coverage.txt
	tail -n 4 $(COVERAGE_DIR)/coverage.txt

bench: build
	$(BUILD_DIR)/bin/sl3d_bench --benchmark_min_time=1

clean:
	rm -rf $(BUILD_DIR) $(COVERAGE_DIR) out
