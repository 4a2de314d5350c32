#!/bin/bash
# Write speed of one 256 MiB file onto an empty ext4 image made by
# mkfs.ext4 (4 KiB blocks, with its journal, without metadata checksums),
# two ways in one run:
#   - our ext driver on the host:  morvane fs IMAGE cp-in FILE /big.bin
#   - the raw write of the same bytes into the volume's free blocks, as
#     dumpe2fs lists their runs: dd, 1 MiB blocks, conv=notrunc, one
#     process per run (a handful: the groups' metadata lies together at the
#     start, so the runs are long)
# Every round starts from a fresh copy of the empty image, made and put on
# disk outside the timing; the host file is read once before, so both ways
# read it from the page cache. Each way runs ROUNDS times, interleaved, and
# its best round counts.
#
#   bench/ext_write.sh BUILD_DIR [ROUNDS]       (ROUNDS: 3 if not given)
#
# Before any timing, and again on the last round's images, what was written
# is read back by debugfs (our file) or dd (the raw bytes) and compared with
# the host file, and e2fsck -fn must find the volume clean: a write that is
# fast but wrong is a failure, not a figure. Prints MiB/s of each way and
# the ratio of ours over the raw write beside the goal (at least 0.5); the
# goal is reported, never enforced. When it is missed, our driver's writes
# to the image are counted by size. Closing line: "N passed, M failed".
# Checking, timing and report come from write_lib.sh.
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/write_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkfs.ext4 e2fsck debugfs dumpe2fs

WORK=$BUILD_DIR/bench-ext-write
EMPTY_IMAGE=$WORK/empty.img
FILE=$WORK/big.bin
FILE_MIB=256
# Room for the file, its extent tree, the groups' metadata and the journal.
IMAGE_MIB=$((FILE_MIB + 96))
rm -f "$WORK"/*.img "$FILE"
mkdir -p "$WORK" || exit 2

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$FILE" || exit 2
EXPECTED=$(sha256sum <"$FILE" | cut -d ' ' -f 1)
truncate -s "${IMAGE_MIB}M" "$EMPTY_IMAGE" || exit 2
mkfs.ext4 -q -F -b 4096 -m 0 -O ^metadata_csum "$EMPTY_IMAGE" >/dev/null || exit 2

# "IMAGE_OFFSET BYTES" of each run of free blocks the raw write fills, in
# order, until the file's bytes are placed. dumpe2fs names each group's
# free blocks "Free blocks: FIRST-LAST, BLOCK, ...".
BLOCK_BYTES=$(dumpe2fs -h "$EMPTY_IMAGE" 2>/dev/null | sed -n 's/^Block size: *//p')
dumpe2fs "$EMPTY_IMAGE" 2>/dev/null | sed -n 's/^ *Free blocks: //p' | tr ',' '\n' | tr -d ' ' | grep . |
    awk -F- -v b="$BLOCK_BYTES" -v total="$((FILE_MIB * 1048576))" '
        { last = (NF > 1) ? $2 : $1; n = (last - $1 + 1) * b
          if (n > total - placed) n = total - placed
          if (n > 0) print $1 * b, n; placed += n }
        END { if (placed < total) exit 1 }' >"$WORK/runs" || { echo "the empty volume has too few free blocks" >&2; exit 2; }

LABEL=(
    [morvane]='morvane fs IMAGE cp-in (our ext driver)'
    [raw]='dd conv=notrunc of the same bytes into free blocks'
)

# write_way WAY IMAGE: the host file onto IMAGE, written that way.
write_way() {
    case $1 in
        morvane) "${TRACE[@]}" "$TOOL" fs "$2" cp-in "$FILE" /big.bin ;;
        raw) raw_runs "$2" write ;;
    esac
}

# written_sha WAY IMAGE: the SHA-256 of the file's bytes as IMAGE holds them.
written_sha() {
    case $1 in
        morvane) debugfs -R 'cat /big.bin' "$2" 2>/dev/null ;;
        raw) raw_runs "$2" read ;;
    esac | sha256sum | cut -d ' ' -f 1
}

check_volume() { e2fsck -fn "$1"; }

cat "$FILE" >/dev/null
measure_writes "Writing a $FILE_MIB MiB file onto an empty ext4 image ($((BLOCK_BYTES / 1024)) KiB blocks, journal, no checksums)" \
    "$FILE_MIB" "$EXPECTED" morvane raw
rm -f "$WORK"/*.img "$FILE"
bench_summary
