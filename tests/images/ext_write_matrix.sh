#!/bin/sh
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The ext write matrix: one image per row, made by mke2fs -d from a host
# tree (its larger directory indexed by e2fsck -D where the row has
# dir_index), then changed step by step through `morvane fs`: empty and
# multi-megabyte files, files grown across the ends of the direct and
# single-indirect ranges of a block map, shortened to zero and into the
# middle of a block, a volume filled until a copy is refused, a file forced
# into many fragments (an extent tree of two levels), a deep tree, linear
# and indexed directories grown over several blocks, renames within and
# across directories, a rename over an existing name (refused with
# FILE_EXISTS, the image byte-identical), and deletions.
#
# The same steps change a host copy of the tree. After every step
# `e2fsck -fn` must find nothing, and what debugfs dumps and what `morvane
# fs cp-out` copies out must both equal that copy: names, kinds, sizes and
# SHA-256 of every file (times aside: the host copy's are its own).
#
#   ext_write_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
matrix=ext-write
matrix_start "$@"
. "$here/mirror_lib.sh"

columns='mkfs block size feature_list'
# name            mkfs  block size-MiB -O features
cases='
ext2-1k-linear    ext2  1024  8        ^dir_index
ext2-1k           ext2  1024  8        -
ext3-4k           ext3  4096  24       -
ext4-1k           ext4  1024  8        ^metadata_csum
ext4-4k           ext4  4096  24       ^metadata_csum
ext4-4k-journalless ext4 4096 24       ^metadata_csum,^has_journal
'

# The tree every image starts from: a few files, a directory that stays
# linear, and one of 40 long names, over a block even of 4 KiB, which
# e2fsck -D indexes.
start_tree() {
    mkdir -p "$1/dir" "$1/linear" "$1/indexed"
    printf 'hello\n' > "$1/hello.txt"
    printf 'a\n' > "$1/dir/a.txt"
    head -c 5000 /dev/urandom > "$1/dir/b.bin"
    printf 'one\n' > "$1/linear/one"
    for number in $(seq -w 1 40); do : > "$1/indexed/$(printf 'name-%s-%0110d' "$number" 0)"; done
}

make_case_image() {
    tree="$work/tree"
    [ -d "$tree" ] || { mkdir "$tree" && start_tree "$tree"; }
    rm -rf "$work/mirror"
    cp -a "$tree" "$work/mirror"
    truncate -s "${size}M" "$image"
    features=
    [ "$feature_list" = "-" ] || features="-O $feature_list"
    # No blocks reserved for the superuser: the fill step counts on every
    # free block being one that a copy may take.
    # shellcheck disable=SC2086
    mke2fs -q -F -t "$mkfs" -b "$block" -m 0 $features -L "$case_name" -d "$tree" -E root_owner=0:0 \
        "$image" >"$work/mkfs.log" 2>&1 || { cat "$work/mkfs.log"; return 1; }
    e2fsck -fyD "$image" >/dev/null 2>&1
    [ $? -le 1 ]
}

# The image holds what its row claims to test.
check_shape() {
    dumpe2fs -h "$image" 2>/dev/null > "$work/super"
    grep -q "^Block size:[[:space:]]*$block\$" "$work/super" || fail "the blocks are not of $block bytes"
    indexed=no
    debugfs -R 'htree /indexed' "$image" 2>/dev/null | grep -q 'Number of entries' && indexed=yes
    case $feature_list in
        *dir_index*) [ $indexed = no ] || fail "/indexed has a hash index on a volume without dir_index" ;;
        *) [ $indexed = yes ] || fail "/indexed has no hash index" ;;
    esac
    extents=no
    grep -q '^Filesystem features:.* extent' "$work/super" && extents=yes
    [ "$mkfs" != ext4 ] || [ $extents = yes ] || fail "the ext4 volume has no extents"
    [ "$mkfs" = ext4 ] || [ $extents = no ] || fail "the $mkfs volume has extents"
}

free_blocks() { dumpe2fs -h "$image" 2>/dev/null | sed -n 's/^Free blocks:[[:space:]]*//p'; }

# ---- judging ----

volume_names() {
    debugfs -R 'ls -p /' "$image" 2>/dev/null | awk -F/ 'NF >= 7 && $2 != 0 { print $6 }' |
        grep -v -x -e . -e .. -e lost+found
}

# settled STEP: e2fsck finds nothing, and debugfs and our driver both read
# the volume as the host copy holds it.
settled() {
    if ! e2fsck -fn "$image" > "$work/fsck" 2>&1; then
        fail "e2fsck after $1: $(grep -v -e '^Pass [0-9]' -e '^e2fsck ' "$work/fsck" | head -12)"
    fi
    rm -rf "$work/theirs" "$work/ours"
    mkdir "$work/theirs" "$work/ours"
    volume_names > "$work/names"
    sed "s#.*#rdump \"/&\" $work/theirs#" "$work/names" | debugfs -f - "$image" >/dev/null 2>&1
    : > "$work/cp.err"
    while IFS= read -r name; do
        fs cp-out -r "/$name" "$work/ours/$name" 2>>"$work/cp.err"
    done < "$work/names"
    [ ! -s "$work/cp.err" ] || fail "cp-out after $1: $(head -3 "$work/cp.err")"
    timeless_manifest "$mirror" > "$work/expected.manifest"
    timeless_manifest "$work/theirs" > "$work/theirs.manifest"
    timeless_manifest "$work/ours" > "$work/ours.manifest"
    same "after $1, debugfs and the host copy" "$work/expected.manifest" "$work/theirs.manifest"
    same "after $1, our driver and the host copy" "$work/expected.manifest" "$work/ours.manifest"
    rm -rf "$work/theirs" "$work/ours"
}

# ---- the steps ----

# Sizes that end on and just past the last direct block (12) and the last
# single-indirect block (12 + block/4) of a block map; extent rows take the
# same sizes. Then shorter copies over longer files: to zero, and into the
# middle of a block.
sizes_and_truncation() {
    per_block=$((block / 4))
    make_dirs /new
    settled "mkdir"
    put "$(host_file empty 0)" /new/empty
    settled "an empty file"
    put "$(host_file big 3145728)" /new/big.bin
    settled "a 3 MiB file"
    for blocks in 12 13 $((12 + per_block)) $((13 + per_block)); do
        put "$(host_file grown $((blocks * block)))" /new/grown.bin
        settled "a file of $blocks blocks"
    done
    put "$(host_file last-byte $(((12 + per_block) * block + 1)))" /new/grown.bin
    settled "a file one byte into the double-indirect range"
    put "$work/empty" /new/big.bin
    settled "truncating a 3 MiB file to zero"
    put "$(host_file middle $((3 * block + block / 2)))" /new/grown.bin
    settled "truncating into the middle of a block"
}

# Nearly every free block taken by one file, the rest by files of two
# blocks until a copy is refused as the disk being full; a file removed and
# copied again; then every other small file removed, so that a file of
# 24 blocks has only two-block holes to go to.
fill_and_fragment() {
    make_dirs /full
    per_block=$((block / 4))
    free=$(free_blocks)
    filler=$(((free - 160) * per_block / (per_block + 1)))
    put "$(host_file filler $((filler * block)))" /full/filler.bin
    settled "a file over most of the volume"
    count=0
    while [ $count -lt 400 ]; do
        count=$((count + 1))
        chaff=$(printf '/full/c%03d' $count)
        head -c $((2 * block)) /dev/urandom > "$work/chaff"
        fs cp-in "$work/chaff" "$chaff" 2>"$work/err" || break
        cp "$work/chaff" "$mirror$chaff"
    done
    [ $count -gt 8 ] || fail "the volume took only $count small files: $(cat "$work/err")"
    # The last copy may find one block or none: a short write or a refusal.
    grep -q -e 'FILE_DISK_FULL' -e 'fewer bytes' "$work/err" || fail "the copy onto a full volume: $(cat "$work/err")"
    settled "a copy refused on a full volume"
    # One block again: the other may go to the directory, which may have to
    # grow for the new name.
    remove /full/c001
    put "$(host_file one-block "$block")" /full/again
    settled "a copy after a removal on a full volume"
    odd=
    number=3
    while [ $number -lt $count ]; do odd="$odd $(printf '/full/c%03d' $number)"; number=$((number + 2)); done
    # shellcheck disable=SC2086
    remove $odd
    settled "removing every other small file"
    put "$(host_file fragments $((24 * block)))" /full/fragments.bin
    settled "a file in 24 blocks of two-block holes"
    if [ "$extents" = yes ]; then
        debugfs -R 'ex /full/fragments.bin' "$image" 2>/dev/null | grep -q '^ *0/ *[1-9]' ||
            fail "the fragmented file's extent tree has one level: $(debugfs -R 'ex /full/fragments.bin' "$image" 2>/dev/null | head -4)"
    fi
    remove /full/filler.bin
    settled "removing the large file"
}

# Twenty directories, one below the other, made by one call.
deep_tree() {
    path=/deep
    paths=$path
    for level in $(seq 1 20); do path="$path/level$level"; paths="$paths $path"; done
    # shellcheck disable=SC2086
    make_dirs $paths
    put "$work/middle" "$path/bottom.bin"
    settled "a tree twenty directories deep"
}

# A linear directory and the indexed one, grown by entries of 200-byte
# names until they span several blocks; some are files, most directories.
wide_directories() {
    for directory in /linear /indexed; do
        entries=$((3 * block / 208 + 4))
        names=
        for number in $(seq 1 "$entries"); do
            names="$names $directory/$(printf 'entry-%03d-%0190d' "$number" 0)"
        done
        # shellcheck disable=SC2086
        make_dirs $names
        for number in 1 2 3 4 5; do put "$work/chaff" "$directory/file-$number-$(printf '%080d' 0)"; done
        settled "$entries entries more in $directory"
        listed=$(fs ls "$directory" 2>/dev/null | wc -l)
        [ "$listed" -eq "$(find "$mirror$directory" -mindepth 1 -maxdepth 1 | wc -l)" ] ||
            fail "ls $directory lists $listed entries"
    done
    dir_size=$(debugfs -R 'stat /linear' "$image" 2>/dev/null | sed -n 's/.*Size: \([0-9]*\).*/\1/p' | head -1)
    [ "${dir_size:-0}" -ge $((3 * block)) ] || fail "/linear spans ${dir_size:-no} bytes, not three blocks"
}

# A rename within a directory and one to a name of 255 bytes, moves of a
# file and of a directory into another, and renames of a file and of a
# directory over existing files, refused with FILE_EXISTS and leaving every
# byte as it was.
renames() {
    move /dir/a.txt "/dir/renamed a.txt"
    settled "a rename within a directory"
    move "/dir/renamed a.txt" "/dir/$(printf 'long-%0250d' 0)"
    settled "a rename to a name of 255 bytes"
    move /new/grown.bin /dir
    settled "a move into another directory"
    move /deep/level1/level2 /linear
    settled "a move of a directory into another"
    keep_image
    code=0x40013
    attempt mv /hello.txt /dir/grown.bin
    attempt mv /new/big.bin /dir/b.bin
    attempt mv /new /hello.txt
    image_unchanged "a rename over an existing name"
}

# Files, empty directories, a deep tree from the bottom up, and whole
# directories emptied and removed; a directory that still holds entries is
# refused and left as it was.
deletions() {
    keep_image
    if fs rm /deep > "$work/out" 2>&1; then fail "rm of a directory that holds entries was not refused"; fi
    image_unchanged "a refused rm"
    remove /hello.txt /dir/b.bin /new/empty
    settled "removing files"
    levels=$(cd "$mirror" && find linear/level2 -depth -printf '/%p ')
    # shellcheck disable=SC2086
    remove $levels /deep/level1 /deep
    settled "removing a deep tree from the bottom up"
    full=$(cd "$mirror" && find full -depth -printf '/%p ')
    # shellcheck disable=SC2086
    remove $full
    settled "removing a directory of files"
}

check_case() {
    check_shape
    settled "making the image"
    sizes_and_truncation
    fill_and_fragment
    deep_tree
    wide_directories
    renames
    deletions
}

run_matrix
