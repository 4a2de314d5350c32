#!/bin/sh
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The ext matrix: one image per row of the table below, made by mke2fs -d
# from a host tree (and, for a few rows, changed by debugfs or e2fsck). Each
# image is either read or refused, as the driver's feature policy says.
#
# A read image: what `morvane fs` lists, stats and copies out must equal
# what debugfs dumps (names, kinds, sizes, modification times, SHA-256 of
# every file, symbolic link targets). On a volume with features that the
# driver only reads, every change through `morvane fs` must then be refused
# with FILE_READ_ONLY, and the image must stay byte-identical and pass
# `e2fsck -fn`. Changes to writable volumes are the write matrix's
# (ext_write_matrix.sh).
#
# A refused image: `morvane fs` must find no driver for it, and leave it as
# it was.
#
#   ext_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
matrix=ext
matrix_start "$@"

columns='mkfs block inode size tree_kind after expect feature_list'
# name          mkfs  block inode size-MiB tree   after      expect  -O features
cases='
ext2-1k-i128    ext2  1024  128   8        legacy -          rw      ^dir_index
ext3-4k-hashed  ext3  4096  256   16       hashed reindex    rw      -
ext2-64k        ext2  65536 256   32       wide   emptied    rw      -
ext3-1k-i128    ext3  1024  128   8        legacy -          rw      -
ext4-debian     ext4  4096  256   32       large  -          ro      -
ext4-1k-extents ext4  1024  256   8        extent -          ro      -
ext4-no-csum    ext4  4096  256   32       large  -          rw      ^metadata_csum
ext4-csum-seed  ext4  4096  256   8        small  -          refuse  metadata_csum_seed
ext4-orphan     ext4  4096  256   8        small  -          ro      orphan_file
ext4-large-dir  ext4  4096  256   8        small  -          refuse  large_dir
ext4-inline     ext4  4096  256   8        small  -          refuse  inline_data
ext4-bigalloc   ext4  4096  256   16       small  -          refuse  bigalloc
ext4-casefold   ext4  4096  256   8        small  -          refuse  casefold
ext4-recover    ext4  4096  256   8        small  recover    refuse  -
'

# Files shared by every tree: a fast and a slow symbolic link, an empty
# file, names with spaces and beyond ASCII, a nested directory.
common_tree() {
    mkdir -p "$1/dir/nested deeper" "$1/empty dir"
    printf 'hello\n' > "$1/hello.txt"
    : > "$1/empty"
    head -c 70000 /dev/urandom > "$1/dir/random.bin"
    printf 'ü ñ\n' > "$1/dir/nested deeper/Ünïcödé näme.txt"
    ln -s hello.txt "$1/fast link"
    ln -s "dir/nested deeper/../../$(printf '%070d' 0)/target" "$1/dir/slow link"
    touch -d '1999-12-31 23:59:58' "$1/hello.txt"
    touch -d '2037-01-02 03:04:05' "$1/dir/random.bin"
    printf 'old\n' > "$1/before-1970"
    touch -d '1969-07-20 20:17:40' "$1/before-1970"
}

# A time past 2038. mke2fs keeps it in the 32-bit field alone, with no
# epoch bits: it reads back as the driver decodes such a field.
far_times() {
    printf 'far\n' > "$1/after-2038"
    touch -d '2100-03-04 05:06:07' "$1/after-2038"
}

# A sparse file with data blocks in the direct, indirect, double and
# triple indirect ranges of a 1 KiB block map (12, 12+256, 12+256+65536).
legacy_tree() {
    common_tree "$1"
    file="$1/sparse.bin"
    for at in 0 11 12 267 268 65803 65804 65900; do
        printf 'block %d\n' "$at" | dd of="$file" bs=1024 seek="$at" conv=notrunc status=none
    done
    truncate -s 70000000 "$file"
}

# A directory of 5,000 short names, indexed by e2fsck -D afterwards.
hashed_tree() {
    common_tree "$1"
    far_times "$1"
    mkdir "$1/many"
    (cd "$1/many" && seq -w 1 5000 | sed 's/^/n/' | xargs touch)
    printf 'last\n' > "$1/many/n5000"
}

# Every other 1 KiB block written: 800 extents, beyond what the inode and
# one level of leaves hold, so the tree has two levels.
extent_tree() {
    common_tree "$1"
    far_times "$1"
    python3 -c '
import sys
with open(sys.argv[1], "wb") as out:
    for block in range(0, 1600, 2):
        out.seek(block * 1024)
        out.write(b"%06d" % block * 170)
    out.truncate(1600 * 1024 + 3)
' "$1/fragmented.bin"
}

# A sparse file a little over 4 GiB with data behind 4 GiB: its size needs
# the high word, its last blocks a logical number past 2^20.
large_tree() {
    common_tree "$1"
    far_times "$1"
    printf 'start\n' > "$1/huge.bin"
    printf 'past four GiB\n' | dd of="$1/huge.bin" bs=1 seek=$((4 * 1024 * 1024 * 1024 + 12345)) conv=notrunc status=none
    truncate -s $((4 * 1024 * 1024 * 1024 + 20000)) "$1/huge.bin"
}

small_tree() { common_tree "$1"; }

# Two 64 KiB blocks of 200-byte names, emptied by debugfs afterwards: then
# the second block holds one unused entry as long as the block, whose
# length 65536 only the published 64 KiB form can store.
wide_tree() {
    common_tree "$1"
    mkdir "$1/gaps"
    (cd "$1/gaps" && seq -w 1 400 | sed 's/^/n/; :a; s/^.\{1,199\}$/&x/; ta' | xargs touch)
    (cd "$1/gaps" && ls) > "$work/gap.names"
    printf 'kept\n' > "$1/gaps/kept"
}

make_case_image() {
    tree="$work/tree-$tree_kind"
    [ -d "$tree" ] || { mkdir "$tree" && "${tree_kind}_tree" "$tree"; }
    truncate -s "${size}M" "$image"
    features=
    [ "$feature_list" = "-" ] || features="-O $feature_list"
    inodes=
    [ "$tree_kind" != hashed ] || inodes="-N 6000"
    [ "$tree_kind" != wide ] || inodes="-N 1000"
    # shellcheck disable=SC2086
    mke2fs -q -F -t "$mkfs" -b "$block" -I "$inode" $features $inodes -L "$case_name" \
        -d "$tree" -E root_owner=0:0 "$image" >"$work/mkfs.log" 2>&1 || { cat "$work/mkfs.log"; return 1; }
    case $after in
        reindex) e2fsck -fyD "$image" >/dev/null 2>&1; [ $? -le 1 ] || return 1 ;;
        emptied) sed 's#^#rm /gaps/#' "$work/gap.names" | debugfs -w -f - "$image" >/dev/null 2>&1 || return 1 ;;
        recover) debugfs -w -R 'feature needs_recovery' "$image" >/dev/null 2>&1 || return 1 ;;
    esac
}

# The image holds what its row claims to test: else a change of mke2fs
# could make a row pass without testing anything.
check_shape() {
    dumpe2fs -h "$image" 2>/dev/null > "$work/super"
    grep -q "^Inode size:[[:space:]]*$inode\$" "$work/super" || fail "the inodes are not of $inode bytes"
    case $tree_kind in
        legacy) debugfs -R 'stat /sparse.bin' "$image" 2>/dev/null | grep -q '(TIND)' ||
                fail "sparse.bin has no triple indirect block" ;;
        wide) debugfs -R 'stat /gaps' "$image" 2>/dev/null | grep -q 'Size: 131072' ||
                fail "/gaps does not span two blocks" ;;
        hashed) debugfs -R 'htree /many' "$image" 2>/dev/null | grep -q 'Number of entries' ||
                fail "/many has no hash index" ;;
        extent) [ "$(debugfs -R 'ex /fragmented.bin' "$image" 2>/dev/null | grep -c '^ *2/ *2 ')" -eq 800 ] ||
                fail "fragmented.bin has not 800 extents two levels down" ;;
    esac
    # mke2fs's own ext4 defaults, which are Debian 12's.
    if [ "$case_name" = ext4-debian ]; then
        for feature in extent 64bit flex_bg huge_file extra_isize metadata_csum; do
            grep -q "^Filesystem features:.* $feature" "$work/super" || fail "the defaults lack $feature"
        done
    fi
    [ "$mkfs" != ext3 ] || grep -q '^Filesystem features:.*has_journal' "$work/super" || fail "there is no journal"
    [ "$after" != recover ] || grep -q '^Filesystem features:.*needs_recovery' "$work/super" ||
        fail "needs_recovery is not set"
    [ "$feature_list" = "-" ] || [ "${feature_list#^}" != "$feature_list" ] ||
        grep -q "^Filesystem features:.* $feature_list" "$work/super" || fail "$feature_list is not set"
}

# The modification time of PATH on the image as debugfs states it.
debugfs_mtime() {
    stated=$(debugfs -R "stat \"$1\"" "$image" 2>/dev/null | sed -n 's/^ *mtime: 0x[0-9a-f:]* -- //p')
    date -u -d "$stated" '+%Y-%m-%d %H:%M:%S'
}

# debugfs makes symbolic links without their times: those come from its stat.
listed_link_time() { debugfs_mtime "/$2"; }

# The top-level names of the image but lost+found and the huge file, one a
# line, as debugfs lists them.
top_names() {
    debugfs -R 'ls -p /' "$image" 2>/dev/null | awk -F/ 'NF >= 7 { print $6 }' |
        grep -v -x -e . -e .. -e lost+found -e huge.bin
}

copy_out_theirs() {
    top_names > "$work/names"
    sed "s#.*#rdump \"/&\" $1#" "$work/names" | debugfs -f - "$image" >/dev/null 2>&1
}

# Each top-level name but those two; symbolic links come out as links with
# their own targets, and stat tells the same targets.
copy_out_ours() {
    : > "$work/cp.err"
    while IFS= read -r name; do
        fs cp-out -r "/$name" "$1/$name" 2>>"$work/cp.err"
    done < "$work/names"
    [ ! -s "$work/cp.err" ] || fail "cp-out failed: $(head -5 "$work/cp.err")"
    (cd "$1" && find . -type l -printf '%P\n') | while IFS= read -r link; do
        target=$(fs stat "/$link" | sed -n 's/^target: *//p')
        [ "$target" = "$(readlink "$1/$link")" ] || fail "stat /$link: the target is not $(readlink "$1/$link")"
    done
}

comparable() { grep -v -e ' lost+found$' -e ' huge.bin$' | blank_far_times; }

# The file over 4 GiB is compared as two streams, never stored: debugfs
# would write it out in full.
check_huge_file() {
    debugfs -R 'stat /huge.bin' "$image" 2>/dev/null | grep -q 'Size: ' || return 0
    size=$(debugfs -R 'stat /huge.bin' "$image" 2>/dev/null | sed -n 's/.*Size: \([0-9]*\).*/\1/p')
    fs ls -l /huge.bin | grep -q "^- *$size " || fail "huge.bin is not listed with its size $size"
    mkfifo "$work/theirs"
    debugfs -R 'cat /huge.bin' "$image" 2>/dev/null > "$work/theirs" &
    fs cat /huge.bin | cmp -s - "$work/theirs" || fail "huge.bin reads otherwise than debugfs dumps it"
    wait
    rm -f "$work/theirs"
}

# Times outside 1970 to 2038 are read as the driver defines them: the
# 32-bit field sign-extended, then the epoch bits of the extra field ORed in
# above it. debugfs disagrees even with itself there (its stat reads the
# field signed, its rdump unsigned), so for these two files the raw fields
# that debugfs's stat shows are decoded here, and the other comparisons
# leave their times out.
far_time_names='before-1970|after-2038'
blank_far_times() {
    sed -E -e "s/^(f ($far_time_names) [0-9]+) -?[0-9]+ /\\1 T /" \
        -e "s/^(- +[0-9]+) [0-9-]+ [0-9:]+ ($far_time_names)\$/\\1 T \\2/"
}

expected_far_time() {
    raw=$(sed -n 's/^ *mtime: 0x\([0-9a-f]*\):*\([0-9a-f]*\) --.*/\1 \2/p' "$work/dstat")
    field=$((0x${raw% *}))
    extra=${raw#* }
    extra=$((0x${extra:-0}))
    seconds=$((field >= 0x80000000 ? field - 0x100000000 : field))
    seconds=$((seconds | (extra & 3) << 32))
    date -u -d "@$seconds" '+%Y-%m-%d %H:%M:%S'
}

# `stat` against debugfs's stat: size and modification time.
check_stat() {
    for path in /hello.txt /dir/random.bin "/dir/nested deeper/Ünïcödé näme.txt" /before-1970 /after-2038; do
        debugfs -R "stat \"$path\"" "$image" > "$work/dstat" 2>/dev/null
        size=$(sed -n 's/.*Size: \([0-9]*\).*/\1/p' "$work/dstat" | head -1)
        [ -n "$size" ] || continue
        fs stat "$path" > "$work/stat" || { fail "stat $path"; continue; }
        case $path in
            /before-1970|/after-2038) expected=$(expected_far_time) ;;
            *) expected=$(debugfs_mtime "$path") ;;
        esac
        grep -q "^size: *$size\$" "$work/stat" || fail "stat $path: size is not $size"
        grep -q "^modified: *$expected" "$work/stat" || fail "stat $path: modified is not $expected"
    done
}

# Every change is refused as one of a read-only volume, and e2fsck finds
# nothing after them.
check_refused_changes() {
    refuse_every_change 0x4000C /dir "/empty dir"
    e2fsck -fn "$image" > "$work/fsck" 2>&1 || fail "e2fsck after refused changes: $(tail -5 "$work/fsck")"
}

# What `fs info` says against dumpe2fs; a volume held read only names the
# features that hold it.
check_volume_info() {
    access=read-write
    [ "$expect" = rw ] || access=read-only
    free_blocks=$(sed -n 's/^Free blocks:[[:space:]]*//p' "$work/super")
    # The driver counts a volume of 16 KiB blocks or more as ext4, whatever
    # made it: only ext4 has such blocks.
    type=Ext${mkfs#ext}
    [ "$block" -lt 16384 ] || type=Ext4
    check_info "$type" "$block" "$access" $((free_blocks * block))
    [ "$case_name" != ext4-debian ] || grep -q "^access: .*metadata_csum" "$work/info" ||
        fail "info: the read-only reason is not given: $(cat "$work/info")"
}

check_case() {
    check_shape
    [ "$expect" = refuse ] || check_volume_info
    case $expect in
        rw) check_reading; check_huge_file; check_stat ;;
        ro) check_reading; check_huge_file; check_stat; check_refused_changes ;;
        refuse) check_refused_mount ;;
    esac
}

run_matrix
