# Convenience entry points; the build itself is CMake's.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
SL3D := $(BUILD_DIR)/bin/sl3d

.PHONY: all deps configure build demo test bench clean

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

bench: build
	$(BUILD_DIR)/bin/sl3d_bench --benchmark_min_time=1

clean:
	rm -rf $(BUILD_DIR) out
