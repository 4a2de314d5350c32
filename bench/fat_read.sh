#!/bin/bash
# Read speed of one 256 MiB file on a FAT32 image made by mkfs.fat and
# mtools, three ways in one run:
#   - our FAT driver on the host:  morvane fs IMAGE cat /big.bin
#   - GRUB's reader:               grub-fstest IMAGE cat /big.bin
#   - the raw bytes of the image where the file lies: dd, 1 MiB blocks
# The image is read once before the first round, so every way starts from
# the page cache and the disk's own speed stays out of the figures. Each way
# runs ROUNDS times, interleaved, and its best round counts: the one least
# disturbed by the rest of the machine.
#
#   bench/fat_read.sh BUILD_DIR [ROUNDS]        (ROUNDS: 3 if not given)
#
# Before any timing, what both readers deliver is compared with the file
# that was put in: a reader that is fast but wrong is a failure, not a
# figure. Prints MiB/s of each way and our driver's ratios over the raw read
# and over grub-fstest, beside the goal (at least 0.5 of the raw read, well
# ahead of grub-fstest). The goal is reported, never enforced. Closing line:
# "N passed, M failed", a way passing when its bytes were right. The
# checking, timing and report are shared with ext_read.sh (read_lib.sh).
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/read_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkfs.fat mcopy grub-fstest

WORK=$BUILD_DIR/bench-fat-read
IMAGE=$WORK/fat32.img
FILE=$WORK/big.bin
FILE_MIB=256
# Room for the file, its clusters' FAT entries and the root directory.
IMAGE_KIB=$(((FILE_MIB + 32) * 1024))
rm -rf "$WORK"
mkdir -p "$WORK" || exit 2

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$FILE" || exit 2
mkfs.fat -F 32 -C "$IMAGE" "$IMAGE_KIB" >/dev/null || exit 2
mcopy -i "$IMAGE" "$FILE" ::/big.bin || exit 2
EXPECTED=$(sha256sum <"$FILE" | cut -d ' ' -f 1)
# Only the image is needed from here on; disk space is better spent elsewhere.
rm -f "$FILE"

# le_field OFFSET WIDTH: a little-endian number of the image's boot sector.
le_field() {
    od -An -tu"$2" -j "$1" -N "$2" --endian=little "$IMAGE" | tr -d ' '
}

# The first data cluster (2) begins behind the reserved sectors and the FAT
# copies. On a fresh volume the root directory takes cluster 2 and mcopy
# writes the file contiguously from cluster 3 on, so the raw read takes the
# same bytes from the same place.
sector_bytes=$(le_field 11 2)
cluster_bytes=$((sector_bytes * $(le_field 13 1)))
fat_sectors=$(le_field 36 4)
data_start=$((($(le_field 14 2) + $(le_field 16 1) * fat_sectors) * sector_bytes))
FILE_OFFSET=$((data_start + cluster_bytes))

LABEL=(
    [morvane]='morvane fs IMAGE cat (our FAT driver)'
    [grub]='grub-fstest IMAGE cat'
    [raw]='dd of the same bytes of the image'
)

# read_way WAY: the file's bytes, read that way, on standard output.
read_way() {
    case $1 in
        morvane) "$TOOL" fs "$IMAGE" cat /big.bin ;;
        grub) grub-fstest "$IMAGE" cat /big.bin ;;
        raw) dd if="$IMAGE" bs=1M iflag=skip_bytes,count_bytes skip="$FILE_OFFSET" \
                count="$((FILE_MIB * 1048576))" status=none ;;
    esac
}

# Warm the page cache with the whole image.
cat "$IMAGE" >/dev/null
measure_ways "Reading a $FILE_MIB MiB file from a FAT32 image ($((cluster_bytes / 1024)) KiB clusters, page cache warm)" \
    "$FILE_MIB" "$EXPECTED" morvane grub raw
rm -f "$IMAGE"
bench_summary
