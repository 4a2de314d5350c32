#!/bin/sh
# Makes the seed corpus of fuzz/ext_fuzzer.cpp: a tiny ext2 volume (block
# maps) and a tiny ext4 volume (extents, 256-byte inodes), both with 1 KiB
# blocks and 16 inodes, made by mke2fs and filled by debugfs. The fuzzer
# reads everything behind its input as zeros, so each seed is cut behind its
# last block that isn't all zero. To keep that below the fuzzer's 16 KiB
# inputs, lost+found (twelve blocks of empty directory records) is removed
# and its blocks zeroed before the files are written, so that they land in
# the freed blocks near the start.
#
#   ext_make_seeds.sh CORPUS_DIR
set -eu
corpus=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TZ=UTC LC_ALL=C.UTF-8 E2FSPROGS_FAKE_TIME=1700000000
mkdir -p "$corpus"
printf 'hello\n' > "$work/hello"
head -c 1500 /dev/urandom | base64 > "$work/three"
: > "$work/empty"

# make_seed NAME MKFS_OPTIONS...
make_seed() {
    name=$1
    shift
    image="$work/$name"
    truncate -s 64K "$image"
    mke2fs -q -F -b 1024 -N 16 -m 0 -O ^resize_inode -L seed \
        -U 11111111-2222-3333-4444-555555555555 "$@" "$image" 64
    freed=$(debugfs -R 'blocks lost+found' "$image" 2>/dev/null)
    debugfs -w -R 'rmdir lost+found' "$image" 2>/dev/null
    for block in $freed; do
        dd if=/dev/zero of="$image" bs=1024 seek="$block" count=1 conv=notrunc status=none
    done
    debugfs -w -f - "$image" >/dev/null 2>&1 <<COMMANDS
mkdir sub
write $work/hello hello
write $work/three sub/three
write $work/empty empty
symlink link hello
symlink sub/up ../sub/../hello
COMMANDS
    e2fsck -fn "$image" > "$work/check" 2>&1 || { cat "$work/check"; exit 1; }
    used=$(od -An -v -tx1 -w1024 "$image" | awk '/[1-9a-f]/ { last = NR } END { print last }')
    head -c $((used * 1024)) "$image" > "$corpus/$name"
}

make_seed ext2_tree.img -t ext2 -I 128 -O ^dir_index
make_seed ext4_tree.img -t ext4 -I 256 -O ^has_journal,^flex_bg,^metadata_csum
