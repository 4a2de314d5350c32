#!/bin/sh
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The FAT matrix: one image per (FAT type x sector size x cluster size),
# made by mkfs.fat and filled by mtools. For each, what `morvane fs` lists
# and copies out must equal what mtools copies out (names, kinds, sizes,
# modification times, SHA-256 of every file); then every write through
# `morvane fs` is followed by `fsck.fat -n`, which must find nothing, and by
# reading the result back with mtools.
#
#   fat_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
. "$here/fat_content.sh"
matrix=fat
matrix_start "$@"
export MTOOLS_SKIP_CHECK=1 MTOOLS_NO_VFAT=0
# mcopy keeps the times of files, not of directories.
listing_directory_times=no

columns='fat sector cluster_sectors size wide'
# name            fat sector cluster-sectors size-KiB wide
cases='
fat12-512-c1      12  512    1               2048     no
fat12-512-c4      12  512    4               6144     no
fat12-4096-c1     12  4096   1               8192     no
fat16-512-c4      16  512    4               32768    yes
fat16-512-c64     16  512    64              262144   no
fat16-4096-c2     16  4096   2               65536    no
fat32-512-c1      32  512    1               40960    yes
fat32-512-c8      32  512    8               307200   no
fat32-4096-c1     32  4096   1               307200   no
'

copy_out_theirs() { mcopy -s -m -n -i "$image" '::/*' "$1/"; }

copy_out_ours() { fs cp-out -r / "$1" || fail "cp-out -r / failed"; }

fsck_clean() {
    report=$(fsck.fat -n "$image" 2>&1)
    status=$?
    lines=$(printf '%s\n' "$report" | wc -l)
    if [ $status -ne 0 ] || [ "$lines" -gt 2 ]; then fail "fsck.fat after $1: $report"; fi
}

# The file PATH on the image, read by mtools, has the bytes of HOST.
mtools_reads() {
    mcopy -n -i "$image" "::$1" "$work/back" 2>/dev/null && cmp -s "$work/back" "$2" ||
        fail "$3: mtools does not read $1 back as written"
    rm -f "$work/back"
}

mtools_misses() {
    if mdir -i "$image" "::$1" >/dev/null 2>&1; then fail "$2: mtools still finds $1"; fi
}

check_writing() {
    host="$work/host"
    mkdir -p "$host"
    head -c 1000 /dev/urandom > "$host/first"
    head -c $((cluster * 3 + 17)) /dev/urandom > "$host/grown"
    printf 'tiny' > "$host/shrunk"

    fs mkdir /w || fail "mkdir /w"
    fsck_clean "mkdir"
    mdir -i "$image" ::/w >/dev/null 2>&1 || fail "mkdir: mtools does not find /w"

    fs cp-in "$host/first" "/w/new file.bin" || fail "cp-in of a new file"
    fsck_clean "create"
    mtools_reads "/w/new file.bin" "$host/first" "create"

    fs cp-in "$host/grown" "/w/new file.bin" || fail "cp-in over a smaller file"
    fsck_clean "grow"
    mtools_reads "/w/new file.bin" "$host/grown" "grow"

    fs cp-in "$host/shrunk" "/w/new file.bin" || fail "cp-in over a larger file"
    fsck_clean "shrink"
    mtools_reads "/w/new file.bin" "$host/shrunk" "shrink"

    fs mv "/w/new file.bin" "/w/Renamed ü file.bin" || fail "mv within a directory"
    fsck_clean "rename"
    mtools_reads "/w/Renamed ü file.bin" "$host/shrunk" "rename"
    mtools_misses "/w/new file.bin" "rename"

    fs mv "/w/Renamed ü file.bin" /case || fail "mv into another directory"
    fsck_clean "move"
    mtools_reads "/case/Renamed ü file.bin" "$host/shrunk" "move"

    fs mv /case/Mixed.Txt /case/MIXED.txt || fail "mv to the same name in another case"
    fsck_clean "case rename"
    [ "$(mdir -i "$image" -b ::/case | grep -ci 'mixed')" -eq 1 ] || fail "case rename: not one entry left"
    mdir -i "$image" ::/case | grep -q 'MIXED.txt' || fail "case rename: mtools shows no MIXED.txt"

    touch -d '2011-11-11 11:11:12' "$host/first"
    fs cp-in -p "$host/first" /w/kept.bin || fail "cp-in -p"
    fsck_clean "cp-in -p"
    mcopy -m -n -i "$image" ::/w/kept.bin "$work/kept" && [ "$(stat -c %Y "$work/kept")" = "$(stat -c %Y "$host/first")" ] ||
        fail "cp-in -p: mtools shows another modification time"
    rm -f "$work/kept"

    fs rm /w/kept.bin "/case/Renamed ü file.bin" || fail "rm of files"
    fsck_clean "delete"
    mtools_misses /w/kept.bin "delete"
    mtools_misses "/case/Renamed ü file.bin" "delete"

    fs rm /w || fail "rm of an empty directory"
    fsck_clean "directory delete"
    mtools_misses /w "directory delete"
    rm -rf "$host"
}

# The volume filled by mtools until two clusters are left: mkdir takes one,
# a copy that needs three is refused, and the volume stays clean throughout.
check_full_volume() {
    free=$(mdir -i "$image" ::/ | sed -n 's/ bytes free//p' | tr -cd '0-9')
    head -c $((free - 2 * cluster)) /dev/zero > "$work/filler"
    mcopy -i "$image" "$work/filler" ::/filler.bin || { fail "mtools could not fill the volume"; return; }
    rm -f "$work/filler"
    fs mkdir /nearly-full || fail "mkdir on a nearly full volume"
    fsck_clean "mkdir on a nearly full volume"
    mdir -i "$image" ::/nearly-full >/dev/null 2>&1 || fail "nearly full: mtools does not find the directory"
    head -c $((cluster * 3)) /dev/urandom > "$work/too-big"
    fs cp-in "$work/too-big" /too-big.bin 2>/dev/null
    [ $? -eq 1 ] || fail "a copy larger than the free space is not refused with status 1"
    mtools_misses /too-big.bin "a refused copy"
    fsck_clean "a refused copy on a full volume"
    fs rm /filler.bin || fail "rm of the filler"
    fsck_clean "freeing the filler"
    rm -f "$work/too-big"
}

make_case_image() {
    cluster=$((sector * cluster_sectors))
    fs_options="--sector-size $sector"
    tree="$work/tree-$cluster-$wide"
    [ -d "$tree" ] || make_tree "$tree" "$cluster" "$wide"
    make_image "$image" "$fat" "$sector" "$cluster_sectors" "$size" "$tree" && add_fragmented_file "$image" "$cluster"
}

check_case() {
    fsck_clean "making the image"
    check_info "FAT$fat" "$cluster" read-write "$(mdir -i "$image" ::/ | sed -n 's/ bytes free//p' | tr -cd '0-9')"
    check_reading
    check_writing
    check_full_volume
}

run_matrix
