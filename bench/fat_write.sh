#!/bin/bash
# Write speed of one 256 MiB file onto an empty FAT32 image made by
# mkfs.fat, two ways in one run:
#   - our FAT driver on the host:  morvane fs IMAGE cp-in FILE /big.bin
#   - the raw write of the same bytes into the image's data area: dd,
#     1 MiB blocks, conv=notrunc
# Every round starts from a fresh copy of the empty image, made and put on
# disk outside the timing; the host file is read once before, so both ways
# read it from the page cache. Each way runs ROUNDS times, interleaved, and
# its best round counts.
#
#   bench/fat_write.sh BUILD_DIR [ROUNDS]       (ROUNDS: 3 if not given)
#
# Before any timing, and again on the last round's images, what was written
# is read back with mtools (our file) or dd (the raw bytes) and compared
# with the host file, and fsck.fat -n must find the volume clean: a write
# that is fast but wrong is a failure, not a figure. Prints MiB/s of each
# way and the ratio of ours over the raw write beside the goal (at least
# 0.5); the goal is reported, never enforced. When it is missed, our
# driver's writes to the image are counted by size. Closing line:
# "N passed, M failed". Checking, timing and report come from write_lib.sh.
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/write_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkfs.fat fsck.fat mcopy

WORK=$BUILD_DIR/bench-fat-write
EMPTY_IMAGE=$WORK/empty.img
FILE=$WORK/big.bin
FILE_MIB=256
# Room for the file, its clusters' FAT entries and the root directory.
IMAGE_KIB=$(((FILE_MIB + 32) * 1024))
rm -f "$WORK"/*.img "$FILE"
mkdir -p "$WORK" || exit 2

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$FILE" || exit 2
EXPECTED=$(sha256sum <"$FILE" | cut -d ' ' -f 1)
mkfs.fat -F 32 -C "$EMPTY_IMAGE" "$IMAGE_KIB" >/dev/null || exit 2

# le_field OFFSET WIDTH: a little-endian number of the image's boot sector.
le_field() {
    od -An -tu"$2" -j "$1" -N "$2" --endian=little "$EMPTY_IMAGE" | tr -d ' '
}

# The raw write goes where a file on the fresh volume begins: cluster 3,
# behind the root directory's cluster 2, which follows the reserved sectors
# and the FAT copies. Any place in the data area would do; fsck.fat checks
# that this one left the volume's structures alone.
sector_bytes=$(le_field 11 2)
cluster_bytes=$((sector_bytes * $(le_field 13 1)))
fat_sectors=$(le_field 36 4)
data_start=$((($(le_field 14 2) + $(le_field 16 1) * fat_sectors) * sector_bytes))
FILE_OFFSET=$((data_start + cluster_bytes))

LABEL=(
    [morvane]='morvane fs IMAGE cp-in (our FAT driver)'
    [raw]='dd conv=notrunc of the same bytes into the image'
)

# write_way WAY IMAGE: the host file onto IMAGE, written that way.
write_way() {
    case $1 in
        morvane) "${TRACE[@]}" "$TOOL" fs "$2" cp-in "$FILE" /big.bin ;;
        raw) dd if="$FILE" of="$2" bs=1M conv=notrunc oflag=seek_bytes seek="$FILE_OFFSET" status=none ;;
    esac
}

# written_sha WAY IMAGE: the SHA-256 of the file's bytes as IMAGE holds them.
written_sha() {
    case $1 in
        morvane) mcopy -i "$2" ::/big.bin - ;;
        raw) dd if="$2" bs=1M iflag=skip_bytes,count_bytes skip="$FILE_OFFSET" \
                count="$((FILE_MIB * 1048576))" status=none ;;
    esac | sha256sum | cut -d ' ' -f 1
}

check_volume() { fsck.fat -n "$1"; }

cat "$FILE" >/dev/null
measure_writes "Writing a $FILE_MIB MiB file onto an empty FAT32 image ($((cluster_bytes / 1024)) KiB clusters)" \
    "$FILE_MIB" "$EXPECTED" morvane raw
rm -f "$WORK"/*.img "$FILE"
bench_summary
