#!/bin/bash
# Makes an HFS+ volume holding a folder's contents, without our own code:
# xorriso's HFS+ writer makes a hybrid image whose Apple partition map
# names the HFS+ volume (type Apple_HFS); the volume is cut out of it,
# exactly as long as its header's totalBlocks x blockSize say (the
# alternate header lies 1 KiB before that end), and fsck.hfsplus repairs
# what the cut leaves until a check finds nothing. Files come out
# contiguous, and hard links don't exist.
#
#   hfsplus_from_folder.sh FOLDER VOLUME [BLOCK_SIZE] [LABEL]   (512 or 2048)
set -eu
folder=$1 volume=$2 block=${3:-2048} label=${4:-MORVANE}
iso=$volume.iso
rm -f "$iso" "$volume"
trap 'rm -f "$iso"' EXIT

xorriso -outdev "$iso" -volid "$label" -hfsplus on -boot_image any "hfsplus_block_size=$block" \
    -map "$folder" / >"$volume.log" 2>&1 || { cat "$volume.log" >&2; rm -f "$volume.log"; exit 1; }
rm -f "$volume.log"

# be FILE OFFSET BYTES: a big-endian number of the file.
be() { od -An -v -tu1 -j "$2" -N "$3" "$1" | awk '{ for (i = 1; i <= NF; i++) n = n * 256 + $i } END { print n }'; }

map_block=$(be "$iso" 2 2)
start= count=
for entry in 1 2 3 4 5 6 7 8; do
    at=$((entry * map_block))
    [ "$(head -c $((at + 2)) "$iso" | tail -c 2)" = PM ] || break
    if [ "$(dd if="$iso" bs=1 skip=$((at + 48)) count=9 status=none)" = Apple_HFS ]; then
        start=$(($(be "$iso" $((at + 8)) 4) * map_block))
        break
    fi
done
[ -n "$start" ] || { echo "no Apple_HFS partition in xorriso's image" >&2; exit 1; }
block_size=$(be "$iso" $((start + 1024 + 40)) 4)
total_blocks=$(be "$iso" $((start + 1024 + 44)) 4)
count=$((block_size * total_blocks))
dd if="$iso" of="$volume" bs=64K iflag=skip_bytes,count_bytes skip="$start" count="$count" status=none
for _ in 1 2 3; do
    fsck.hfsplus -fn "$volume" >/dev/null 2>&1 && exit 0
    fsck.hfsplus -fy "$volume" >/dev/null 2>&1 || true
done
fsck.hfsplus -fn "$volume" >&2
