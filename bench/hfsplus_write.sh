#!/bin/bash
# Write speed of one 256 MiB file onto an empty HFS+ image made by
# mkfs.hfsplus (4 KiB allocation blocks), without and with a journal, two
# ways each in one run:
#   - our HFS+ driver on the host:  morvane fs IMAGE cp-in FILE /big.bin
#   - the raw write of the same bytes into the volume's free blocks, as
#     sleuthkit's blkls lists them: dd, 1 MiB blocks, conv=notrunc, one
#     process per run of free blocks (mkfs.hfsplus leaves one long run
#     behind the special files, and the journal's when there is one)
# Every round starts from a fresh copy of the empty image, made and put on
# disk outside the timing; the host file is read once before, so both ways
# read it from the page cache. Each way runs ROUNDS times, interleaved, and
# its best round counts.
#
#   bench/hfsplus_write.sh BUILD_DIR [ROUNDS]       (ROUNDS: 3 if not given)
#
# Before any timing, and again on the last round's images, what was written
# is read back by sleuthkit's icat (our file) or dd (the raw bytes) and
# compared with the host file, and `fsck.hfsplus -fn` must find the volume
# clean: a write that is fast but wrong is a failure, not a figure. Prints
# MiB/s of each way and the ratio of ours over the raw write beside the
# goal (at least 0.5); the goal is reported, never enforced. When it is
# missed, our driver's writes to the image are counted by size. Closing
# line: "N passed, M failed". Checking, timing and report come from
# write_lib.sh.
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/write_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkfs.hfsplus fsck.hfsplus blkls fls icat

WORK=$BUILD_DIR/bench-hfsplus-write
EMPTY_IMAGE=$WORK/empty.img
FILE=$WORK/big.bin
FILE_MIB=256
# Room for the file, the special files and an 8 MiB journal.
IMAGE_MIB=$((FILE_MIB + 64))
BLOCK=4096
rm -f "$WORK"/*.img "$FILE"
mkdir -p "$WORK" || exit 2

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$FILE" || exit 2
EXPECTED=$(sha256sum <"$FILE" | cut -d ' ' -f 1)

# empty_volume [-J]: EMPTY_IMAGE made anew, journaled with -J, and the
# "IMAGE_OFFSET BYTES" of each run of its free blocks that the raw write
# fills, in order, until the file's bytes are placed. blkls -A -l lists
# the unallocated blocks one per line, "BLOCK|f".
empty_volume() {
    rm -f "$EMPTY_IMAGE"
    truncate -s "${IMAGE_MIB}M" "$EMPTY_IMAGE" || return 1
    mkfs.hfsplus "$@" -b "$BLOCK" -v BENCH "$EMPTY_IMAGE" >/dev/null || return 1
    blkls -f hfs -A -l "$EMPTY_IMAGE" | awk -F '|' '$2 == "f" { print $1 }' |
        awk -v b="$BLOCK" -v total="$((FILE_MIB * 1048576))" '
            function put() { n = (last - first + 1) * b; if (n > total - placed) n = total - placed
                             if (n > 0) print first * b, n; placed += n }
            NR == 1 { first = last = $1; next }
            $1 == last + 1 { last = $1; next }
            { put(); first = last = $1 }
            END { if (NR > 0) put(); if (placed < total) exit 1 }' >"$WORK/runs" ||
        { echo "the empty volume has too few free blocks" >&2; return 1; }
}

LABEL=(
    [morvane]='morvane fs IMAGE cp-in (our HFS+ driver)'
    [raw]='dd conv=notrunc of the same bytes into free blocks'
)

# write_way WAY IMAGE: the host file onto IMAGE, written that way.
write_way() {
    case $1 in
        morvane) "${TRACE[@]}" "$TOOL" fs "$2" cp-in "$FILE" /big.bin ;;
        raw) raw_runs "$2" write ;;
    esac
}

# written_sha WAY IMAGE: the SHA-256 of the file's bytes as IMAGE holds
# them; fls gives the file's catalog id ("r/r ID:<tab>big.bin").
written_sha() {
    local id
    case $1 in
        morvane)
            id=$(fls -f hfs "$2" | awk -F '\t' '$2 == "big.bin" { split($1, f, /[ :]/); print f[2] }')
            [ -n "$id" ] && icat -f hfs "$2" "$id" ;;
        raw) raw_runs "$2" read ;;
    esac | sha256sum | cut -d ' ' -f 1
}

check_volume() { fsck.hfsplus -fn "$1"; }

cat "$FILE" >/dev/null
for journal in '' -J; do
    empty_volume $journal || exit 2
    title="Writing a $FILE_MIB MiB file onto an empty HFS+ image ($((BLOCK / 1024)) KiB blocks${journal:+, journaled})"
    measure_writes "$title" "$FILE_MIB" "$EXPECTED" morvane raw
done
rm -f "$WORK"/*.img "$FILE"
bench_summary
