# shellcheck shell=bash
# GPT disks for the end-to-end runs, made by sgdisk, with FAT volumes made
# by mkfs.fat straight into their partitions and filled by mtools through
# the image@@offset form, and ext and NTFS volumes made in a file of the
# partition's size and copied into place. Sourced by gpt_scenarios.sh,
# after kernel_lib.sh, whose copy_into_fat fills the FAT ones.

# make_gpt_layout IMAGE SIZE_MIB [TYPE:SIZE_MIB:UNIQUE_GUID]...: a zeroed
# (sparse) disk of SIZE_MIB with one partition per argument, in order, from
# sgdisk's first aligned sector on. TYPE is sgdisk's short code (EF00 for an
# EFI system partition, 0700 for a basic data one). Each partition starts
# out zeroed: no file system until fill_fat_partition makes one.
make_gpt_layout() {
    local image=$1 size=$2 number=0 part type rest
    local -a arguments=(-o)
    shift 2
    rm -f "$image"
    truncate -s "${size}M" "$image" || return 1
    for part in "$@"; do
        number=$((number + 1))
        type=${part%%:*}
        rest=${part#*:}
        arguments+=(-n "$number:0:+${rest%%:*}M" -t "$number:$type" -u "$number:${rest#*:}")
    done
    # One run writes the whole table. -q stays out: with it this sgdisk
    # silently writes nothing.
    sgdisk "${arguments[@]}" "$image" >"$image.sgdisk" 2>&1 || { cat "$image.sgdisk" >&2; return 1; }
    rm -f "$image.sgdisk"
}

# partition_sectors IMAGE N: "FIRST LAST", the LBAs of partition N.
partition_sectors() {
    sgdisk -i "$2" "$1" | sed -n -e 's/^First sector: \([0-9]*\).*/\1/p' -e 's/^Last sector: \([0-9]*\).*/\1/p' |
        paste -s -d ' '
}

# fill_fat_partition IMAGE N FAT_BITS [HOST_FILE PATH]...: a FAT volume of
# FAT_BITS (12, 16 or 32; empty lets mkfs.fat choose) over the whole of
# partition N, holding each HOST_FILE at PATH (mtools form, ::/A/B; folders
# are made as needed).
fill_fat_partition() {
    local image=$1 number=$2 bits=$3 first last offset
    local -a format=()
    shift 3
    read -r first last <<<"$(partition_sectors "$image" "$number")"
    if [ -z "$first" ] || [ -z "$last" ]; then
        echo "no partition $number on $image" >&2
        return 1
    fi
    [ -z "$bits" ] || format=(-F "$bits")
    # The block count is in KiB; --offset keeps the volume inside the
    # partition and records its start as the hidden sectors. mkfs.fat warns
    # that the count is not the whole file's: that is the point, so its
    # words are shown only when it fails.
    if ! mkfs.fat "${format[@]}" --offset "$first" "$image" $(((last - first + 1) / 2)) >"$image.mkfs" 2>&1; then
        cat "$image.mkfs" >&2
        return 1
    fi
    rm -f "$image.mkfs"
    offset=$((first * 512))
    copy_into_fat "$image@@$offset" "$@"
}

# fill_ext_partition IMAGE N MKFS FOLDER: an ext volume made by MKFS (e.g.
# mkfs.ext4) from the contents of FOLDER (mke2fs -d), over the whole of
# partition N. The volume is made in a file of its own, the partition's
# size, and then copied into place: no offset form of mke2fs is needed.
fill_ext_partition() {
    local image=$1 number=$2 mkfs=$3 folder=$4 first last volume
    read -r first last <<<"$(partition_sectors "$image" "$number")"
    if [ -z "$first" ] || [ -z "$last" ]; then
        echo "no partition $number on $image" >&2
        return 1
    fi
    volume=$image.part$number
    rm -f "$volume"
    truncate -s $(((last - first + 1) * 512)) "$volume" || return 1
    if ! "$mkfs" -q -F -d "$folder" "$volume" >"$image.mkfs" 2>&1; then
        cat "$image.mkfs" >&2
        rm -f "$volume"
        return 1
    fi
    rm -f "$image.mkfs"
    dd if="$volume" of="$image" bs=1M seek="$((first * 512))" oflag=seek_bytes conv=notrunc,sparse status=none
    local status=$?
    rm -f "$volume"
    return $status
}

# fill_ntfs_partition IMAGE N [HOST_FILE NAME]...: an NTFS volume made by
# mkntfs over the whole of partition N, holding each HOST_FILE as NAME in
# its root (ntfscp makes no folders). The volume is made in a file of its
# own, the partition's size, and then copied into place; -p records the
# partition's start in the boot sector, as Windows expects it there.
fill_ntfs_partition() {
    local image=$1 number=$2 first last volume status=0
    shift 2
    read -r first last <<<"$(partition_sectors "$image" "$number")"
    if [ -z "$first" ] || [ -z "$last" ]; then
        echo "no partition $number on $image" >&2
        return 1
    fi
    volume=$image.part$number
    rm -f "$volume"
    truncate -s $(((last - first + 1) * 512)) "$volume" || return 1
    if ! mkntfs -F -f -q -s 512 -p "$first" "$volume" >"$image.mkfs" 2>&1; then
        cat "$image.mkfs" >&2
        rm -f "$volume"
        return 1
    fi
    while [ $# -ge 2 ] && [ $status -eq 0 ]; do
        ntfscp -q "$volume" "$1" "$2" >"$image.mkfs" 2>&1 || { cat "$image.mkfs" >&2; status=1; }
        shift 2
    done
    rm -f "$image.mkfs"
    [ $status -ne 0 ] ||
        dd if="$volume" of="$image" bs=1M seek="$((first * 512))" oflag=seek_bytes conv=notrunc,sparse status=none ||
        status=1
    rm -f "$volume"
    return $status
}

# fill_hfsplus_partition IMAGE N [HOST_FILE PATH]...: an HFS+ volume made by
# xorriso's HFS+ writer (tests/images/hfsplus_from_folder.sh) holding each
# HOST_FILE at PATH (folders are made as needed), in partition N. The
# volume's size is what xorriso makes of the files, and the alternate
# volume header is found 1 KiB before the partition's end, so partition N
# is made again from the same first sector, with the same type and unique
# GUID, exactly as long as the volume.
GPT_DISK_HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
fill_hfsplus_partition() {
    local image=$1 number=$2 first last tree volume sectors type guid status=0
    shift 2
    read -r first last <<<"$(partition_sectors "$image" "$number")"
    if [ -z "$first" ] || [ -z "$last" ]; then
        echo "no partition $number on $image" >&2
        return 1
    fi
    tree=$image.tree$number
    volume=$image.part$number
    rm -rf "$tree" "$volume"
    while [ $# -ge 2 ]; do
        mkdir -p "$(dirname "$tree/$2")" || return 1
        ln -f "$1" "$tree/$2" 2>/dev/null || cp "$1" "$tree/$2" || return 1
        shift 2
    done
    "$GPT_DISK_HERE/../images/hfsplus_from_folder.sh" "$tree" "$volume" 2048 MORVANE || status=1
    rm -rf "$tree"
    [ $status -eq 0 ] || return 1
    sectors=$(($(stat -c %s "$volume") / 512))
    if [ "$sectors" -gt $((last - first + 1)) ]; then
        echo "the HFS+ volume ($sectors sectors) doesn't fit partition $number" >&2
        rm -f "$volume"
        return 1
    fi
    type=$(sgdisk -i "$number" "$image" | sed -n 's/^Partition GUID code: \([0-9A-Fa-f-]*\).*/\1/p')
    guid=$(sgdisk -i "$number" "$image" | sed -n 's/^Partition unique GUID: \([0-9A-Fa-f-]*\).*/\1/p')
    sgdisk -d "$number" -n "$number:$first:$((first + sectors - 1))" -t "$number:$type" -u "$number:$guid" \
        "$image" >"$image.sgdisk" 2>&1 || { cat "$image.sgdisk" >&2; status=1; }
    rm -f "$image.sgdisk"
    [ $status -ne 0 ] ||
        dd if="$volume" of="$image" bs=1M seek="$((first * 512))" oflag=seek_bytes conv=notrunc,sparse status=none ||
        status=1
    rm -f "$volume"
    return $status
}
