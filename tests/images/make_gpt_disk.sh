#!/bin/sh
# Makes a GPT disk image with sgdisk, with chosen unique partition GUIDs.
#
#   make_gpt_disk.sh IMAGE SIZE_MIB [PART_SIZE_MIB:UNIQUE_GUID]...
#
# Partitions follow each other from sgdisk's first aligned sector, of type
# "Linux filesystem". The first sector of partition N is filled with the
# text "partition N" (dd, padded with zero bytes), so a reader can tell the
# partitions apart. Prints one line per partition: "N FIRST_LBA LAST_LBA".
set -eu
[ $# -ge 2 ] || { echo "usage: $0 IMAGE SIZE_MIB [PART_SIZE_MIB:UNIQUE_GUID]..." >&2; exit 2; }
image=$1
size=$2
shift 2
rm -f "$image"
truncate -s "${size}M" "$image"
# One sgdisk run for the whole table: each run that writes waits a second
# for the kernel to reread the table. -q is left out on purpose: with it
# this sgdisk silently writes nothing.
arguments="-o"
number=0
for layout in "$@"; do
    number=$((number + 1))
    part_size=${layout%%:*}
    guid=${layout#*:}
    arguments="$arguments -n $number:0:+${part_size}M -t $number:8300 -u $number:$guid"
done
# shellcheck disable=SC2086
sgdisk $arguments "$image" >/dev/null
number=0
for layout in "$@"; do
    number=$((number + 1))
    first=$(sgdisk -i "$number" "$image" | sed -n 's/^First sector: \([0-9]*\).*/\1/p')
    last=$(sgdisk -i "$number" "$image" | sed -n 's/^Last sector: \([0-9]*\).*/\1/p')
    printf 'partition %d' "$number" | dd of="$image" bs=512 seek="$first" conv=notrunc status=none
    echo "$number $first $last"
done
