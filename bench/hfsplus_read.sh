#!/bin/bash
# Read speed on an HFS+ image made by xorriso's HFS+ writer (2 KiB
# allocation blocks, files contiguous; see tests/images/hfsplus_from_folder.sh),
# in one run:
#   - a 256 MiB file of random bytes, three ways:
#       our HFS+ driver on the host:  morvane fs IMAGE cat /big.bin
#       GRUB's reader:                grub-fstest IMAGE cat /big.bin
#       the raw bytes of the file's one extent, as istat lists its blocks:
#       dd, 1 MiB blocks
#   - the long listing of a directory of 2,000 entries, our driver
#     (morvane fs IMAGE ls -l /many; goal: under 50 ms).
#
#   bench/hfsplus_read.sh BUILD_DIR [ROUNDS]        (ROUNDS: 3 if not given)
#
# Before any timing, what each way delivers is compared with what was put
# in, so a fast but wrong way is a failure, not a figure. Figures and
# ratios are reported, never enforced (see read_lib.sh).
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/read_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" xorriso fsck.hfsplus istat fls grub-fstest

WORK=$BUILD_DIR/bench-hfsplus-read
TREE=$WORK/tree
IMAGE=$WORK/hfsplus.img
FILE_MIB=256
ENTRIES=2000
LISTING_GOAL_MS=50
RAW_GOAL=0.8
GRUB_GOAL=5
BLOCK=2048
rm -rf "$WORK"
mkdir -p "$TREE/many" || exit 2

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$TREE/big.bin" || exit 2
EXPECTED=$(sha256sum <"$TREE/big.bin" | cut -d ' ' -f 1)
(cd "$TREE/many" && for i in $(seq -w 1 "$ENTRIES"); do : >"f$i"; done) || exit 2
EXPECTED_NAMES=$(for i in $(seq -w 1 "$ENTRIES"); do echo "f$i"; done | sort | sha256sum | cut -d ' ' -f 1)
"$HERE/../tests/images/hfsplus_from_folder.sh" "$TREE" "$IMAGE" "$BLOCK" BENCH || exit 2
rm -rf "$TREE"

# The file's blocks as sleuthkit lists them; xorriso writes it in one run.
BIG_ID=$(fls -f hfs "$IMAGE" | awk '$NF == "big.bin" { sub(":", "", $2); print $2 }')
# istat lists blocks one by one, or as ranges "FIRST-LAST".
istat -f hfs "$IMAGE" "$BIG_ID" | sed -n '/^Data Fork Blocks:/,/^$/p' | tr -s ' \t' '\n' |
    awk -F - '/^[0-9]+(-[0-9]+)?$/ { last = NF == 2 ? $2 : $1; for (b = $1; b <= last; b++) print b }' >"$WORK/blocks"
FIRST_BLOCK=$(head -n 1 "$WORK/blocks")
BLOCKS=$(wc -l <"$WORK/blocks")
if [ "$(tail -n 1 "$WORK/blocks")" != "$((FIRST_BLOCK + BLOCKS - 1))" ]; then
    echo "big.bin is not one run of blocks; the raw read would be wrong" >&2
    exit 2
fi

WHAT=cat
read_way() {
    case $WHAT:$1 in
        cat:morvane) "$TOOL" fs "$IMAGE" cat /big.bin ;;
        cat:grub) grub-fstest "$IMAGE" cat /big.bin ;;
        cat:raw)
            dd if="$IMAGE" bs=1M iflag=skip_bytes,count_bytes skip="$((FIRST_BLOCK * BLOCK))" \
                count="$((FILE_MIB * 1048576))" status=none
            ;;
        ls:morvane) "$TOOL" fs "$IMAGE" ls -l /many ;;
    esac
}

# The long listing ends each line with the name: only the names that were
# made count.
canonical() {
    if [ "$WHAT" = ls ]; then
        awk '{ print $NF }' | grep -x 'f[0-9]*' | sort
    else
        cat
    fi
}

seconds_in() {
    grep -F "  $2:" "$1" | grep -o '[0-9.]* s)\?$' | grep -o '^[0-9.]*'
}

cat "$IMAGE" >/dev/null
LABEL=([morvane]='morvane fs IMAGE cat (our HFS+ driver)' [grub]='grub-fstest IMAGE cat'
       [raw]="dd of the file's extent")
measure_ways "Reading a $FILE_MIB MiB file from an HFS+ image (2 KiB blocks, page cache warm)" \
    "$FILE_MIB" "$EXPECTED" morvane grub raw

WHAT=ls
LABEL=([morvane]='morvane fs IMAGE ls -l /many (our HFS+ driver)')
measure_ways "Listing a directory of $ENTRIES entries in the long form" "" "$EXPECTED_NAMES" morvane \
    >"$WORK/report"
cat "$WORK/report"
listing=$(seconds_in "$WORK/report" "${LABEL[morvane]}")
if [ -n "$listing" ]; then
    awk -v s="$listing" -v goal="$LISTING_GOAL_MS" 'BEGIN {
        printf "  our listing: %.1f ms   (goal under %d ms: %s)\n", s * 1000, goal, s * 1000 < goal ? "met" : "not met" }'
fi

rm -f "$IMAGE"
bench_summary
