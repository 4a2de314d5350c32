#!/bin/sh
# Makes the seed corpus of fuzz/fat_fuzzer.cpp: a FAT12 and a FAT16 volume
# made by mkfs.fat and filled by mtools, cut behind their last sector that
# isn't all zero (the fuzzer reads the rest of the volume as zeros). One
# FAT, 16 root entries and one reserved sector keep the FAT16 table small
# enough for the whole seed to stay below the fuzzer's 16 KiB inputs.
#
#   make_fat_seeds.sh CORPUS_DIR
set -eu
corpus=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export MTOOLS_SKIP_CHECK=1 LC_ALL=C.UTF-8 TZ=UTC
mkdir -p "$corpus"
printf 'hello\n' > "$work/hello"
head -c 1500 /dev/urandom | base64 > "$work/three"
: > "$work/empty"

# make_seed NAME FAT SIZE_KIB
make_seed() {
    image="$work/$1.img"
    mkfs.fat -C -F "$2" -f 1 -r 16 -R 1 -s 1 -n SEED -i 12345678 "$image" "$3" >/dev/null
    mcopy -i "$image" "$work/hello" ::/HELLO.TXT
    mmd -i "$image" "::/Sub Directory"
    mcopy -i "$image" "$work/three" "::/Sub Directory/Three clusters long.txt"
    mcopy -i "$image" "$work/empty" ::/empty
    mcopy -i "$image" "$work/hello" ::/gone.txt
    mdel -i "$image" ::/gone.txt
    mcopy -i "$image" "$work/hello" "::/Sub Directory/lower.txt"
    fsck.fat -n "$image" >/dev/null
    used=$(od -An -v -tx1 -w512 "$image" | awk '/[1-9a-f]/ { last = NR } END { print last }')
    head -c $((used * 512)) "$image" > "$corpus/$1"
}

make_seed fat12_tree.img 12 64
make_seed fat16_tree.img 16 2100
