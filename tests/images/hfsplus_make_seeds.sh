#!/bin/bash
# Makes the seed corpus of fuzz/hfsplus_fuzzer.cpp: two whole HFS+ volumes
# of 32 KiB made by xorriso's HFS+ writer (see hfsplus_from_folder.sh), one
# of 512-byte and one of 2 KiB allocation blocks, each with a file in the
# root and a folder holding a second one. A mount needs the alternate
# header at the volume's end, so a seed is a whole volume; these are the
# smallest that xorriso makes. (mkfs.hfsplus makes nothing below 1 MiB, and
# a journal takes 8 MiB at least.)
#
#   hfsplus_make_seeds.sh CORPUS_DIR
set -eu
corpus=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$corpus" "$work/tree/sub"
printf 'hello\n' > "$work/tree/hello.txt"
seq 1 400 | sed 's/^/a line of text, number /' > "$work/tree/sub/three.txt"
"$here/hfsplus_from_folder.sh" "$work/tree" "$corpus/hfsplus_512.img" 512 SEED
"$here/hfsplus_from_folder.sh" "$work/tree" "$corpus/hfsplus_2048.img" 2048 SEED
