#!/bin/bash
# The boot race: power-on to a running initramfs with Debian's kernel and a
# 256 MiB ramdisk of random bytes (the end-to-end initramfs with one more
# cpio archive behind it), read from a GPT disk of each file system (FAT32,
# ext4, NTFS, HFS+, made by mkfs.fat + mtools, mkfs.ext4 -d, mkntfs +
# ntfscp and xorriso's HFS+ writer), the disk on virtio-blk and on AHCI,
# booted three ways:
#   morvane   morvane.efi as the removable-media boot file of a small FAT
#             ESP, its document naming the partition by its unique GUID;
#   grub      GRUB's standalone EFI image on the same kind of ESP, its
#             embedded grub.cfg finding /vmlinuz with search --file;
#   firmware  OVMF's own -kernel/-initrd/-append boot, the floor.
# Every kernel gets the same command line. Boots run one at a time under
# KVM when /dev/kvm serves (TCG otherwise, as said), file systems, disk
# kinds and ways alternating within each round.
#
#   bench/boot_race.sh BUILD_DIR [ROUNDS]        (ROUNDS: 3 if not given)
#
# Prints each boot, then the table of medians and spreads (min-max) of the
# seconds from QEMU's start to the initramfs' greeting, and from the
# loader's or GRUB's first console line to the kernel's first line (its
# banner); then, per file system, the Block I/O reads the loader makes on
# the host simulator for the same disk (morvane boot --stats). Closing
# line: "N passed, M failed", a boot passing when it reached the greeting.
# RACE_KEEP=1 keeps the disks in BUILD_DIR/bench-race afterwards;
# RACE_FILE_SYSTEMS="fat32 ext4" races those alone.
set -u
. "$(dirname "$0")/boot_lib.sh" "$@"
. "$E2E/gpt_disk.sh"
. "$HERE/race_lib.sh"
LOADER_IMAGE=$BUILD_DIR/morvane.efi
TOOL=$BUILD_DIR/morvane
for needed in "$LOADER_IMAGE" "$TOOL"; do
    [ -f "$needed" ] || { echo "missing $needed: build first (make)" >&2; exit 2; }
done
kernel_inputs "$BUILD_DIR" >&2 || exit 2
race_grub_tools || exit 2

WORK=$BUILD_DIR/bench-race
rm -rf "$WORK"
mkdir -p "$WORK/boots" "$WORK/stats-esp/EFI/BOOT"
race_accelerator "$WORK"
RAMDISK=$BUILD_DIR/e2e-kernel/race-initrd.img
race_ramdisk "$INITRD_IMAGE" "$RAMDISK" || { echo "cannot make the padded ramdisk" >&2; exit 1; }

FILE_SYSTEMS=${RACE_FILE_SYSTEMS:-fat32 ext4 ntfs hfsplus}
DISK_KINDS="virtio ahci"
WAYS="morvane grub firmware"

for fs in $FILE_SYSTEMS; do
    race_disk "$fs" "$WORK/$fs.img" "$KERNEL_IMAGE" "$RAMDISK" || { echo "cannot make the $fs disk" >&2; exit 1; }
done
race_document >"$WORK/stats-esp/EFI/BOOT/BOOTX64.xml"
"$TOOL" conf check "$WORK/stats-esp/EFI/BOOT/BOOTX64.xml" >"$WORK/conf-check.txt" 2>&1 ||
    { cat "$WORK/conf-check.txt" >&2; exit 1; }
make_loader_esp "$WORK/morvane-esp.img" "$WORK/stats-esp/EFI/BOOT/BOOTX64.xml" || exit 1
race_grub_image "$WORK/grubx64.efi" "$WORK" || { echo "grub-mkstandalone failed" >&2; exit 1; }
LOADER_IMAGE=$WORK/grubx64.efi make_loader_esp "$WORK/grub-esp.img" || exit 1

# race_arguments FS KIND WAY: sets ARGS, the QEMU arguments of one boot.
# Disks are snapshots: no boot leaves anything for the next.
race_arguments() {
    local disk=$WORK/$1.img
    case $2 in
        virtio) disk="-drive if=virtio,format=raw,snapshot=on,file=$disk" ;;
        ahci) disk="-drive format=raw,snapshot=on,file=$disk" ;;
    esac
    # shellcheck disable=SC2206
    case $3 in
        morvane) ARGS=(-drive "format=raw,snapshot=on,file=$WORK/morvane-esp.img" $disk) ;;
        grub) ARGS=(-drive "format=raw,snapshot=on,file=$WORK/grub-esp.img" $disk) ;;
        firmware) ARGS=($disk -kernel "$KERNEL_IMAGE" -initrd "$RAMDISK" -append "$RACE_CMDLINE") ;;
    esac
}

FIRST_LINE="^(${RACE_STARTUP_LINE//./\\.}|$RACE_GRUB_LINE)\$"
declare -A TOTAL CPU READ
passed=0 failed=0
echo "Kernel $(cut -d ' ' -f 1,2 "$BUILD_DIR/e2e-kernel/kernel.txt"), ramdisk $RACE_RAMDISK_MIB MiB, q35 with $RACE_MEMORY_MIB MiB under ${RACE_ACCEL^^}, $(nproc) host cores, $ROUNDS rounds"
for round in $(seq 1 "$ROUNDS"); do
    for fs in $FILE_SYSTEMS; do
        for kind in $DISK_KINDS; do
            for way in $WAYS; do
                key=$fs/$kind/$way
                dir=$WORK/boots/$fs-$kind-$way-$round
                mkdir -p "$dir"
                race_arguments "$fs" "$kind" "$way"
                race_boot "$dir" "${ARGS[@]}"
                read -r total cpu < <(seconds_to "$dir/console.times" "^${INIT_GREETING}\$")
                read -r first _ < <(seconds_to "$dir/console.times" "$FIRST_LINE")
                read -r kernel _ < <(seconds_to "$dir/console.times" "$RACE_KERNEL_LINE")
                if [ "$BOOT_END" != greeting ] || [ -z "${total-}" ]; then
                    failed=$((failed + 1))
                    echo "  round $round, $fs $kind $way: no greeting ($BOOT_END); console in $dir"
                    continue
                fi
                passed=$((passed + 1))
                TOTAL[$key]="${TOTAL[$key]-} $total"
                [ "${cpu:--}" = - ] || CPU[$key]="${CPU[$key]-} $cpu"
                read=
                if [ -n "${first-}" ] && [ -n "${kernel-}" ]; then
                    read=$(awk -v a="$first" -v b="$kernel" 'BEGIN { printf "%.2f", b - a }')
                    READ[$key]="${READ[$key]-} $read"
                fi
                printf '  round %d, %-7s %-6s %-8s to the greeting %6.2f s (CPU %s s)%s\n' "$round" "$fs" "$kind" \
                    "$way" "$total" "${cpu:--}" "${read:+, first line to the kernel $read s}"
                unset total cpu first kernel
            done
        done
    done
done

echo
echo "Seconds, median (min-max) of $ROUNDS rounds: from QEMU's start to the greeting, on the wall clock and"
echo "as QEMU's processor time (steadier on a busy host), and from the loader's or GRUB's first line to the"
echo "kernel's banner on the wall clock (the reading of kernel and ramdisk, the hand-over, the decompression):"
printf '  %-8s %-7s %-9s %-20s %-20s %s\n' 'file sys' disk way 'greeting, wall' 'greeting, CPU' 'first line to kernel'
for fs in $FILE_SYSTEMS; do
    for kind in $DISK_KINDS; do
        for way in $WAYS; do
            key=$fs/$kind/$way
            # shellcheck disable=SC2086
            printf '  %-8s %-7s %-9s %-20s %-20s %s\n' "$fs" "$kind" "$way" "$(race_summary ${TOTAL[$key]-})" \
                "$(race_summary ${CPU[$key]-})" "$(race_summary ${READ[$key]-})"
        done
    done
done

echo
echo "The loader's Block I/O reads on the host simulator, same disks (morvane boot --stats):"
for fs in $FILE_SYSTEMS; do
    started=$EPOCHREALTIME
    "$TOOL" boot --esp "$WORK/stats-esp" --disk "$WORK/$fs.img" --stats >"$WORK/stats-$fs.txt" 2>&1
    status=$?
    seconds=$(awk -v a="$started" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.2f", b - a }')
    echo "== $fs (exit $status, $seconds s on the host)"
    sed -n -e '/^ended:/p' -e '/^block I\/O reads/,$p' "$WORK/stats-$fs.txt" | sed "s|$WORK/||"
done

if [ -z "${RACE_KEEP-}" ]; then
    rm -f "$WORK"/*.img "$WORK/grubx64.efi"
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
