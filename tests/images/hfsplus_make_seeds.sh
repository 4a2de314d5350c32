#!/bin/bash
# Makes the seed corpus of fuzz/hfsplus_fuzzer.cpp: two whole HFS+ volumes
# of 32 KiB made by xorriso's HFS+ writer (see hfsplus_from_folder.sh), one
# of 512-byte and one of 2 KiB allocation blocks, each with a file in the
# root and a folder holding a second one. A mount needs the alternate
# header at the volume's end, so a seed is a whole volume; these are the
# smallest that xorriso makes.
# xorriso marks its volumes locked (software lock, bit 15 of the header's
# attributes), which a driver serves read only; the lock is taken off in
# both headers, so that the fuzzer's changes are tried on them.
# With BUILD_DIR (where hfs_journal_writer is), also a journaled volume:
# mkfs.hfsplus gives a journal of 8 MiB, the smallest the driver mounts,
# only to volumes of 128 MiB and more, so this one is packed as the fuzzer
# reads it ("HFSPACK1", then runs of non-zero sectors). Its journal holds
# two transactions not yet replayed: the volume header's sector with its
# write count raised by 5, then the catalog's first leaf node as it
# stands. No tool here leaves a journal that holds anything, hence the
# writer (see hfs_journal_writer.cpp).
#
#   hfsplus_make_seeds.sh CORPUS_DIR [BUILD_DIR]
set -eu
corpus=$1
build_dir=${2:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$corpus" "$work/tree/sub"
printf 'hello\n' > "$work/tree/hello.txt"
seq 1 400 | sed 's/^/a line of text, number /' > "$work/tree/sub/three.txt"
"$here/hfsplus_from_folder.sh" "$work/tree" "$corpus/hfsplus_512.img" 512 SEED
"$here/hfsplus_from_folder.sh" "$work/tree" "$corpus/hfsplus_2048.img" 2048 SEED

# be FILE OFFSET BYTES: a big-endian number of the file.
be() {
    od -An -v -tu1 -j "$2" -N "$3" "$1" |
        awk '{ for (i = 1; i <= NF; i++) n = n * 256 + $i } END { printf "%.0f\n", n }'
}

# put_be FILE OFFSET NUMBER BYTES: writes the number big-endian there.
put_be() {
    local shift escapes=
    for shift in $(seq $((8 * ($4 - 1))) -8 0); do escapes+=$(printf '\\%03o' $(($3 >> shift & 255))); done
    # shellcheck disable=SC2059
    printf "$escapes" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

for seed in "$corpus/hfsplus_512.img" "$corpus/hfsplus_2048.img"; do
    for header in 1024 $(($(stat -c %s "$seed") - 1024)); do
        put_be "$seed" $((header + 4)) $(($(be "$seed" $((header + 4)) 4) & ~0x8000)) 4
    done
done
[ -n "$build_dir" ] || exit 0

# pack IMAGE PACKED: the runs of IMAGE's non-zero 512-byte sectors, as
# "first count" lines (cmp lists the differing bytes from 1), then each
# run's header and sectors behind the magic.
pack() {
    cmp -l "$1" /dev/zero 2>/dev/null | awk '{ s = int(($1 - 1) / 512); if (s != last) print s; last = s }' |
        awk 'NR == 1 { first = prev = $1; next }
             $1 == prev + 1 && $1 - first < 65535 { prev = $1; next }
             { print first, prev - first + 1; first = prev = $1 }
             END { if (NR > 0) print first, prev - first + 1 }' >"$work/runs"
    printf HFSPACK1 >"$2"
    while read -r first count; do
        put_be "$work/run" 0 "$first" 4 && put_be "$work/run" 4 "$count" 2
        cat "$work/run" >>"$2"
        dd if="$1" bs=512 skip="$first" count="$count" status=none >>"$2"
    done <"$work/runs"
}

image=$work/journaled.img
truncate -s 128M "$image"
mkfs.hfsplus -J -v SEED "$image" >/dev/null
block=$(be "$image" $((1024 + 40)) 4)
# The volume header is the first 512 bytes of sector 2; writeCount at 68.
dd if="$image" of="$work/header.bin" bs=512 skip=2 count=1 status=none
put_be "$work/header.bin" 68 $(($(be "$image" $((1024 + 68)) 4) + 5)) 4
# The catalog's fork data is at 272 in the header, its first extent's
# start block 16 bytes into it; the node size is in the header node, at
# 32 in its first node; node 1 is the leaf that mkfs.hfsplus fills.
catalog=$(($(be "$image" $((1024 + 272 + 16)) 4) * block))
node_size=$(be "$image" $((catalog + 32)) 2)
dd if="$image" of="$work/leaf.bin" bs=1 skip=$((catalog + node_size)) count="$node_size" status=none
"$build_dir/hfs_journal_writer" "$image" 2:"$work/header.bin" \
    --next $(((catalog + node_size) / 512)):"$work/leaf.bin"
pack "$image" "$corpus/hfsplus_journaled.pack"
