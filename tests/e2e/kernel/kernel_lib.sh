# shellcheck shell=bash
# Shared pieces of the runs that boot Debian's kernel with the busybox
# initramfs under QEMU + OVMF: the inputs, a FAT32 ESP large enough for
# them, and one boot that keeps the machine's last screen. Sourced after
# tests/e2e/lib.sh by kernel_scenarios.sh, demo_kernel.sh and
# bench/boot_time.sh.

KERNEL_SCRIPTS=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# A boot of the kernel reads 70 MB through the firmware, unpacks them and
# hashes 64 MiB under TCG: about 20-40 s. Anything near this is a hang.
KERNEL_BOOT_TIME_LIMIT=${KERNEL_BOOT_TIME_LIMIT:-240}
# The machine: the initramfs needs room for the packed and the unpacked copy.
KERNEL_MEMORY_MIB=512
# The ESP: FAT32 of 256 MiB, in KiB for mkfs.fat.
KERNEL_ESP_KIB=262144

# The lines /init prints, and the first of them, which marks a booted initramfs.
INIT_PREFIX='e2e: '
INIT_GREETING='e2e: greeting Hola desde el initramfs de prueba'

# kernel_inputs BUILD_DIR: fetches the kernel and builds the initramfs when
# missing, then sets KERNEL_IMAGE, INITRD_IMAGE and PAYLOAD_SHA256.
kernel_inputs() {
    "$KERNEL_SCRIPTS/fetch_kernel.sh" "$1" || return 1
    "$KERNEL_SCRIPTS/make_initramfs.sh" "$1" || return 1
    KERNEL_IMAGE=$1/e2e-kernel/vmlinuz
    INITRD_IMAGE=$1/e2e-kernel/initrd.img
    PAYLOAD_SHA256=$(cut -d ' ' -f 1 "$1/e2e-kernel/payload.sha256")
    if [ "${#PAYLOAD_SHA256}" -ne 64 ]; then
        echo "no payload hash in $1/e2e-kernel/payload.sha256" >&2
        return 1
    fi
}

# make_big_esp IMAGE [HOST_FILE ESP_PATH]...: a whole-disk FAT32 volume made
# by mkfs.fat, holding each HOST_FILE at ESP_PATH (mtools form, such as
# ::/EFI/BOOT/BOOTX64.EFI; folders are made as needed).
make_big_esp() {
    local image=$1
    shift
    rm -f "$image"
    mkfs.fat -F 32 -C "$image" "$KERNEL_ESP_KIB" >/dev/null || return 1
    copy_into_fat "$image" "$@"
}

# copy_into_fat MTOOLS_IMAGE [HOST_FILE FAT_PATH]...: copies each file to its
# path on a FAT volume (an image, or IMAGE@@OFFSET for a partition), making
# the folders of the path as needed.
copy_into_fat() {
    local image=$1
    shift
    while [ $# -ge 2 ]; do
        folder=${2%/*}
        [ "$folder" = "::" ] || make_fat_folders "$image" "$folder" || return 1
        mcopy -i "$image" "$1" "$2" || return 1
        shift 2
    done
}

# make_fat_folders MTOOLS_IMAGE ::/A/B: makes ::/A and ::/A/B as needed.
make_fat_folders() {
    local image=$1 path=:: part
    local IFS=/
    for part in ${2#::/}; do
        path=$path/$part
        mdir -i "$image" "$path" >/dev/null 2>&1 || mmd -i "$image" "$path" || return 1
    done
}

# make_launcher_esp IMAGE OPTIONS [HOST_FILE ESP_PATH]...: the direct way's
# volume: the test launcher as \EFI\BOOT\BOOTX64.EFI, the loader as
# \morvane.efi, OPTIONS in \launch.txt, and the files given.
make_launcher_esp() {
    local image=$1 options=$2 text
    shift 2
    text=$(dirname "$image")/launch.txt
    printf '%s\n' "$options" >"$text" || return 1
    make_big_esp "$image" \
        "$LAUNCHER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI \
        "$LOADER_IMAGE" ::/morvane.efi \
        "$text" ::/launch.txt "$@"
}

# qemu_monitor COMMAND: one command to the human monitor of the running
# boot_machine.
qemu_monitor() {
    printf '%s\n' "$1" >&"$MONITOR_FD"
}

# boot_machine WORKDIR [QEMU_ARGUMENT]...: one boot under QEMU + OVMF with
# a fresh copy of the NVRAM, 512 MiB and the given disks or options. The
# guest's power-off stops the machine without ending QEMU, so the screen can
# be saved as WORKDIR/screen.ppm (absent with no display device); then QEMU
# is told to quit. Writes the raw serial console to WORKDIR/console.raw and,
# per line, the time it arrived and QEMU's processor time by then to
# WORKDIR/console.times (see stamp_lines).
# Sets BOOT_START (the time QEMU was started, as $EPOCHREALTIME) and
# BOOT_END: "poweroff" (the guest powered off or reset), "paused (REASON)"
# (QEMU stopped the guest for another reason), "exit N" (QEMU ended itself
# with status N, such as the launcher's isa-debug-exit), or "timeout".
#
# STOP_AT=LINE (environment): ends the run as soon as the console shows a
# line beginning with LINE, as BOOT_END "stopped".
boot_machine() {
    local workdir=$1 status_file qemu_pid reader_pid watched=0 asked=0 waited state
    local MONITOR_FD
    shift
    status_file=$workdir/qemu.status
    rm -f "$status_file" "$workdir/screen.ppm" "$workdir/monitor.in" "$workdir/monitor.out" \
        "$workdir/qemu.pid"
    cp "$OVMF_VARS" "$workdir/vars.fd" || return 1
    mkfifo "$workdir/monitor.in" "$workdir/monitor.out" || return 1
    : >"$workdir/console.raw"
    : >"$workdir/console.times"
    : >"$workdir/monitor.log"
    cat "$workdir/monitor.out" >"$workdir/monitor.log" &
    reader_pid=$!
    # Held open for reading and writing, so a command written after QEMU
    # has gone never waits for a reader.
    exec {MONITOR_FD}<>"$workdir/monitor.in"

    BOOT_START=$EPOCHREALTIME
    {
        timeout -k 5 "$KERNEL_BOOT_TIME_LIMIT" qemu-system-x86_64 \
            -machine q35,accel=tcg -m "$KERNEL_MEMORY_MIB" -display none \
            -serial stdio -nic none -no-reboot -no-shutdown \
            -monitor pipe:"$workdir/monitor" -pidfile "$workdir/qemu.pid" \
            -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
            -drive if=pflash,format=raw,file="$workdir/vars.fd" \
            -device isa-debug-exit,iobase=0xf4,iosize=0x04 \
            "$@" </dev/null 2>"$workdir/qemu.err" |
            stamp_lines "$workdir/console.raw" "$workdir/console.times" "$workdir/qemu.pid"
        echo "${PIPESTATUS[0]}" >"$status_file"
    } &
    qemu_pid=$!

    BOOT_END=
    while [ ! -s "$status_file" ]; do
        sleep 0.05
        if [ -n "${STOP_AT-}" ] && grep -q -a -F -e "$STOP_AT" "$workdir/console.raw"; then
            qemu_monitor quit
            BOOT_END=stopped
            break
        fi
        # Ask for the machine's state now and then: a guest that powered
        # off (or reset: -no-reboot makes that a power-off) shows as
        # "paused (shutdown)", one that QEMU stopped otherwise as
        # "paused (REASON)".
        watched=$((watched + 1))
        if [ $((watched % 10)) -eq 0 ]; then
            qemu_monitor 'info status'
            asked=$((asked + 1))
        fi
        state=$(grep -a -o 'VM status: paused ([a-z-]*)' "$workdir/monitor.log" | head -n 1)
        case $state in
            '') continue ;;
            *'(shutdown)') BOOT_END=poweroff ;;
            *) BOOT_END=${state#VM status: }; qemu_monitor quit; break ;;
        esac
        # The monitor answers in order. Once every question so far has its
        # answer, the answer to the next one comes after the screen dump.
        waited=0
        while [ ! -s "$status_file" ] && [ "$waited" -lt 200 ] &&
              [ "$(grep -a -c 'VM status' "$workdir/monitor.log")" -lt "$asked" ]; do
            sleep 0.05
            waited=$((waited + 1))
        done
        qemu_monitor "screendump $workdir/screen.ppm"
        qemu_monitor 'info status'
        asked=$((asked + 1))
        while [ ! -s "$status_file" ] && [ "$waited" -lt 200 ] &&
              [ "$(grep -a -c 'VM status' "$workdir/monitor.log")" -lt "$asked" ]; do
            sleep 0.05
            waited=$((waited + 1))
        done
        qemu_monitor quit
        break
    done
    wait "$qemu_pid"
    kill "$reader_pid" 2>/dev/null
    wait "$reader_pid" 2>/dev/null
    exec {MONITOR_FD}>&-
    rm -f "$workdir/monitor.in" "$workdir/monitor.out"
    if [ -z "$BOOT_END" ]; then
        state=$(cat "$status_file")
        if [ "$state" -eq 124 ] || [ "$state" -eq 137 ]; then
            BOOT_END=timeout
        else
            BOOT_END="exit $state"
        fi
    fi
}

# stamp_lines RAW TIMES PIDFILE: copies standard input to RAW line by line
# and writes each line to TIMES as "WALL CPU LINE": the time it arrived (as
# $EPOCHREALTIME) and the processor seconds the QEMU process of PIDFILE had
# used by then, all its threads, user and system ("-" until the file
# names a process). TIMES keeps the lines raw: pass it through
# clean_console before reading.
stamp_lines() {
    local line pid='' stat cpu cents tick
    tick=$(getconf CLK_TCK)
    while IFS= read -r line || [ -n "$line" ]; do
        printf '%s\n' "$line" >>"$1"
        if [ -z "$pid" ] && [ -s "$3" ]; then
            read -r pid <"$3"
        fi
        cpu=-
        # Fields 14 and 15 of the process' stat line: user and system ticks.
        if [ -n "$pid" ] && read -r -a stat 2>/dev/null <"/proc/$pid/stat"; then
            cpu=$(( (stat[13] + stat[14]) * 100 / tick ))
            cents=$((cpu % 100))
            [ "$cents" -ge 10 ] || cents=0$cents
            cpu=$((cpu / 100)).$cents
        fi
        printf '%s %s %s\n' "$EPOCHREALTIME" "$cpu" "$line" >>"$2"
    done
}

# init_lines CONSOLE_TEXT: the lines /init printed, without their prefix.
init_lines() {
    sed -n "s/^.*${INIT_PREFIX}//p" "$1"
}

# screen_size PPM: "WIDTH HEIGHT" from the header of a binary PPM.
screen_size() {
    head -c 64 "$1" | tr '\n' ' ' | awk '$1 == "P6" { print $2, $3 }'
}
