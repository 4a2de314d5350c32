#!/bin/bash
# End-to-end scenarios of a kernel named by its GPT partition: one disk made
# by sgdisk holds the EFI system partition, with the real morvane.efi as the
# firmware's removable-media boot file and its document beside it, and a
# FAT32 partition with a chosen unique GUID, made by mkfs.fat and filled by
# mtools. The document's LoadKernel names that GUID in a <GPT Guid="..."/>
# element, so the loader must find the partition among the firmware's block
# devices and read kernel and ramdisk through its own FAT driver: the
# firmware's own file access could not tell which partition is meant.
# A second disk of the same kind holds the kernel on an ext4 partition made
# by mkfs.ext4 -d, read through the loader's ext driver; a third on an NTFS
# partition made by mkntfs and filled by ntfscp, read through the loader's
# NTFS driver; a fourth on an HFS+ partition made by xorriso's HFS+ writer,
# read through the loader's HFS+ driver.
#
#   tests/e2e/gpt_scenarios.sh BUILD_DIR [SCENARIO]...
#
# Scenarios:
#   kernel       Debian's kernel and the busybox initramfs, only on the
#                FAT32 partition, boot; /init checks the ramdisk's payload
#                against its SHA-256 (see tests/e2e/kernel/init).
#   ext4_kernel  the same kernel and initramfs, only on an ext4 partition
#                of its own GUID, boot the same way.
#   ntfs_kernel  the same kernel and initramfs, only in the root of an NTFS
#                partition of its own GUID, boot the same way.
#   hfsplus_kernel  the same kernel and initramfs, only on an HFS+
#                partition of its own GUID (exactly the volume's size),
#                boot the same way.
#   wrong_guid   the document names a GUID that no partition carries: the
#                report of DISK_NOT_FOUND, then back to the firmware.
#   unmounted    the GUID names a partition without a file system: the
#                report of VOLUME_NOT_MOUNTED, then back to the firmware.
# The marker app on a second disk is the boot option behind the loader:
# after a report it ends the run at once. With SCENARIO names, runs only those. Needs
# BUILD_DIR/morvane.efi, the marker and the host tool BUILD_DIR/morvane
# (which checks each document first); fetches the kernel and builds the
# initramfs as kernel_scenarios.sh does. Consoles of failed scenarios are
# kept in BUILD_DIR/e2e-logs/gpt-NAME.log.
set -u

if [ $# -lt 1 ]; then
    echo "usage: $0 BUILD_DIR [SCENARIO]..." >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
shift
. "$HERE/lib.sh"
. "$HERE/kernel/kernel_lib.sh"
. "$HERE/gpt_disk.sh"
e2e_document_images "$BUILD_DIR" || exit 2
TOOL=$BUILD_DIR/morvane
kernel_inputs "$BUILD_DIR" || exit 2

scenario_folders "$BUILD_DIR" gpt

# The loader's exact console texts. Non-ASCII letters reach the serial
# console as '?'.
STARTUP_LINE='Iniciando el cargador Morvane UEFI...'
TAG='tag 0x[0-9a-f]{16}'
DISK_NOT_FOUND_REPORT="^Runtime exception 'No se pudo encontrar\\.', code 1101838, $TAG\$"
NOT_MOUNTED_REPORT="^Runtime exception '', code 21495816, $TAG\$"

# The partition the kernel lies on, and GUIDs that must not be taken for
# it: one differs only in its last digit, the other names a partition
# that holds no file system. The document spells the GUID in lower case,
# which must match as well as the upper case that sgdisk prints.
KERNEL_GUID=6a1f3e2d-9b4c-4d5e-8f70-a1b2c3d4e5f6
NEAR_GUID=6A1F3E2D-9B4C-4D5E-8F70-A1B2C3D4E5F7
BLANK_GUID=0D9C8B7A-6F5E-4D3C-AB2A-998877665544
ESP_GUID=3B9E2F51-7C4D-4E8A-9F10-5A6B7C8D9E0F
EXT4_GUID=c4e8a2b6-51d3-4f79-a0b1-7e6d5c4b3a29
NTFS_GUID=9d2c7b14-e8a3-4f06-b5d1-3c4e5f6a7b80
HFSPLUS_GUID=5e7a1c93-2b4d-4f86-9a0e-d1c2b3a4f5e6
# The menu's entry hands its Arguments attribute over behind the loader's
# fixed prefix.
ARGUMENTS='console=ttyS0 panic=-1 quiet'
KERNEL_CMDLINE="reboot=k $ARGUMENTS"
# Sizes in MiB: the data partition takes the kernel and the 70 MB ramdisk.
ESP_MIB=40
DATA_MIB=160
SMALL_DATA_MIB=40

# gpt_document GUID [RAMDISK_PATH [KERNEL_PATH]]: a menu whose default entry
# boots after 1 s, its files on the partition GUID. Without RAMDISK_PATH the
# files are named with both kinds of separator, as a FAT volume takes them;
# the kernel is /boot/vmlinuz unless KERNEL_PATH is given.
gpt_document() {
    printf '<R><Menu><Topic Delay="1"/><Entry Key="l" Text="Linux" Default="">'
    printf '<LoadKernel><GPT Guid="%s"/>' "$1"
    printf '<Kernel Path="%s" Arguments="%s"/>' "${3:-/boot/vmlinuz}" "$ARGUMENTS"
    printf '<Ramdisk Path="%s"/><Loading Text="Cargando..."/>' "${2:-\\boot\\initrd.img}"
    printf '</LoadKernel></Entry></Menu></R>\n'
}

# ---------------------------------------------------------------------------
# Checks. Each writes its complaints through fail, which run_scenario
# defines per scenario.

# line_of TEXT FILE: number of the first line equal to TEXT, or 0.
line_of() {
    local n
    n=$(grep -n -x -F -e "$1" "$2" | head -n 1 | cut -d: -f1)
    echo "${n:-0}"
}

# check_started CONSOLE: the loader started exactly once.
check_started() {
    local count
    count=$(grep -c -x -F -e "$STARTUP_LINE" "$1")
    if [ "$count" -ne 1 ]; then
        fail "the loader's start-up line appears $count times, not once"
    fi
}

# init_value KEY LINES: the rest of the first /init line "KEY ...".
init_value() {
    sed -n "s/^$1 //p" "$2" | head -n 1
}

# check_gpt_boot DIR CONSOLE: the loader printed the entry and its loading
# line and nothing else, then the kernel booted with the document's
# arguments and the whole ramdisk from the partition, and powered off.
check_gpt_boot() {
    local dir=$1 console=$2 lines startup greeting value
    lines=$dir/init.txt
    init_lines "$console" >"$lines"
    case $BOOT_END in
        poweroff) ;;
        timeout) fail "no power-off within ${KERNEL_BOOT_TIME_LIMIT} s" ;;
        *) fail "the machine did not power off: QEMU $BOOT_END" ;;
    esac
    check_started "$console"
    if grep -q '^Runtime exception' "$console"; then
        fail "the loader reported: $(grep '^Runtime exception' "$console" | head -n 1)"
    fi
    startup=$(line_of "$STARTUP_LINE" "$console")
    greeting=$(line_of "$INIT_GREETING" "$console")
    if [ "$greeting" -eq 0 ]; then
        fail "the initramfs did not start: no '$INIT_GREETING'"
        return
    fi
    value=$(sed -n "$((startup + 1)),$((greeting - 1))p" "$console" | paste -s -d '|')
    if [ "$value" != 'Linux|Cargando...' ]; then
        fail "the loader's lines before the kernel: expected 'Linux|Cargando...', got '$value'"
    fi
    value=$(init_value cmdline "$lines")
    if [ "$value" != "[$KERNEL_CMDLINE]" ]; then
        fail "kernel command line: expected [$KERNEL_CMDLINE], got ${value:-nothing}"
    fi
    value=$(init_value 'payload sha256' "$lines")
    if [ "$value" != "$PAYLOAD_SHA256 size 67108864" ]; then
        fail "ramdisk payload: expected $PAYLOAD_SHA256 size 67108864, got ${value:-nothing}"
    fi
    if ! grep -q -x 'done' "$lines"; then
        fail "/init did not reach its end"
    fi
}

# check_report_and_next STATUS CONSOLE REGEX: the loader's one line after
# its start-up line is the report REGEX, no kernel ran, and the firmware
# went on to the marker, which ended QEMU.
check_report_and_next() {
    local status=$1 console=$2 regex=$3 startup report marker
    case $status in
        "$MARKER_EXIT_STATUS") ;;
        124) fail "no end within ${BOOT_TIME_LIMIT} s" ;;
        *) fail "QEMU exited with status $status, not the marker's $MARKER_EXIT_STATUS" ;;
    esac
    check_started "$console"
    startup=$(line_of "$STARTUP_LINE" "$console")
    report=$(grep -n -E -e "$regex" "$console" | head -n 1 | cut -d: -f1)
    if [ -z "$report" ]; then
        fail "no report /$regex/ (got: $(grep -a 'exception' "$console" | head -n 1))"
    elif [ "$report" -ne $((startup + 1)) ]; then
        fail "the report is not the line right after the start-up line"
    fi
    marker=$(line_of "$MARKER_LINE" "$console")
    if [ "$marker" -eq 0 ]; then
        fail "the next boot option did not start: no '$MARKER_LINE'"
    elif [ "$marker" -le "${report:-0}" ]; then
        fail "the marker ran before the report"
    fi
    if grep -q -F -e "$INIT_PREFIX" "$console"; then
        fail "a kernel ran after all"
    fi
}

# ---------------------------------------------------------------------------
# Scenarios. Each makes its disks in DIR and leaves the cleaned console in
# DIR/console.txt.

# write_document DIR GUID [RAMDISK_PATH [KERNEL_PATH]]: DIR/BOOTX64.xml for
# GUID, checked by the host tool.
write_document() {
    gpt_document "$2" ${3:+"$3"} ${4:+"$4"} >"$1/BOOTX64.xml"
    if ! "$TOOL" conf check "$1/BOOTX64.xml" >"$1/conf-check.txt" 2>&1; then
        fail "morvane conf check refuses the document: $(cat "$1/conf-check.txt")"
        return 1
    fi
}

# make_gpt_machine_disk DIR DATA_MIB KERNEL RAMDISK: DIR/disk.img with the
# ESP (the loader and DIR/BOOTX64.xml), the FAT32 data partition with
# KERNEL and RAMDISK below \boot, and a partition of 1 MiB left blank.
make_gpt_machine_disk() {
    local dir=$1 data_mib=$2
    make_gpt_layout "$dir/disk.img" $((ESP_MIB + data_mib + 4)) \
        "EF00:$ESP_MIB:$ESP_GUID" "0700:$data_mib:$KERNEL_GUID" "8300:1:$BLANK_GUID" &&
    fill_fat_partition "$dir/disk.img" 1 "" \
        "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI "$dir/BOOTX64.xml" ::/EFI/BOOT/BOOTX64.xml &&
    fill_fat_partition "$dir/disk.img" 2 32 "$3" ::/boot/vmlinuz "$4" ::/boot/initrd.img
}

# The kernel and the initramfs lie only on the FAT32 partition; the entry
# boots by default after 1 s. The marker disk behind it ends a failed run
# at once instead of at the time limit.
scenario_kernel() {
    local dir=$1
    write_document "$dir" "$KERNEL_GUID" || return
    make_gpt_machine_disk "$dir" "$DATA_MIB" "$KERNEL_IMAGE" "$INITRD_IMAGE" ||
        { fail "cannot make the GPT disk"; return; }
    make_marker_disk "$dir/next.img" || { fail "cannot make the marker disk"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/disk.img" -drive format=raw,file="$dir/next.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_gpt_boot "$dir" "$dir/console.txt"
}

# report_scenario DIR GUID REGEX: the disk of the kernel scenario, with
# small stand-ins for kernel and ramdisk (the report comes before either is
# read), the document naming GUID, and the marker disk behind it.
report_scenario() {
    local dir=$1 guid=$2 regex=$3 status
    write_document "$dir" "$guid" || return
    printf 'not a kernel' >"$dir/vmlinuz"
    printf 'not a ramdisk' >"$dir/initrd.img"
    make_gpt_machine_disk "$dir" "$SMALL_DATA_MIB" "$dir/vmlinuz" "$dir/initrd.img" ||
        { fail "cannot make the GPT disk"; return; }
    make_marker_disk "$dir/next.img" || { fail "cannot make the marker disk"; return; }
    boot_loader_disks "$dir" "$dir/disk.img" "$dir/next.img"
    status=$?
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_report_and_next "$status" "$dir/console.txt" "$regex"
}

# The kernel and the initramfs lie only on an ext4 partition; the FAT ESP
# holds nothing but the loader and its document. An ext volume has one
# tree under "/", where a backslash is part of a name, so both paths take
# "/".
scenario_ext4_kernel() {
    local dir=$1 tree=$1/tree
    write_document "$dir" "$EXT4_GUID" /boot/initrd.img || return
    mkdir -p "$tree/boot" || return
    # Hard links spare the copies where the build and the work share a disk.
    ln -f "$KERNEL_IMAGE" "$tree/boot/vmlinuz" 2>/dev/null || cp "$KERNEL_IMAGE" "$tree/boot/vmlinuz"
    ln -f "$INITRD_IMAGE" "$tree/boot/initrd.img" 2>/dev/null || cp "$INITRD_IMAGE" "$tree/boot/initrd.img"
    if ! { make_gpt_layout "$dir/disk.img" $((ESP_MIB + DATA_MIB + 2)) \
               "EF00:$ESP_MIB:$ESP_GUID" "8300:$DATA_MIB:$EXT4_GUID" &&
           fill_fat_partition "$dir/disk.img" 1 "" \
               "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI "$dir/BOOTX64.xml" ::/EFI/BOOT/BOOTX64.xml &&
           fill_ext_partition "$dir/disk.img" 2 mkfs.ext4 "$tree"; }; then
        rm -rf "$tree"
        fail "cannot make the GPT disk with the ext4 partition"
        return
    fi
    rm -rf "$tree"
    make_marker_disk "$dir/next.img" || { fail "cannot make the marker disk"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/disk.img" -drive format=raw,file="$dir/next.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_gpt_boot "$dir" "$dir/console.txt"
}

# The kernel and the initramfs lie only in the root of an NTFS partition
# (ntfscp makes no folders); the FAT ESP holds nothing but the loader and
# its document. The ramdisk's path takes a backslash, the kernel's a slash:
# the Windows-like volume reads both.
scenario_ntfs_kernel() {
    local dir=$1
    write_document "$dir" "$NTFS_GUID" '\initrd.img' /vmlinuz || return
    if ! { make_gpt_layout "$dir/disk.img" $((ESP_MIB + DATA_MIB + 2)) \
               "EF00:$ESP_MIB:$ESP_GUID" "0700:$DATA_MIB:$NTFS_GUID" &&
           fill_fat_partition "$dir/disk.img" 1 "" \
               "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI "$dir/BOOTX64.xml" ::/EFI/BOOT/BOOTX64.xml &&
           fill_ntfs_partition "$dir/disk.img" 2 "$KERNEL_IMAGE" vmlinuz "$INITRD_IMAGE" initrd.img; }; then
        fail "cannot make the GPT disk with the NTFS partition"
        return
    fi
    make_marker_disk "$dir/next.img" || { fail "cannot make the marker disk"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/disk.img" -drive format=raw,file="$dir/next.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_gpt_boot "$dir" "$dir/console.txt"
}

# The kernel and the initramfs lie only on an HFS+ partition; the FAT ESP
# holds nothing but the loader and its document. HFS+ has one tree under
# "/", where a backslash is part of a name, so both paths take "/".
scenario_hfsplus_kernel() {
    local dir=$1
    write_document "$dir" "$HFSPLUS_GUID" /boot/initrd.img || return
    if ! { make_gpt_layout "$dir/disk.img" $((ESP_MIB + DATA_MIB + 2)) \
               "EF00:$ESP_MIB:$ESP_GUID" "AF00:$DATA_MIB:$HFSPLUS_GUID" &&
           fill_fat_partition "$dir/disk.img" 1 "" \
               "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI "$dir/BOOTX64.xml" ::/EFI/BOOT/BOOTX64.xml &&
           fill_hfsplus_partition "$dir/disk.img" 2 "$KERNEL_IMAGE" boot/vmlinuz "$INITRD_IMAGE" boot/initrd.img; }; then
        fail "cannot make the GPT disk with the HFS+ partition"
        return
    fi
    make_marker_disk "$dir/next.img" || { fail "cannot make the marker disk"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/disk.img" -drive format=raw,file="$dir/next.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_gpt_boot "$dir" "$dir/console.txt"
}

scenario_wrong_guid() {
    report_scenario "$1" "$NEAR_GUID" "$DISK_NOT_FOUND_REPORT"
}

scenario_unmounted() {
    report_scenario "$1" "$BLANK_GUID" "$NOT_MOUNTED_REPORT"
}

ALL_SCENARIOS="kernel ext4_kernel ntfs_kernel hfsplus_kernel wrong_guid unmounted"

scenario_log() {
    echo "== machine: ${BOOT_END:-see the status above}"
    echo "== document"
    cat "$1/BOOTX64.xml" 2>/dev/null
    echo "== console"
    cat "$1/console.txt" 2>/dev/null
    echo "== QEMU's standard error"
    cat "$1/qemu.err" 2>/dev/null
}

# The disks are remade on every run; only the consoles are worth keeping.
scenario_cleanup() {
    rm -f "$1/disk.img" "$1/next.img" "$1/vars.fd" "$1/screen.ppm"
    rm -rf "$1/tree"
}

scenarios=${*:-$ALL_SCENARIOS}
# shellcheck disable=SC2086
check_scenario_names "$ALL_SCENARIOS" $scenarios
# shellcheck disable=SC2086
run_scenarios gpt $scenarios
