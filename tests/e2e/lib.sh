# Shared pieces of the end-to-end runs: a FAT ESP made by mkfs.fat and mtools,
# one QEMU + OVMF boot of it, and the firmware console cleaned for comparison.
# Sourced by run_scenarios.sh and demo.sh.

OVMF_CODE=/usr/share/OVMF/OVMF_CODE_4M.fd
OVMF_VARS=/usr/share/OVMF/OVMF_VARS_4M.fd
# One boot takes 5-20 s under TCG; anything near this limit is a hang.
BOOT_TIME_LIMIT=${BOOT_TIME_LIMIT:-90}

# e2e_images BUILD_DIR: sets LOADER_IMAGE and LAUNCHER_IMAGE, or fails.
e2e_images() {
    LOADER_IMAGE=$1/morvane.efi
    LAUNCHER_IMAGE=$1/tests/e2e/launcher/launcher.efi
    for image in "$LOADER_IMAGE" "$LAUNCHER_IMAGE"; do
        if [ ! -f "$image" ]; then
            echo "missing $image: build first (make)" >&2
            return 1
        fi
    done
}

# make_esp IMAGE WORKDIR [OPTIONS]: a whole-disk FAT volume holding the
# launcher as the removable-media boot file and the loader at the root. With
# OPTIONS, \launch.txt carries them; without, there is no \launch.txt and the
# loader is started with no load options.
make_esp() {
    image=$1 workdir=$2
    rm -f "$image"
    mkfs.fat -C "$image" 16384 >/dev/null || return 1
    mmd -i "$image" ::/EFI ::/EFI/BOOT || return 1
    mcopy -i "$image" "$LAUNCHER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI || return 1
    mcopy -i "$image" "$LOADER_IMAGE" ::/morvane.efi || return 1
    if [ $# -ge 3 ]; then
        printf '%s\n' "$3" > "$workdir/launch.txt"
        mcopy -i "$image" "$workdir/launch.txt" ::/launch.txt || return 1
    fi
}

# boot_esp IMAGE WORKDIR: boots the ESP with a fresh copy of the NVRAM and
# writes the raw serial console to WORKDIR/console.raw. Returns QEMU's exit
# status: the launcher's isa-debug-exit value v gives (v << 1) | 1, so 1 means
# the loader returned what it should; 124 is the time limit.
boot_esp() {
    image=$1 workdir=$2
    cp "$OVMF_VARS" "$workdir/vars.fd" || return 1
    timeout -k 5 "$BOOT_TIME_LIMIT" qemu-system-x86_64 \
        -machine q35,accel=tcg -m 256 -display none -serial stdio -nic none -no-reboot \
        -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
        -drive if=pflash,format=raw,file="$workdir/vars.fd" \
        -drive format=raw,file="$image" \
        -device isa-debug-exit,iobase=0xf4,iosize=0x04 \
        </dev/null >"$workdir/console.raw" 2>"$workdir/qemu.err"
}

# clean_console < RAW > TEXT: drops the firmware's terminal control sequences
# (ESC[2J, ESC[01;01H, ESC[=3h, colours, ...) and the CRs of its CRLF lines.
clean_console() {
    sed -e 's/\x1b\[[0-9;?=]*[@-~]//g' -e 's/\x1b[^[]//g' -e 's/\r//g'
}
