# Thin driver over CMake. `make demo` and `make check` do all set-up on a
# fresh Debian 12 machine; `make` only builds.
BUILD      := build
ASAN_BUILD := build/asan
JOBS       ?= $(shell nproc)

.PHONY: all deps configure demo check unit asan e2e bench clean powercut

all: configure
	cmake --build $(BUILD) -j $(JOBS)

configure:
	@test -f $(BUILD)/CMakeCache.txt || cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo

deps:
	@tools/install_deps.sh

demo: deps all
	tests/e2e/demo_kernel.sh $(BUILD) examples/morvane.xml

unit: all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

asan:
	@test -f $(ASAN_BUILD)/CMakeCache.txt || cmake -S . -B $(ASAN_BUILD) -DMORVANE_EFI=OFF -DMORVANE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS)

e2e: all
	tests/e2e/run_scenarios.sh $(BUILD)
	tests/e2e/document_scenarios.sh $(BUILD)
	tests/e2e/kernel_scenarios.sh $(BUILD)
	tests/e2e/gpt_scenarios.sh $(BUILD)

# Time from power-on to a booted initramfs: the loader against the
# firmware's own direct kernel boot, in one run; the boot race, a 256 MiB
# ramdisk from FAT32, ext4, NTFS and HFS+ on virtio and AHCI, the loader
# against GRUB and the firmware's own boot. Then reads and writes of each
# file system on the host: our driver against grub-fstest and dd.
bench: all
	bench/boot_time.sh $(BUILD)
	bench/boot_race.sh $(BUILD)
	bench/fat_read.sh $(BUILD)
	bench/fat_write.sh $(BUILD)
	bench/ext_read.sh $(BUILD)
	bench/ext_write.sh $(BUILD)
	bench/ntfs_read.sh $(BUILD)
	bench/ntfs_write.sh $(BUILD)
	bench/hfsplus_read.sh $(BUILD)
	bench/hfsplus_write.sh $(BUILD)

check: deps
	$(MAKE) unit
	$(MAKE) asan
	$(MAKE) e2e
	$(MAKE) fuzz-check

clean:
	rm -rf $(BUILD)

# Every write scenario of every writing driver, cut after each sector write
# (an even sample of 200 cut points when a scenario writes more); the NTFS
# rows on 512-byte sectors count the cuts that left a torn block.
powercut: all
	$(BUILD)/powercut --sample 200

.PHONY: fuzz fuzz-check

# libFuzzer targets (clang, ASan + UBSan) in a build of their own. Each runs
# for FUZZ_SECONDS (60 unless given); new inputs go to build/fuzz/corpus, a
# crash to build/fuzz/artifacts and fails the run. Inputs are cut at 16 KiB
# unless fuzz/TARGET.max_len names another limit: an NTFS volume's MFT starts
# at 16 KiB and its names need the upper-case table behind it.
fuzz:
	@test -f $(BUILD)/fuzz/CMakeCache.txt || CC=clang-14 CXX=clang++-14 cmake -S fuzz -B $(BUILD)/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD)/fuzz -j $(JOBS)
	@set -e; for source in fuzz/*_fuzzer.cpp; do \
	  target=$$(basename $$source .cpp); \
	  mkdir -p $(BUILD)/fuzz/corpus/$$target $(BUILD)/fuzz/artifacts; \
	  dictionary=; [ ! -f fuzz/$$target.dict ] || dictionary=-dict=fuzz/$$target.dict; \
	  max_len=16384; [ ! -f fuzz/$$target.max_len ] || max_len=$$(cat fuzz/$$target.max_len); \
	  echo "fuzz: $$target for $(or $(FUZZ_SECONDS),60) s"; \
	  $(BUILD)/fuzz/$$target -max_total_time=$(or $(FUZZ_SECONDS),60) -max_len=$$max_len -timeout=10 \
	    -print_final_stats=1 $$dictionary -artifact_prefix=$(BUILD)/fuzz/artifacts/$$target- \
	    $(BUILD)/fuzz/corpus/$$target fuzz/corpus/$$target >$(BUILD)/fuzz/$$target.log 2>&1 \
	    || { tail -40 $(BUILD)/fuzz/$$target.log; echo "fuzz: $$target failed, see $(BUILD)/fuzz/artifacts"; exit 1; }; \
	  grep -E 'stat::(number_of_executed_units|new_units_added|peak_rss_mb)' $(BUILD)/fuzz/$$target.log; \
	done

fuzz-check:
	$(MAKE) fuzz FUZZ_SECONDS=30
