#!/bin/bash
# Read speed on an NTFS image made by mkntfs and filled over an ntfs-3g
# mount, in one run:
#   - a 256 MiB file of random bytes, four ways:
#       our NTFS driver on the host:  morvane fs IMAGE cat /big.bin
#       GRUB's reader:                grub-fstest IMAGE cat /big.bin
#       ntfs-3g:                      mount, cat, unmount (FUSE)
#       the raw bytes of the file's runs, as ntfsinfo lists them: dd,
#       1 MiB blocks, one process per run
#   - a 64 MiB file of text in a compressed directory (LZNT1, 64 KiB
#     units), our driver and ntfs-3g;
#   - the long listing of a directory of 3,000 entries, our driver
#     (morvane fs IMAGE ls -l /many; goal: under 50 ms) and ntfs-3g
#     (mount, ls -l, unmount).
# The clusters are 4 KiB, the largest with which ntfs-3g compresses.
#
#   bench/ntfs_read.sh BUILD_DIR [ROUNDS]        (ROUNDS: 3 if not given)
#
# Before any timing, what each way delivers is compared with what was put
# in (the file's bytes; the directory's names, sorted), so a fast but wrong
# way is a failure, not a figure. Figures and ratios are reported, never
# enforced. Closing line: "N passed, M failed", a way passing when its
# output was right. Checking, timing and report come from read_lib.sh; the
# ratios over ntfs-3g and the listing's goal are worked out here from its
# report, which goes through a file so that its counts stay in this shell.
set -u

HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/read_lib.sh"
bench_arguments "$@"
bench_require "$TOOL" mkntfs ntfs-3g ntfsinfo setfattr grub-fstest

WORK=$BUILD_DIR/bench-ntfs-read
TREE=$WORK/tree
IMAGE=$WORK/ntfs.img
MOUNT=$WORK/mount
FILE_MIB=256
PACKED_MIB=64
ENTRIES=3000
LISTING_GOAL_MS=50
# Room for both files (the compressed one may be stored whole), the
# directory and the system files.
IMAGE_MIB=$((FILE_MIB + PACKED_MIB + 64))
rm -rf "$WORK"
mkdir -p "$TREE" "$MOUNT" || exit 2
trap 'mountpoint -q "$MOUNT" && umount "$MOUNT"' EXIT

head -c "$((FILE_MIB * 1048576))" /dev/urandom >"$TREE/big.bin" || exit 2
EXPECTED=$(sha256sum <"$TREE/big.bin" | cut -d ' ' -f 1)
seq -f 'line %09g of a text that compresses, with words that come back again and again' 1 2000000 |
    head -c "$((PACKED_MIB * 1048576))" >"$TREE/text.txt" || exit 2
EXPECTED_PACKED=$(sha256sum <"$TREE/text.txt" | cut -d ' ' -f 1)
EXPECTED_NAMES=$(for i in $(seq -w 1 "$ENTRIES"); do echo "f$i"; done | sort | sha256sum | cut -d ' ' -f 1)

truncate -s "${IMAGE_MIB}M" "$IMAGE" || exit 2
mkntfs -F -f -q -c 4096 "$IMAGE" >"$WORK/mkntfs.err" 2>&1 || { cat "$WORK/mkntfs.err" >&2; exit 2; }
ntfs-3g -o compression "$IMAGE" "$MOUNT" || exit 2
mkdir "$MOUNT/packed" "$MOUNT/many" || exit 2
setfattr -h -v 0x00000800 -n system.ntfs_attrib_be "$MOUNT/packed" || exit 2
cp "$TREE/big.bin" "$MOUNT/big.bin" && cp "$TREE/text.txt" "$MOUNT/packed/text.txt" || exit 2
(cd "$MOUNT/many" && for i in $(seq -w 1 "$ENTRIES"); do : >"f$i"; done) || exit 2
umount "$MOUNT" || exit 2
rm -rf "$TREE"

# run_list: "FIRST_BYTE BYTES" per run of /big.bin's data, in file order,
# the last cut to the file's size, from ntfsinfo's run list (VCN, LCN and
# length in clusters).
run_list() {
    local cluster vcn lcn length bytes done=0 total=$((FILE_MIB * 1048576))
    cluster=$(ntfsinfo -m "$IMAGE" 2>/dev/null | sed -n 's/^[[:space:]]*Cluster Size:[[:space:]]*\([0-9]*\).*/\1/p')
    ntfsinfo -v -F /big.bin "$IMAGE" 2>/dev/null | sed -n '/Runlist:/,$p' | sed 's/.*Runlist://' |
        grep -E '^[[:space:]]*0x[0-9a-f]+[[:space:]]+0x[0-9a-f]+[[:space:]]+0x[0-9a-f]+' |
        while read -r vcn lcn length; do
            bytes=$((length * ${cluster:-4096}))
            [ "$bytes" -le $((total - done)) ] || bytes=$((total - done))
            echo "$((lcn * ${cluster:-4096})) $bytes"
            done=$((done + bytes))
        done
}
run_list >"$WORK/runs"
RUNS=$(wc -l <"$WORK/runs")
PACKED_CLUSTERS=$(ntfsinfo -v -F /packed/text.txt "$IMAGE" 2>/dev/null | sed -n 's/.*Compressed size:[[:space:]]*\([0-9]*\).*/\1/p')

# What is measured: "cat" reads /big.bin, "packed" /packed/text.txt, "ls"
# lists /many in the long form.
WHAT=cat

# through_ntfs3g COMMAND...: runs the command in the mounted image and
# unmounts it again, all of it timed.
through_ntfs3g() {
    ntfs-3g -o ro "$IMAGE" "$MOUNT" || return 1
    (cd "$MOUNT" && "$@")
    umount "$MOUNT"
}

read_way() {
    case $WHAT:$1 in
        cat:morvane) "$TOOL" fs "$IMAGE" cat /big.bin ;;
        cat:grub) grub-fstest "$IMAGE" cat /big.bin ;;
        cat:ntfs3g) through_ntfs3g cat big.bin ;;
        cat:raw)
            local first bytes
            while read -r first bytes; do
                dd if="$IMAGE" bs=1M iflag=skip_bytes,count_bytes skip="$first" count="$bytes" status=none
            done <"$WORK/runs"
            ;;
        packed:morvane) "$TOOL" fs "$IMAGE" cat /packed/text.txt ;;
        packed:ntfs3g) through_ntfs3g cat packed/text.txt ;;
        ls:morvane) "$TOOL" fs "$IMAGE" ls -l /many ;;
        ls:ntfs3g) through_ntfs3g ls -l many ;;
    esac
}

# Both long listings end each line with the name: only the names that
# were made count.
canonical() {
    if [ "$WHAT" = ls ]; then
        awk '{ print $NF }' | grep -x 'f[0-9]*' | sort
    else
        cat
    fi
}

# seconds_in REPORT LABEL: the best time that measure_ways printed for the
# way, empty when it failed.
seconds_in() {
    grep -F "  $2:" "$1" | grep -o '[0-9.]* s)\?$' | grep -o '^[0-9.]*'
}

# report_over_ntfs3g REPORT: our driver's ratio over ntfs-3g (above 1:
# ours is faster).
report_over_ntfs3g() {
    local ours theirs
    ours=$(seconds_in "$1" "${LABEL[morvane]}")
    theirs=$(seconds_in "$1" "${LABEL[ntfs3g]}")
    [ -n "$ours" ] && [ -n "$theirs" ] || return 0
    awk -v a="$theirs" -v b="$ours" 'BEGIN { printf "  our driver over ntfs-3g:       %6.2f\n", a / b }'
}

cat "$IMAGE" >/dev/null
WHAT=cat
LABEL=([morvane]='morvane fs IMAGE cat (our NTFS driver)' [grub]='grub-fstest IMAGE cat'
       [ntfs3g]='ntfs-3g: mount, cat, unmount' [raw]="dd of the file's runs")
measure_ways "Reading a $FILE_MIB MiB file from an NTFS image (4 KiB clusters, $RUNS runs, page cache warm)" \
    "$FILE_MIB" "$EXPECTED" morvane grub ntfs3g raw >"$WORK/report"
cat "$WORK/report"
report_over_ntfs3g "$WORK/report"

WHAT=packed
LABEL=([morvane]='morvane fs IMAGE cat (our NTFS driver)' [ntfs3g]='ntfs-3g: mount, cat, unmount')
measure_ways "Reading a $PACKED_MIB MiB compressed text file (${PACKED_CLUSTERS:-?} bytes stored)" \
    "$PACKED_MIB" "$EXPECTED_PACKED" morvane ntfs3g >"$WORK/report"
cat "$WORK/report"
report_over_ntfs3g "$WORK/report"

WHAT=ls
LABEL=([morvane]='morvane fs IMAGE ls -l /many (our NTFS driver)' [ntfs3g]='ntfs-3g: mount, ls -l, unmount')
measure_ways "Listing a directory of $ENTRIES entries in the long form" "" "$EXPECTED_NAMES" morvane ntfs3g \
    >"$WORK/report"
cat "$WORK/report"
report_over_ntfs3g "$WORK/report"
listing=$(seconds_in "$WORK/report" "${LABEL[morvane]}")
if [ -n "$listing" ]; then
    awk -v s="$listing" -v goal="$LISTING_GOAL_MS" 'BEGIN {
        printf "  our listing: %.1f ms   (goal under %d ms: %s)\n", s * 1000, goal, s * 1000 < goal ? "met" : "not met" }'
fi

rm -f "$IMAGE"
bench_summary
