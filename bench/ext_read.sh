#!/bin/bash
# Read speed of one 256 MiB file on ext4 and on ext2 images made by
# mkfs.ext4 -d and mkfs.ext2 -d, three ways in one run, and the time to
# list a directory of 5,000 entries on each, two ways:
#   - our ext driver on the host:  morvane fs IMAGE cat /big.bin, ls /many
#   - GRUB's reader:               grub-fstest IMAGE cat /big.bin, ls /many
#   - the raw bytes of the file's block runs, as debugfs lists them: dd,
#     1 MiB blocks, one process per run. On ext4 the data is one or two
#     runs; ext2's block maps cut it into runs of 4 MiB, so there that way
#     also pays for a few dozen process starts, and the ratio over it
#     flatters our driver.
# The ext4 directory is indexed (a hashed tree, made by e2fsck -D), the
# ext2 one linear.
#
#   bench/ext_read.sh BUILD_DIR [ROUNDS]        (ROUNDS: 3 if not given)
#
# Before any timing, what each way delivers is compared with what was put
# in (the file's bytes; the directory's names, sorted), so a fast but wrong
# way is a failure, not a figure. Figures and ratios are reported, never
# enforced. Closing line: "N passed, M failed", a way passing when its
# output was right. Checking, timing and report come from read_lib.sh.
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/read_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkfs.ext4 mkfs.ext2 e2fsck debugfs grub-fstest

WORK=$BUILD_DIR/bench-ext-read
TREE=$WORK/tree
IMAGE=$WORK/ext.img
FILE_MIB=256
ENTRIES=5000
# Room for the file, its block maps, the directory and the journal.
IMAGE_MIB=$((FILE_MIB + 64))
rm -rf "$WORK"
mkdir -p "$TREE/many" || exit 2

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$TREE/big.bin" || exit 2
EXPECTED=$(sha256sum <"$TREE/big.bin" | cut -d ' ' -f 1)
(cd "$TREE/many" && for i in $(seq -w 1 "$ENTRIES"); do : >"f$i"; done) || exit 2
EXPECTED_NAMES=$(ls "$TREE/many" | sha256sum | cut -d ' ' -f 1)

# run_list: "FIRST_BYTE BYTES" per contiguous run of /big.bin's data, in
# file order, the last run cut to the file's size. debugfs's stat names
# each run of data blocks "(FIRST[-LAST]):BLOCK[-BLOCK]" and the block-map
# and extent-tree blocks by a word in the parentheses; those are left out.
run_list() {
    local block_bytes
    block_bytes=$(debugfs -R stats "$IMAGE" 2>/dev/null | sed -n 's/^Block size: *//p')
    debugfs -R "stat /big.bin" "$IMAGE" 2>/dev/null | sed -n '/^\(BLOCKS\|EXTENTS\):/,$p' |
        grep -o '([0-9][0-9-]*):[0-9][0-9-]*' | sed 's/^(\([0-9]*\)[^:]*:\([0-9]*\)-*\([0-9]*\)$/\1 \2 \3/' |
        awk -v b="$block_bytes" -v total="$((FILE_MIB * 1048576))" '
            function emit() { n = count * b; if (n > total - done) n = total - done; print start * b, n; done += n }
            { last = ($3 == "") ? $2 : $3 }
            NR > 1 && $2 == start + count { count += last - $2 + 1; next }
            NR > 1 { emit() }
            { start = $2; count = last - $2 + 1 }
            END { if (NR > 0) emit() }'
}

# What is measured: "cat" reads /big.bin, "ls" lists /many.
WHAT=cat

read_way() {
    case $WHAT:$1 in
        cat:morvane) "$TOOL" fs "$IMAGE" cat /big.bin ;;
        cat:grub) grub-fstest "$IMAGE" cat /big.bin ;;
        cat:raw)
            local first bytes
            while read -r first bytes; do
                dd if="$IMAGE" bs=1M iflag=skip_bytes,count_bytes skip="$first" count="$bytes" status=none
            done <"$WORK/runs"
            ;;
        ls:morvane) "$TOOL" fs "$IMAGE" ls /many ;;
        ls:grub) grub-fstest "$IMAGE" ls /many ;;
    esac
}

# The listings differ in form (one name a line, or all on one line; marks
# of directories, the dot entries): only the names that were made count.
canonical() {
    if [ "$WHAT" = ls ]; then
        tr ' ' '\n' | grep -x 'f[0-9]*' | sort
    else
        cat
    fi
}

# measure_volume NAME MKFS [INDEX]: makes the image with MKFS; with INDEX,
# e2fsck -D then rebuilds its directories as hashed trees (mke2fs -d makes
# them linear). Runs both measures on it and drops it.
measure_volume() {
    local name=$1 mkfs=$2 index=${3-} runs
    rm -f "$IMAGE"
    truncate -s "${IMAGE_MIB}M" "$IMAGE" || return 1
    if ! "$mkfs" -q -F -b 4096 -d "$TREE" "$IMAGE" >"$WORK/mkfs.err" 2>&1; then
        echo "$mkfs failed: $(cat "$WORK/mkfs.err")" >&2
        BENCH_FAILED=$((BENCH_FAILED + 1))
        return 1
    fi
    if [ -n "$index" ]; then
        e2fsck -fyD "$IMAGE" >"$WORK/fsck.out" 2>&1
        if [ $? -gt 1 ] || ! debugfs -R "htree /many" "$IMAGE" 2>/dev/null | grep -q 'Root node'; then
            echo "e2fsck -D did not index /many: $(tail -n 3 "$WORK/fsck.out")" >&2
            BENCH_FAILED=$((BENCH_FAILED + 1))
            return 1
        fi
    fi
    run_list >"$WORK/runs"
    runs=$(wc -l <"$WORK/runs")
    # Warm the page cache with the whole image.
    cat "$IMAGE" >/dev/null
    WHAT=cat
    LABEL=([morvane]="morvane fs IMAGE cat (our $name driver)" [grub]='grub-fstest IMAGE cat'
           [raw]="dd of the file's block runs")
    measure_ways "Reading a $FILE_MIB MiB file from an $name image (4 KiB blocks, $runs runs, page cache warm)" \
        "$FILE_MIB" "$EXPECTED" morvane grub raw
    WHAT=ls
    LABEL=([morvane]="morvane fs IMAGE ls /many (our $name driver)" [grub]='grub-fstest IMAGE ls /many')
    measure_ways "Listing a directory of $ENTRIES entries on the $name image" "" "$EXPECTED_NAMES" morvane grub
    rm -f "$IMAGE"
}

measure_volume ext4 mkfs.ext4 index
measure_volume ext2 mkfs.ext2
rm -rf "$TREE"
bench_summary
