#!/bin/bash
# Write speed of one 256 MiB file onto an empty NTFS image made by mkntfs
# (4 KiB clusters), three ways in one run:
#   - our NTFS driver on the host:  morvane fs IMAGE cp-in FILE /big.bin
#   - ntfs-3g: the image mounted over FUSE, the file copied in with cp,
#     the volume unmounted (the unmount is timed too: it writes back)
#   - the raw write of the same bytes into free clusters of the volume:
#     dd, 1 MiB blocks, conv=notrunc, into a stretch that ntfscluster finds
#     unused by any file
# Every round starts from a fresh copy of the empty image, made and put on
# disk outside the timing; the host file is read once before, so every way
# reads it from the page cache. Each way runs ROUNDS times, interleaved,
# and its best round counts.
#
#   bench/ntfs_write.sh BUILD_DIR [ROUNDS]       (ROUNDS: 3 if not given)
#
# Before any timing, and again on the last round's images, what was written
# is read back by ntfscat (a file) or dd (the raw bytes) and compared with
# the host file, and `ntfsfix -n` must find nothing to fix. Prints MiB/s of
# each way, ours over the raw write beside the goal (at least 0.5) and ours
# over ntfs-3g (the goal: ahead); goals are reported, never enforced.
# Checking, timing and report come from write_lib.sh.
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/write_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkntfs ntfs-3g ntfscat ntfsfix ntfscluster

WORK=$BUILD_DIR/bench-ntfs-write
EMPTY_IMAGE=$WORK/empty.img
FILE=$WORK/big.bin
MOUNT=$WORK/mnt
FILE_MIB=256
IMAGE_MIB=640
CLUSTER=4096
rm -f "$WORK"/*.img "$FILE"
mkdir -p "$WORK" "$MOUNT" || exit 2
trap 'umount "$MOUNT" 2>/dev/null' EXIT

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$FILE" || exit 2
EXPECTED=$(sha256sum <"$FILE" | cut -d ' ' -f 1)
truncate -s "${IMAGE_MIB}M" "$EMPTY_IMAGE" || exit 2
mkntfs -F -f -q -c "$CLUSTER" "$EMPTY_IMAGE" >/dev/null 2>&1 || exit 2

# The raw write's stretch: the file's clusters just below the last 16 MiB
# of the volume, which mkntfs leaves free on an image of this size; checked,
# not assumed.
RAW_CLUSTERS=$((FILE_MIB * 1048576 / CLUSTER))
RAW_LAST=$(((IMAGE_MIB - 16) * 1048576 / CLUSTER - 1))
RAW_FIRST=$((RAW_LAST + 1 - RAW_CLUSTERS))
if ntfscluster -q -c "$RAW_FIRST-$RAW_LAST" "$EMPTY_IMAGE" 2>/dev/null | grep -q Inode; then
    echo "clusters $RAW_FIRST-$RAW_LAST of the empty volume are in use" >&2
    exit 2
fi
RAW_OFFSET=$((RAW_FIRST * CLUSTER))

LABEL=(
    [morvane]='morvane fs IMAGE cp-in (our NTFS driver)'
    [ntfs3g]='ntfs-3g mount, cp, unmount'
    [raw]='dd conv=notrunc of the same bytes into free clusters'
)

raw_bytes() {
    if [ "$2" = write ]; then
        dd if="$FILE" of="$1" bs=1M conv=notrunc oflag=seek_bytes seek="$RAW_OFFSET" status=none
    else
        dd if="$1" bs=1M iflag=skip_bytes,count_bytes skip="$RAW_OFFSET" count="$((FILE_MIB * 1048576))" status=none
    fi
}

write_way() {
    case $1 in
        morvane) "${TRACE[@]}" "$TOOL" fs "$2" cp-in "$FILE" /big.bin ;;
        ntfs3g) ntfs-3g "$2" "$MOUNT" && cp "$FILE" "$MOUNT/big.bin" && umount "$MOUNT" ;;
        raw) raw_bytes "$2" write ;;
    esac
}

written_sha() {
    case $1 in
        morvane | ntfs3g) ntfscat "$2" /big.bin 2>/dev/null ;;
        raw) raw_bytes "$2" read ;;
    esac | sha256sum | cut -d ' ' -f 1
}

check_volume() { ntfsfix -n "$1"; }

cat "$FILE" >/dev/null
measure_writes "Writing a $FILE_MIB MiB file onto an empty NTFS image ($((CLUSTER / 1024)) KiB clusters)" \
    "$FILE_MIB" "$EXPECTED" morvane ntfs3g raw
rm -f "$WORK"/*.img "$FILE"
bench_summary
