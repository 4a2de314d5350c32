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
# "N passed, M failed", a way passing when its bytes were right.
set -u

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 BUILD_DIR [ROUNDS]" >&2
    exit 2
fi
BUILD_DIR=$(cd "$1" && pwd) || exit 2
ROUNDS=${2:-3}
case $ROUNDS in
    ''|*[!0-9]*|0) echo "ROUNDS must be a positive number" >&2; exit 2 ;;
esac
TOOL=$BUILD_DIR/morvane
for needed in "$TOOL" mkfs.fat mcopy grub-fstest; do
    if ! command -v "$needed" >/dev/null; then
        echo "missing $needed: build first (make) and install the tools (make deps)" >&2
        exit 2
    fi
done

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

WAYS=(morvane grub raw)
declare -A LABEL=(
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

# seconds_of WAY: the wall-clock seconds of one read into /dev/null.
seconds_of() {
    local start end
    start=$EPOCHREALTIME
    read_way "$1" >/dev/null 2>"$WORK/$1.err"
    end=$EPOCHREALTIME
    awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f\n", e - s }'
}

# Warm the page cache with the whole image.
cat "$IMAGE" >/dev/null

passed=0
failed=0
declare -A RIGHT
for way in "${WAYS[@]}"; do
    got=$(read_way "$way" 2>"$WORK/$way.err" | sha256sum | cut -d ' ' -f 1)
    if [ "$got" = "$EXPECTED" ]; then
        RIGHT[$way]=1
        passed=$((passed + 1))
    else
        RIGHT[$way]=0
        failed=$((failed + 1))
        echo "  ${LABEL[$way]}: wrong bytes (sha256 $got, expected $EXPECTED): $(head -c 300 "$WORK/$way.err")"
    fi
done

echo "Reading a $FILE_MIB MiB file from a FAT32 image ($((cluster_bytes / 1024)) KiB clusters, page cache warm), best of $ROUNDS rounds:"
declare -A BEST
for _ in $(seq "$ROUNDS"); do
    for way in "${WAYS[@]}"; do
        [ "${RIGHT[$way]}" -eq 1 ] || continue
        seconds=$(seconds_of "$way")
        BEST[$way]=$(awk -v a="${BEST[$way]-}" -v b="$seconds" 'BEGIN { print (a == "" || b < a) ? b : a }')
    done
done

# speed WAY: MiB/s of the way's best round.
speed() {
    awk -v s="${BEST[$1]}" -v m="$FILE_MIB" 'BEGIN { printf "%.1f", m / s }'
}

for way in "${WAYS[@]}"; do
    if [ "${RIGHT[$way]}" -eq 1 ]; then
        printf '  %-40s %8s MiB/s  (%.3f s)\n' "${LABEL[$way]}:" "$(speed "$way")" "${BEST[$way]}"
    else
        printf '  %-40s failed\n' "${LABEL[$way]}:"
    fi
done
if [ "${RIGHT[morvane]}" -eq 1 ]; then
    for other in raw grub; do
        [ "${RIGHT[$other]}" -eq 1 ] || continue
        awk -v a="${BEST[$other]}" -v b="${BEST[morvane]}" -v name="$other" 'BEGIN {
            ratio = a / b
            if (name == "raw") goal = sprintf("goal at least 0.50: %s", ratio >= 0.5 ? "met" : "not met")
            else goal = sprintf("goal well ahead, 1.5 or more: %s", ratio >= 1.5 ? "met" : "not met")
            printf "  our driver over %-14s %6.2f   (%s)\n", (name == "raw" ? "the raw read:" : "grub-fstest:"), ratio, goal }'
    done
fi
rm -f "$IMAGE"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
