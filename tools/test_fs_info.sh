#!/bin/sh
# fs parts and fs info held against the tools that made the images: every
# field of every GPT entry against sgdisk, each volume's geometry and space
# against fsck.fat -v, dumpe2fs -h and ntfsinfo -m, the read-only state of
# volumes that carry a read-only mark, and what a whole disk or a single
# volume given in the wrong place is told.
#
#   test_fs_info.sh TOOL
set -u
tool="$1"
export LC_ALL=C.UTF-8
. "$(dirname "$0")/test_lib.sh"
# value KEY [FILE]: the text behind "KEY:" and its padding.
value() { sed -n "s/^$1: *//p" "${2:-$work/out}"; }
# same WHAT GOT EXPECTED; an expectation that came out empty is a failure
# of the reference tool's parse, not a match.
same() { [ -n "$3" ] && [ "$2" = "$3" ] || fail "$1: '$2', expected '$3'"; }

# ---- a GPT disk of four partitions: FAT, ext4, NTFS and an empty one ----
disk="$work/disk.img"
truncate -s 64M "$disk"
sgdisk -o -n 1:0:+16M -t 1:ef00 -c 1:"EFI system" -n 2:0:+20M -t 2:8300 -c 2:"root fs" \
    -n 3:0:+12M -t 3:0700 -c 3:data -n 4:0:+1M -t 4:8200 -c 4:"swäp" "$disk" >/dev/null || fail "sgdisk could not make the disk"
first() { sgdisk -i "$1" "$disk" | sed -n 's/^First sector: \([0-9]*\).*/\1/p'; }
mkfs.fat -F 16 -n ESPLABEL --offset "$(first 1)" "$disk" 16384 >/dev/null 2>&1
# ext4 without metadata checksums, which a reader may change without them.
truncate -s 20M "$work/ext.img"
mkfs.ext4 -q -F -L rootfs -O ^metadata_csum "$work/ext.img" || fail "mkfs.ext4"
truncate -s 12M "$work/ntfs.img"
mkntfs -F -Q -q -L DATA "$work/ntfs.img" >/dev/null 2>&1 || fail "mkntfs"
dd if="$work/ext.img" of="$disk" bs=512 seek="$(first 2)" conv=notrunc status=none
dd if="$work/ntfs.img" of="$disk" bs=512 seek="$(first 3)" conv=notrunc status=none

expect 0 "parts" "$tool" fs "$disk" parts
cp "$work/out" "$work/parts"
same "disk GUID" "$(value 'disk GUID' "$work/parts")" \
    "$(sgdisk -p "$disk" | sed -n 's/^Disk identifier (GUID): //p')"
same "partition count" "$(grep -c '^partition:' "$work/parts")" \
    "$(sgdisk -p "$disk" | grep -c '^ *[0-9][0-9]* ')"
# Each entry's block against sgdisk -i; the type's short name against the
# published name of its GUID, and the driver against the formatter used.
for row in "1 EFI system|FAT16" "2 Linux filesystem|Ext4" "3 Microsoft basic data|NTFS" "4 Linux swap|-"; do
    n=${row%% *}
    rest=${row#* }
    awk -v n="$n" '/^partition:/ { on = ($2 == n) } on' "$work/parts" > "$work/entry"
    sgdisk -i "$n" "$disk" > "$work/sg"
    same "$n unique GUID" "$(value 'unique GUID' "$work/entry")" "$(value 'Partition unique GUID' "$work/sg")"
    same "$n type GUID" "$(value 'type GUID' "$work/entry")" \
        "$(sed -n 's/^Partition GUID code: \([0-9A-F-]*\).*/\1/p' "$work/sg") (${rest%|*})"
    same "$n name" "$(value name "$work/entry")" "$(sed -n "s/^Partition name: '\(.*\)'/\1/p" "$work/sg")"
    same "$n first sector" "$(value 'first sector' "$work/entry")" "$(first "$n")"
    same "$n last sector" "$(value 'last sector' "$work/entry")" \
        "$(sed -n 's/^Last sector: \([0-9]*\).*/\1/p' "$work/sg")"
    same "$n size" "$(value size "$work/entry")" "$(sed -n 's/^Partition size: .*(\(.*\))/\1/p' "$work/sg")"
    same "$n mounted by" "$(value 'mounted by' "$work/entry")" "${rest#*|}"
done

# info on each partition, against the formatters' own checkers.
dd if="$disk" of="$work/fat.img" bs=512 skip="$(first 1)" count=32768 status=none
fsck.fat -vn "$work/fat.img" > "$work/fsck" 2>&1
cluster=$(sed -n 's/^ *\([0-9]*\) bytes per cluster/\1/p' "$work/fsck")
data=$(sed -n 's/^Data area starts at byte \([0-9]*\).*/\1/p' "$work/fsck")
used=$(sed -n 's|.* files, \([0-9]*\)/\([0-9]*\) clusters|\1|p' "$work/fsck")
count=$(sed -n 's|.* files, \([0-9]*\)/\([0-9]*\) clusters|\2|p' "$work/fsck")
expect 0 "FAT info" "$tool" fs "$disk:1" info
same "FAT type" "$(value 'file system')" FAT16
same "FAT label" "$(value label)" ESPLABEL
same "FAT cluster" "$(value 'cluster size')" "$cluster bytes"
same "FAT total" "$(value 'total space' | cut -d' ' -f1)" "$((data + count * cluster))"
same "FAT free" "$(value 'free space' | cut -d' ' -f1)" "$(((count - used) * cluster))"
same "FAT access" "$(value access)" read-write

dumpe2fs -h "$work/ext.img" > "$work/dump" 2>/dev/null
block=$(value 'Block size' "$work/dump")
expect 0 "ext info" "$tool" fs "$disk:2" info
same "ext type" "$(value 'file system')" Ext4
same "ext label" "$(value label)" "$(value 'Filesystem volume name' "$work/dump")"
same "ext block" "$(value 'block size')" "$block bytes"
same "ext total" "$(value 'total space' | cut -d' ' -f1)" "$(($(value 'Block count' "$work/dump") * block))"
same "ext free" "$(value 'free space' | cut -d' ' -f1)" "$(($(value 'Free blocks' "$work/dump") * block))"
same "ext access" "$(value access)" read-write

ntfsinfo -m "$work/ntfs.img" 2>/dev/null | sed 's/^[[:space:]]*//' > "$work/ntfsinfo"
ncluster=$(value 'Cluster Size' "$work/ntfsinfo")
expect 0 "NTFS info" "$tool" fs "$disk:3" info
same "NTFS type" "$(value 'file system')" NTFS
same "NTFS label" "$(value label)" "$(value 'Volume Name' "$work/ntfsinfo")"
same "NTFS cluster" "$(value 'cluster size')" "$ncluster bytes"
same "NTFS free" "$(value 'free space' | cut -d' ' -f1)" \
    "$(($(value 'Free Clusters' "$work/ntfsinfo" | cut -d' ' -f1) * ncluster))"
# The boot sector counts sectors past the last whole cluster.
total=$(value 'total space' | cut -d' ' -f1)
clusters_bytes=$(($(value 'Volume Size in Clusters' "$work/ntfsinfo") * ncluster))
[ "$total" -ge "$clusters_bytes" ] && [ "$total" -lt $((clusters_bytes + ncluster)) ] ||
    fail "NTFS total $total is not the $clusters_bytes bytes of its clusters and a part of one"
expect 1 "info on the empty partition" "$tool" fs "$disk:4" info
err_has "info on the empty partition" "no driver recognises the volume"

# ---- read-only marks that every driver must honour ----
cp "$work/ext.img" "$work/ext-ro.img"
tune2fs -O read-only "$work/ext-ro.img" >/dev/null 2>&1 || fail "tune2fs -O read-only"
expect 0 "ext read-only info" "$tool" fs "$work/ext-ro.img" info
case "$(value access)" in read-only*) ;; *) fail "ext with the read-only feature: access $(value access)" ;; esac
truncate -s 8M "$work/hfs.img"
mkfs.hfsplus -b 4096 -v HLabel "$work/hfs.img" >/dev/null 2>&1 || fail "mkfs.hfsplus"
expect 0 "HFS+ info" "$tool" fs "$work/hfs.img" info
same "HFS+ label" "$(value label)" HLabel
same "HFS+ block" "$(value 'block size')" "4096 bytes"
same "HFS+ access" "$(value access)" read-write
# The software lock: bit 15 of the big-endian attributes at byte 1028.
attributes=$(od -An -tu4 --endian=big -j1028 -N4 "$work/hfs.img" | tr -d ' ')
printf "$(printf '\\%03o\\%03o\\%03o\\%03o' $((attributes >> 24 & 255)) $((attributes >> 16 & 255)) \
    $(((attributes >> 8 | 128) & 255)) $((attributes & 255)))" |
    dd of="$work/hfs.img" bs=1 seek=1028 conv=notrunc status=none
expect 0 "locked HFS+ info" "$tool" fs "$work/hfs.img" info
same "locked HFS+ access" "$(value access)" "read-only: the driver holds the volume read only (the volume is locked)"

# ---- the wrong kind of image ----
expect 1 "the whole disk where a volume is wanted" "$tool" fs "$disk" ls
err_has "whole disk" "the image holds a GPT partition table: name a partition as $disk:N (see 'morvane fs $disk parts')"
expect 1 "info on the whole disk" "$tool" fs "$disk" info
err_has "info on the whole disk" "see 'morvane fs $disk parts'"
expect 1 "parts of a single volume" "$tool" fs "$work/fat.img" parts
err_has "parts of a single volume" "has no GPT; it is a single FAT16 volume"
head -c 1048576 /dev/zero > "$work/zeros.img"
expect 1 "parts of zeros" "$tool" fs "$work/zeros.img" parts
grep -q "single" "$work/err" && fail "parts of zeros: $(cat "$work/err")"
expect 2 "parts of a partition" "$tool" fs "$disk:1" parts
expect 2 "info with a path" "$tool" fs "$disk:1" info /

[ "$failures" -eq 0 ] && echo "fs info: all checks passed" && exit 0
echo "fs info: $failures failure(s)"
exit 1
