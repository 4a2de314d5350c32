#!/bin/sh
# Makes the seed corpus of fuzz/ntfs_fuzzer.cpp: two 1 MiB NTFS volumes of
# 512-byte clusters made by mkntfs, one filled by ntfscp alone (a resident
# and a non-resident file in the root), one over an ntfs-3g mount (a
# directory, a compressed file, a sparse file of 1 GiB, a symbolic and a
# hard link).
#
# The fuzzer reads everything behind its input as zeros. mkntfs puts the
# MFT at 16 KiB, the root index, $AttrDef, $Bitmap and $Secure behind the
# MFT's reserved zone (1/8 of the volume), then the first part of $UpCase
# (the case of the first 52,000 characters), $LogFile, and the data of
# files behind those. So each seed is cut where $LogFile begins: everything
# that the mount and the names need lies before it, and the rest (the log,
# the case of the characters above, the data of non-resident files) reads
# as zeros, which still mounts. No seed can be smaller than the MFT's place
# plus its records, and it takes the case table to find names, so these
# are about 520 KiB, far above the 16 KiB that other targets keep to.
#
#   ntfs_make_seeds.sh CORPUS_DIR
set -eu
corpus=$1
work=$(mktemp -d)
mount=
cleanup() {
    [ -z "$mount" ] || umount "$mount" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
export TZ=UTC LC_ALL=C.UTF-8
mkdir -p "$corpus"
printf 'hello\n' > "$work/hello"
seq 1 400 | sed 's/^/a line of text, number /' > "$work/three"

# new_volume IMAGE: 1 MiB and a sector, since mkntfs keeps the last sector
# of the device for the boot sector's copy and wants 1 MiB before it.
new_volume() {
    truncate -s 1052672 "$1"
    mkntfs -F -f -q -c 512 -L seed -T "$1" >/dev/null 2>&1
}

# first_lcn IMAGE RECORD: the first cluster of the record's first run.
first_lcn() {
    lcn=$(ntfsinfo -v -i "$2" "$1" 2>/dev/null | awk '/^[ \t]+0x[0-9a-f]+[ \t]+0x/ { print $2; exit }')
    [ -n "$lcn" ] || { echo "no run in record $2 of $1" >&2; exit 1; }
    echo $(($lcn))
}

# cut_seed IMAGE NAME: the image up to the first cluster of $LogFile, less
# the zero sectors before that. The first run of $UpCase must lie before
# it: with a table of zeros every name compares equal to every other, and
# neither a lookup nor a walk would get far.
cut_seed() {
    end=$(first_lcn "$1" 2)
    upcase=$(first_lcn "$1" 10)
    [ "$upcase" -lt "$end" ] || { echo "\$UpCase lies behind \$LogFile in $1" >&2; exit 1; }
    head -c $((end * 512)) "$1" > "$work/cut"
    used=$(od -An -v -tx1 -w512 "$work/cut" | awk '/[1-9a-f]/ { last = NR } END { print last }')
    head -c $((used * 512)) "$work/cut" > "$corpus/$2"
}

image="$work/copied.img"
new_volume "$image"
ntfscp "$image" "$work/hello" hello.txt >/dev/null 2>&1
ntfscp "$image" "$work/three" three.txt >/dev/null 2>&1
ntfsinfo -F /three.txt "$image" >/dev/null 2>&1 || { echo "ntfscp failed" >&2; exit 1; }
cut_seed "$image" ntfs_copied.img

image="$work/mounted.img"
new_volume "$image"
mount="$work/mount"
mkdir "$mount"
ntfs-3g -o compression "$image" "$mount"
mkdir "$mount/sub" "$mount/packed"
setfattr -h -v 0x00000800 -n system.ntfs_attrib_be "$mount/packed"
cp "$work/hello" "$mount/hello.txt"
cp "$work/three" "$mount/sub/three.txt"
cp "$work/three" "$mount/packed/three.txt"
ln -s ../hello.txt "$mount/sub/link"
ln "$mount/hello.txt" "$mount/sub/hard.txt"
truncate -s 1G "$mount/sparse.bin"
printf 'end\n' >> "$mount/sparse.bin"
umount "$mount"
mount=
cut_seed "$image" ntfs_mounted.img
