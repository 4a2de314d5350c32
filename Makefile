# Thin driver over CMake. `make demo` and `make check` do all set-up on a
# fresh Debian 12 machine; `make` only builds.
BUILD      := build
ASAN_BUILD := build/asan
JOBS       ?= $(shell nproc)

.PHONY: all deps configure demo check unit asan e2e clean

all: configure
	cmake --build $(BUILD) -j $(JOBS)

configure:
	@test -f $(BUILD)/CMakeCache.txt || cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo

deps:
	@tools/install_deps.sh

demo: deps all
	tests/e2e/demo.sh $(BUILD)

unit: all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

asan:
	@test -f $(ASAN_BUILD)/CMakeCache.txt || cmake -S . -B $(ASAN_BUILD) -DMORVANE_EFI=OFF -DMORVANE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS)

e2e: all
	tests/e2e/run_scenarios.sh $(BUILD)

check: deps
	$(MAKE) unit
	$(MAKE) asan
	$(MAKE) e2e

clean:
	rm -rf $(BUILD)
