#!/bin/sh
# The fs subcommand as a user meets it: arguments, exit codes and messages,
# volumes named by GPT number and unique GUID, lookups that ignore case,
# what stat tells beside mtools, refusals that leave the volume clean, and
# changes that the file systems' own tools read back.
# Images are made by mkfs.fat, mtools, sgdisk, mkntfs and ntfs-3g, xorriso and
# mkfs.hfsplus.
#
#   test_fs_command.sh TOOL IMAGE_SCRIPTS_DIR
set -u
tool="$1"
images="$2"
export TZ=UTC LC_ALL=C.UTF-8 MTOOLS_SKIP_CHECK=1
. "$(dirname "$0")/test_lib.sh"

fsck_clean() {
    report=$(fsck.fat -n "$1" 2>&1) && [ "$(printf '%s\n' "$report" | wc -l)" -le 2 ] || fail "$2: fsck.fat: $report"
}

# ---- a plain FAT16 volume filled by mtools ----
volume="$work/volume.img"
mkfs.fat -C -F 16 -n PLAIN "$volume" 16384 >/dev/null
mkdir -p "$work/tree/case" "$work/tree/full"
printf 'lower case\n' > "$work/tree/case/lower.txt"
printf 'long\n' > "$work/tree/A rather long file name.text"
printf 'one\n' > "$work/tree/full/one.txt"
head -c 3000000 /dev/urandom > "$work/tree/big.bin"
: > "$work/tree/hidden.bin"
touch -d '2012-03-04 05:06:08' "$work/tree/case/lower.txt"
mcopy -s -m -i "$volume" "$work/tree"/* ::/
mattrib -i "$volume" +h ::/hidden.bin >/dev/null

# Usage and its refusals: all status 2 and nothing touched.
expect 0 "--help" "$tool" fs --help
out_has "--help" "IMAGE:N"
out_has "--help" "cp-in [-p] HOSTFILE PATH"
expect 2 "no arguments" "$tool" fs
expect 2 "no command" "$tool" fs "$volume"
expect 2 "unknown command" "$tool" fs "$volume" frobnicate /
err_has "unknown command" "unknown command 'frobnicate'"
expect 2 "unknown flag" "$tool" fs "$volume" ls -z /
expect 2 "cat without a path" "$tool" fs "$volume" cat
expect 2 "mv with three paths" "$tool" fs "$volume" mv /a /b /c
expect 2 "sector size not 512 or 4096" "$tool" fs --sector-size 1024 "$volume" ls
expect 2 "partition 0" "$tool" fs "$volume:0" ls
expect 2 "missing image" "$tool" fs "$work/absent.img" ls
expect 2 "cp-in of a missing host file" "$tool" fs "$volume" cp-in "$work/absent" /x

# backup and restore: their arguments, a volume whose driver keeps no
# backups, and backup files that are no backup or are cut short, all refused
# before the volume is touched or a host file is left behind.
expect 2 "backup --list with --kind" "$tool" fs "$volume" backup --list --kind 2 /big.bin
expect 2 "backup without a host file" "$tool" fs "$volume" backup /big.bin
expect 2 "backup --kind without a number" "$tool" fs "$volume" backup --kind two /big.bin "$work/x.bk"
expect 2 "restore with an unknown flag" "$tool" fs "$volume" restore --list "$work/x.bk" /x
expect 2 "backup onto the image" "$tool" fs "$volume" backup /big.bin "$volume"
expect 1 "backup on FAT" "$tool" fs "$volume" backup /big.bin "$work/fat.bk"
err_has "backup on FAT" "FILE_UNSUPPORTED"
[ ! -e "$work/fat.bk" ] || fail "a refused backup left its file"
cp "$volume" "$work/before.img"
# header, a piece of kind 1 holding 4 bytes, the end mark
printf 'MVBACKUP\001\000\000\000\000\000\000\000\001\000\000\000\004\000\000\000\000\000\000\000\040\000\000\000' > "$work/cut.bk"
cp "$work/cut.bk" "$work/whole.bk"
printf '\000\000\000\000\000\000\000\000\000\000\000\000' >> "$work/whole.bk"
expect 2 "restore of a file cut short" "$tool" fs "$volume" restore "$work/cut.bk" /x
err_has "restore of a file cut short" "cut short"
head -c 30 "$work/cut.bk" > "$work/cut_inside.bk"
expect 2 "restore of a file cut inside a piece" "$tool" fs "$volume" restore "$work/cut_inside.bk" /x
err_has "restore of a file cut inside a piece" "inside a piece of kind 1"
expect 2 "restore of no backup file" "$tool" fs "$volume" restore "$work/tree/big.bin" /x
err_has "restore of no backup file" "not a backup file"
expect 1 "restore on FAT" "$tool" fs "$volume" restore "$work/whole.bk" /x
err_has "restore on FAT" "FILE_UNSUPPORTED"
cmp -s "$volume" "$work/before.img" || fail "a refused restore changed the volume"

# A volume no driver takes is a refusal, not an I/O error.
head -c 1048576 /dev/zero > "$work/zeros.img"
expect 1 "a volume of zeros" "$tool" fs "$work/zeros.img" ls
err_has "a volume of zeros" "no driver recognises the volume"

# Lookups ignore case; a short name's case comes from the entry's flags.
expect 0 "cat in another case" "$tool" fs "$volume" cat /CASE/LOWER.TXT
out_is "cat in another case" "lower case"
expect 0 "ls of a directory" "$tool" fs "$volume" ls /case
out_is "ls of a directory" "lower.txt"
expect 0 "ls of the root" "$tool" fs "$volume" ls
[ "$(wc -l < "$work/out")" -eq 5 ] || fail "ls of the root: $(cat "$work/out")"
out_has "ls of the root" "full/"
expect 0 "ls -lh" "$tool" fs "$volume" ls -lh /
out_has "ls -lh" "2.9 MiB 20"
expect 0 "cat of two files" "$tool" fs "$volume" cat /full/one.txt /case/lower.txt
out_is "cat of two files" "one
lower case"
expect 1 "cat of a missing file" "$tool" fs "$volume" cat /case/none.txt
err_has "cat of a missing file" "FILE_NOT_FOUND"
expect 1 "ls of a missing directory" "$tool" fs "$volume" ls /nowhere

# stat against what mtools shows of the same entries.
expect 0 "stat of a long name" "$tool" fs "$volume" stat "/A rather long file name.text"
short=$(mdir -i "$volume" ::/ | sed -n 's/^\([^ ]*\) *\([^ ]*\) .*A rather long.*/\1.\2/p')
out_has "stat of a long name" "short name:  $short"
out_has "stat of a long name" "size:        5"
expect 0 "stat of a hidden file" "$tool" fs "$volume" stat /hidden.bin
out_has "stat of a hidden file" "hidden:      yes"
expect 0 "stat keeps the mtools time" "$tool" fs "$volume" stat /case/lower.txt
out_has "stat keeps the mtools time" "modified:    2012-03-04 05:06:08.000"
out_has "stat keeps the mtools time" "kind:        file"
# FAT keeps clock times without a zone: any TZ shows the same clock time.
expect 0 "stat in another time zone" env TZ=Asia/Kolkata "$tool" fs "$volume" stat /case/lower.txt
out_has "stat in another time zone" "modified:    2012-03-04 05:06:08.000"

# cp-out: into a folder under the entry's own name, with its time; a
# directory needs -r.
mkdir "$work/outdir"
expect 0 "cp-out into a folder" "$tool" fs "$volume" cp-out /big.bin /CASE/lower.txt "$work/outdir"
cmp -s "$work/outdir/big.bin" "$work/tree/big.bin" || fail "cp-out: big.bin differs"
[ "$(stat -c %Y "$work/outdir/lower.txt")" = "$(stat -c %Y "$work/tree/case/lower.txt")" ] ||
    fail "cp-out: the modification time is not kept"
# A copy held up for two seconds by a slow reader: a progress bar on a
# terminal, nothing when stderr is a file.
"$tool" fs "$volume" cat /big.bin 2> "$work/err" | (sleep 2; cat > /dev/null)
[ ! -s "$work/err" ] || fail "a progress bar off a terminal: $(head -c 200 "$work/err")"
script -qec "'$tool' fs '$volume' cat /big.bin | (sleep 2; cat > /dev/null)" "$work/terminal" > /dev/null
grep -q '\[#*\] 100% 2.9 MiB' "$work/terminal" || fail "no progress bar on a terminal: $(cat -v "$work/terminal")"
expect 1 "cp-out of a directory without -r" "$tool" fs "$volume" cp-out /full "$work/outdir"

# Refused changes leave the volume as it was, and clean.
expect 1 "rm of a non-empty directory" "$tool" fs "$volume" rm /full
mdir -i "$volume" ::/full/one.txt >/dev/null 2>&1 || fail "rm of a non-empty directory removed something"
expect 1 "mv onto an existing file" "$tool" fs "$volume" mv /full/one.txt /case/lower.txt
err_has "mv onto an existing file" "FILE_EXISTS"
[ "$(mtype -i "$volume" ::/case/lower.txt)" = "lower case" ] || fail "mv onto an existing file changed the target"
expect 1 "cp-in into a missing directory" "$tool" fs "$volume" cp-in "$work/tree/full/one.txt" /nowhere/x.txt
expect 1 "mkdir of an existing name" "$tool" fs "$volume" mkdir /full
fsck_clean "$volume" "refused changes"

# cp-in into a directory takes the host file's name.
expect 0 "cp-in into a directory" "$tool" fs "$volume" cp-in "$work/tree/full/one.txt" /case
[ "$(mtype -i "$volume" ::/case/one.txt)" = "one" ] || fail "cp-in into a directory: mtools reads no /case/one.txt"
fsck_clean "$volume" "cp-in into a directory"

# An image whose own name ends in ":2" is taken whole.
cp "$volume" "$work/odd:2"
expect 0 "an image name with a colon" "$tool" fs "$work/odd:2" cat /full/one.txt
out_is "an image name with a colon" "one"

# A volume of 4096-byte sectors is read as such without being told.
large="$work/large-sectors.img"
mkfs.fat -C -F 12 -S 4096 "$large" 8192 >/dev/null
printf 'large\n' > "$work/large"
mcopy -i "$large" "$work/large" ::/large.txt
expect 0 "4096-byte sectors, guessed" "$tool" fs "$large" cat /large.txt
out_is "4096-byte sectors, guessed" "large"
expect 0 "4096-byte sectors, told" "$tool" fs --sector-size 4096 "$large" cat /large.txt
out_is "4096-byte sectors, told" "large"

# Names as the host writes them: a case-only rename of a directory, case
# beyond ASCII as a firmware folds it, characters beyond the BMP as
# surrogate pairs that 7-Zip reads back, and no lone surrogates.
expect 0 "mkdir for a case-only rename" "$tool" fs "$volume" mkdir /readme.X
expect 0 "case-only rename of a directory" "$tool" fs "$volume" mv /readme.X /README.X
expect 0 "ls after a case-only rename" "$tool" fs "$volume" ls /
out_has "ls after a case-only rename" "README.X/"
expect 0 "mkdir of a Latin-1 name" "$tool" fs "$volume" mkdir /ña
expect 1 "mkdir of the same name in upper case" "$tool" fs "$volume" mkdir /ÑA
err_has "mkdir of the same name in upper case" "FILE_EXISTS"
# mtools drops characters beyond the BMP; 7-Zip reads them. A long name
# that mtools makes gets its pair by dd, as a Windows writer would store it.
expect 0 "cp-in under a name beyond the BMP" "$tool" fs "$volume" cp-in "$work/tree/full/one.txt" '/smile😀.txt'
7zz l "$volume" | grep -q 'smile😀\.txt$' || fail "a name beyond the BMP: 7-Zip lists no smile😀.txt"
printf 'made by mtools\n' > "$work/rocketXY.txt"
mcopy -i "$volume" "$work/rocketXY.txt" ::/
pair_at=$(grep -obUaP 't\x00X\x00Y\x00\.\x00t\x00x\x00' "$volume" | head -1 | cut -d: -f1)
printf '\075\330\200\336' | dd of="$volume" bs=1 seek="$((pair_at + 2))" conv=notrunc status=none
expect 0 "cat of a long name with a pair" "$tool" fs "$volume" cat '/rocket🚀.txt'
out_is "cat of a long name with a pair" "made by mtools"
expect 0 "ls of names beyond the BMP" "$tool" fs "$volume" ls
out_has "ls of names beyond the BMP" "rocket🚀.txt"
expect 2 "a path with a lone surrogate" "$tool" fs "$volume" mkdir "$(printf '/\355\240\200')"
fsck_clean "$volume" "names beyond ASCII"

# A full FAT12 root: its driver refuses even a rename in place with the code
# of a bad name, as it adds the new entry before it drops the old; the tool
# says which of the two it is, and nothing changes.
rooted="$work/full-root.img"
mkfs.fat -C -F 12 -r 16 "$rooted" 1024 >/dev/null
for n in $(seq 1 16); do printf '%s\n' "$n" > "$work/F$n.TXT"; done
(cd "$work" && mcopy -i "$rooted" F?.TXT F??.TXT ::/)
cp "$rooted" "$work/full-root-before.img"
expect 1 "a rename in a full FAT12 root" "$tool" fs "$rooted" mv /F1.TXT /G1.TXT
err_has "a rename in a full FAT12 root" "the root directory is full"
expect 1 "mkdir in a full FAT12 root" "$tool" fs "$rooted" mkdir /new
err_has "mkdir in a full FAT12 root" "the root directory is full"
expect 1 "a bad name in a full FAT12 root" "$tool" fs "$rooted" mkdir '/a?b'
err_has "a bad name in a full FAT12 root" "a bad name"
cmp -s "$rooted" "$work/full-root-before.img" || fail "refusals in a full FAT12 root changed the image"

# Times FAT can't hold move to the nearest it can, and say so.
touch -d '1975-06-01 12:00:00' "$work/old.txt"
touch -d '2150-06-01 12:00:00' "$work/late.txt"
expect 0 "cp-in -p of a time before 1980" "$tool" fs "$volume" cp-in -p "$work/old.txt" /old.txt
err_has "cp-in -p of a time before 1980" "stored as 1980-01-01 00:00:00"
expect 0 "cp-in -p of a time after 2107" "$tool" fs "$volume" cp-in -p "$work/late.txt" /late.txt
expect 0 "stat of a clamped time" "$tool" fs "$volume" stat /old.txt /late.txt
out_has "stat of a clamped time" "modified:    1980-01-01 00:00:00.000"
out_has "stat of a clamped time" "modified:    2107-12-31 23:59:58.000"

# Host input that is wrong is said as such, with status 2.
cp "$volume" "$work/before-copy.img"
expect 2 "cp-out onto the image itself" "$tool" fs "$volume" cp-out /full/one.txt "$volume"
cmp -s "$volume" "$work/before-copy.img" || fail "cp-out onto the image itself changed the image"
expect 2 "a directory as the image" "$tool" fs "$work/tree" ls
err_has "a directory as the image" "a directory, not a disk image"
head -c $((8 * 1048576)) "$volume" > "$work/half.img"
expect 2 "an image cut to half its volume" "$tool" fs "$work/half.img" ls
err_has "an image cut to half its volume" "shorter than its boot sector says"
expect 1 "a partition number on an image without a GPT" "$tool" fs "$volume:1" ls
err_has "a partition number on an image without a GPT" "the image has no GPT"
for suffix in -1 99999999999 01234567-89AB-CDEF-0123-45678 frobnicate; do
    expect 2 "the volume suffix :$suffix" "$tool" fs "$volume:$suffix" ls
    err_has "the volume suffix :$suffix" "partition"
done
expect 0 "a path that starts with //" "$tool" fs "$volume" cat //full//one.txt
out_is "a path that starts with //" "one"

# ---- a damaged volume: refused with a reason, never a hang ----
# mtools makes /a/b/x.txt; dd then points b's entry back at /a, so the tree
# holds its own ancestor, and gives x.txt a size its one cluster can't hold.
damaged="$work/damaged.img"
mkfs.fat -C -F 16 -s 1 "$damaged" 16384 >/dev/null
mmd -i "$damaged" ::/a ::/a/b
printf 'x\n' > "$work/x"
mcopy -i "$damaged" "$work/x" ::/a/b/x.txt
u8() { od -An -tu1 -j"$2" -N1 "$1" | tr -d ' '; }
u16() { od -An -tu2 -j"$2" -N2 "$1" | tr -d ' '; }
sector_bytes=$(u16 "$damaged" 11)
cluster_bytes=$((sector_bytes * $(u8 "$damaged" 13)))
data=$(((($(u16 "$damaged" 14) + $(u8 "$damaged" 16) * $(u16 "$damaged" 22)) * sector_bytes) + $(u16 "$damaged" 17) * 32))
cluster_a=$(mshowfat -i "$damaged" ::/a | tr -cd '0-9')
cluster_b=$(mshowfat -i "$damaged" ::/a/b | tr -cd '0-9')
# Behind "." and "..", the third entry of each directory.
entry_b=$((data + (cluster_a - 2) * cluster_bytes + 64))
entry_x=$((data + (cluster_b - 2) * cluster_bytes + 64))
printf '\240\206\001\000' | dd of="$damaged" bs=1 seek=$((entry_x + 28)) conv=notrunc status=none
expect 1 "a file longer than its chain" timeout 60 "$tool" fs "$damaged" cat /a/b/x.txt
err_has "a file longer than its chain" "FILE_CORRUPT"
printf "\\$(printf '%03o' "$cluster_a")\\000" | dd of="$damaged" bs=1 seek=$((entry_b + 26)) conv=notrunc status=none
expect 1 "a directory that holds its ancestor" timeout 60 "$tool" fs "$damaged" ls -R /
err_has "a directory that holds its ancestor" "levels of directories"
mkdir "$work/loop-out"
expect 1 "copying out a directory that holds its ancestor" timeout 60 "$tool" fs "$damaged" cp-out -r /a "$work/loop-out"

# A long name that dd turns into "../escape.txt" is not copied out of the
# target folder. Its one long entry is the first of the root directory.
hostile="$work/hostile.img"
mkfs.fat -C -F 16 -s 1 "$hostile" 16384 >/dev/null
printf 'out\n' > "$work/xx_escape.txt"
mcopy -i "$hostile" "$work/xx_escape.txt" ::/xx_escape.txt
root_dir=$((($(u16 "$hostile" 14) + $(u8 "$hostile" 16) * $(u16 "$hostile" 22)) * $(u16 "$hostile" 11)))
printf '.' | dd of="$hostile" bs=1 seek=$((root_dir + 1)) conv=notrunc status=none
printf '.' | dd of="$hostile" bs=1 seek=$((root_dir + 3)) conv=notrunc status=none
printf '/' | dd of="$hostile" bs=1 seek=$((root_dir + 5)) conv=notrunc status=none
mkdir -p "$work/hostile/inner"
expect 1 "a name with a path in it" "$tool" fs "$hostile" cp-out -r / "$work/hostile/inner"
[ ! -e "$work/hostile/escape.txt" ] || fail "a name with a path in it: a file was written outside the target"

# ---- symbolic links on ext: shown, copied as links, followed on request ----
links="$work/links.img"
mkdir -p "$work/linktree/dir/deep"
printf 'target\n' > "$work/linktree/dir/file.txt"
printf 'after\n' > "$work/linktree/zz_after.txt"
ln -s dir/file.txt "$work/linktree/relative"
ln -s /dir "$work/linktree/absolute"
ln -s nowhere "$work/linktree/dangling"
ln -s loop2 "$work/linktree/loop1"
ln -s loop1 "$work/linktree/loop2"
mkfs.ext4 -q -d "$work/linktree" "$links" 4M >/dev/null
expect 0 "ls -l of links" "$tool" fs "$links" ls -l /
out_has "ls -l of links" "relative -> dir/file.txt"
expect 0 "stat of a link" "$tool" fs "$links" stat /absolute
out_has "stat of a link" "target:      /dir"
expect 1 "cat of a link" "$tool" fs "$links" cat /relative
err_has "cat of a link" "a symbolic link to 'dir/file.txt'"
mkdir "$work/links-out" "$work/links-deref"
expect 0 "cp-out -r keeps links" "$tool" fs "$links" cp-out -r / "$work/links-out"
[ "$(readlink "$work/links-out/relative")" = "dir/file.txt" ] || fail "cp-out -r: relative is not the link it was"
[ "$(cat "$work/links-out/zz_after.txt")" = "after" ] || fail "cp-out -r: the copy stopped at a link"
expect 0 "cp-out -L follows a link within the volume" "$tool" fs "$links" cp-out -rL /relative /absolute \
    "$work/links-deref"
[ "$(cat "$work/links-deref/relative")" = "target" ] || fail "cp-out -L: relative is not the file it points to"
[ -d "$work/links-deref/absolute/deep" ] || fail "cp-out -L: /dir was not followed from the volume's root"
expect 1 "cp-out -L of a dangling link" "$tool" fs "$links" cp-out -L /dangling "$work/links-deref"
expect 1 "cp-out -L of a loop" "$tool" fs "$links" cp-out -L /loop1 "$work/links-deref"
err_has "cp-out -L of a loop" "too many levels of symbolic links"
# Without checksums of its metadata, which the driver doesn't write, the
# volume takes links.
mkfs.ext4 -q -O ^metadata_csum -d "$work/linktree" "$links" 4M >/dev/null
expect 0 "ln of a file" "$tool" fs "$links" ln /dir/file.txt /hard.txt
expect 0 "ln -s" "$tool" fs "$links" ln -s ../zz_after.txt /dir/up
expect 1 "ln onto a taken name" "$tool" fs "$links" ln /zz_after.txt /relative
err_has "ln onto a taken name" "FILE_EXISTS"
[ "$(debugfs -R 'stat /dir/file.txt' "$links" 2>/dev/null | sed -n 's/.*Links: \([0-9]*\).*/\1/p')" = 2 ] ||
    fail "ln: the file does not count two links"
[ "$(debugfs -R 'cat /hard.txt' "$links" 2>/dev/null)" = "target" ] || fail "ln: the new name does not read as the file"
debugfs -R 'stat /dir/up' "$links" 2>/dev/null | grep -qF 'Fast link dest: "../zz_after.txt"' ||
    fail "ln -s: the link does not hold its target"
e2fsck -fn "$links" > "$work/out" 2>&1 || fail "ln on ext4: e2fsck: $(tail -5 "$work/out")"

# ---- a GPT disk: each partition by its number and by its unique GUID ----
disk="$work/disk.img"
"$images/make_gpt_disk.sh" "$disk" 24 4:01234567-89AB-CDEF-0123-456789ABCDEF \
    12:A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061 > "$work/layout" || fail "sgdisk could not make the disk"
first1=$(sed -n 's/^1 \([0-9]*\) .*/\1/p' "$work/layout")
first2=$(sed -n 's/^2 \([0-9]*\) .*/\1/p' "$work/layout")
mkfs.fat -F 12 --offset "$first1" "$disk" 4096 >/dev/null 2>&1
mkfs.fat -F 16 --offset "$first2" "$disk" 12288 >/dev/null 2>&1
printf 'first\n' > "$work/which"
mcopy -i "$disk@@$((first1 * 512))" "$work/which" ::/which.txt
printf 'second\n' > "$work/which"
mcopy -i "$disk@@$((first2 * 512))" "$work/which" ::/which.txt

expect 0 "partition 1" "$tool" fs "$disk:1" cat /which.txt
out_is "partition 1" "first"
expect 0 "partition 2" "$tool" fs "$disk:2" cat /which.txt
out_is "partition 2" "second"
expect 0 "partition by GUID" "$tool" fs "$disk:A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061" cat /which.txt
out_is "partition by GUID" "second"
expect 0 "partition by a GUID in braces" "$tool" fs "$disk:{A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061}" cat /which.txt
out_is "partition by a GUID in braces" "second"
expect 0 "partition by a lower-case GUID" "$tool" fs "$disk:01234567-89ab-cdef-0123-456789abcdef" cat /which.txt
out_is "partition by a lower-case GUID" "first"
expect 1 "partition 3 of two" "$tool" fs "$disk:3" ls
expect 1 "a GUID of no partition" "$tool" fs "$disk:A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5062" ls
expect 1 "the whole GPT disk as one volume" "$tool" fs "$disk" ls

# Writes through a partition land in that partition only.
expect 0 "cp-in on partition 2" "$tool" fs "$disk:2" cp-in "$work/tree/full/one.txt" /added.txt
[ "$(mtype -i "$disk@@$((first2 * 512))" ::/added.txt)" = "one" ] || fail "cp-in on partition 2: mtools reads nothing"
mdir -i "$disk@@$((first1 * 512))" ::/added.txt >/dev/null 2>&1 && fail "cp-in on partition 2 reached partition 1"
dd if="$disk" of="$work/part2.img" bs=512 skip="$first2" count=24576 status=none
fsck_clean "$work/part2.img" "cp-in on partition 2"

# ---- NTFS: read, and the changes of the command ----
# mkntfs makes the volume, ntfs-3g over FUSE fills it; what our changes
# leave is read back by ntfscat and ntfsls and judged by ntfsfix.
ntfs="$work/ntfs.img"
truncate -s 16M "$ntfs"
mkntfs -F -f -q -L NTFSVOL "$ntfs" >/dev/null 2>&1 || fail "mkntfs could not make a volume"
mkdir "$work/ntfs-mount"
trap 'umount "$work/ntfs-mount" 2>/dev/null; rm -rf "$work"' EXIT
if ntfs-3g "$ntfs" "$work/ntfs-mount"; then
    mkdir "$work/ntfs-mount/dir" "$work/ntfs-mount/dir/empty"
    printf 'on ntfs\n' > "$work/ntfs-mount/dir/one.txt"
    head -c 200000 /dev/urandom > "$work/ntfs-mount/big.bin"
    touch -d '2012-03-04 05:06:08' "$work/ntfs-mount/dir/one.txt"
    cp "$work/ntfs-mount/big.bin" "$work/ntfs-big.bin"
    umount "$work/ntfs-mount"
else
    fail "ntfs-3g could not mount the volume"
fi
expect 0 "NTFS: cat" "$tool" fs "$ntfs" cat /DIR/One.TXT
out_is "NTFS: cat" "on ntfs"
expect 0 "NTFS: cat of a file in clusters" "$tool" fs "$ntfs" cat /big.bin
cmp -s "$work/out" "$work/ntfs-big.bin" || fail "NTFS: big.bin reads otherwise than ntfs-3g wrote it"
expect 0 "NTFS: ls hides the system files" "$tool" fs "$ntfs" ls /
out_is "NTFS: ls hides the system files" "big.bin
dir/"
expect 0 "NTFS: stat" "$tool" fs "$ntfs" stat /dir/one.txt
out_has "NTFS: stat" "modified:    2012-03-04 05:06:08"
out_has "NTFS: stat" "size:        8"
expect 0 "NTFS: cp-in of a new file" "$tool" fs "$ntfs" cp-in "$work/tree/full/one.txt" /new.txt
expect 0 "NTFS: cp-in over a file" "$tool" fs "$ntfs" cp-in "$work/ntfs-big.bin" /dir/one.txt
expect 0 "NTFS: mkdir" "$tool" fs "$ntfs" mkdir /dir/made
expect 0 "NTFS: mv" "$tool" fs "$ntfs" mv /dir/one.txt /moved.bin
expect 0 "NTFS: rm of a file" "$tool" fs "$ntfs" rm /big.bin
expect 0 "NTFS: rm of an empty directory" "$tool" fs "$ntfs" rm /dir/empty
[ "$(ntfscat "$ntfs" /new.txt 2>/dev/null)" = "$(cat "$work/tree/full/one.txt")" ] || fail "NTFS: ntfscat reads otherwise what cp-in wrote"
ntfscat "$ntfs" /moved.bin 2>/dev/null | cmp -s - "$work/ntfs-big.bin" || fail "NTFS: the file copied over and moved reads otherwise"
[ "$(ntfsls "$ntfs" 2>/dev/null | sort | tr '\n' ' ')" = "dir moved.bin new.txt " ] || fail "NTFS: ntfsls / shows $(ntfsls "$ntfs" 2>&1 | tr '\n' ' ')"
[ "$(ntfsls -p /dir "$ntfs" 2>/dev/null | grep -vx '\.\.\{0,1\}' | tr '\n' ' ')" = "made " ] || fail "NTFS: ntfsls /dir shows $(ntfsls -p /dir "$ntfs" 2>&1 | tr '\n' ' ')"
ntfsfix -n "$ntfs" > "$work/ntfsfix" 2>&1 || fail "NTFS: ntfsfix -n after the changes: $(tail -3 "$work/ntfsfix")"

# The same volume as the second partition of a GPT disk, changed there and
# judged when cut out again.
ntfsdisk="$work/ntfs-disk.img"
"$images/make_gpt_disk.sh" "$ntfsdisk" 40 4:0F1E2D3C-4B5A-4978-8796-A5B4C3D2E1F0 \
    16:1A2B3C4D-5E6F-4A0B-9C1D-2E3F4A5B6C7D > "$work/layout" || fail "sgdisk could not make the disk"
ntfsfirst=$(sed -n 's/^2 \([0-9]*\) .*/\1/p' "$work/layout")
dd if="$ntfs" of="$ntfsdisk" bs=512 seek="$ntfsfirst" conv=notrunc status=none
expect 0 "NTFS on a GPT partition: cp-in" "$tool" fs "$ntfsdisk:2" cp-in "$work/ntfs-big.bin" /dir/copied.bin
expect 0 "NTFS on a GPT partition: rm" "$tool" fs "$ntfsdisk:2" rm /new.txt
dd if="$ntfsdisk" of="$work/ntfs-cut.img" bs=512 skip="$ntfsfirst" count=32768 status=none
ntfscat "$work/ntfs-cut.img" /dir/copied.bin 2>/dev/null | cmp -s - "$work/ntfs-big.bin" ||
    fail "NTFS on a GPT partition: ntfscat reads otherwise what cp-in wrote"
[ "$(ntfsls "$work/ntfs-cut.img" 2>/dev/null | sort | tr '\n' ' ')" = "dir moved.bin " ] ||
    fail "NTFS on a GPT partition: ntfsls / shows $(ntfsls "$work/ntfs-cut.img" 2>&1 | tr '\n' ' ')"
ntfsfix -n "$work/ntfs-cut.img" > "$work/ntfsfix" 2>&1 || fail "NTFS on a GPT partition: ntfsfix -n: $(tail -3 "$work/ntfsfix")"

head -c $((8 * 1048576)) "$ntfs" > "$work/ntfs-half.img"
expect 2 "NTFS: an image cut to half its volume" "$tool" fs "$work/ntfs-half.img" ls
err_has "NTFS: an image cut to half its volume" "shorter than its boot sector says"
# 4096-byte sectors are found from the boot sector without being told.
ntfs4k="$work/ntfs-4k.img"
truncate -s 16M "$ntfs4k"
mkntfs -F -f -q -s 4096 "$ntfs4k" >/dev/null 2>&1 || fail "mkntfs could not make a volume of 4096-byte sectors"
printf 'large sectors\n' > "$work/large4k"
ntfscp -q "$ntfs4k" "$work/large4k" /large.txt 2>/dev/null || fail "ntfscp could not copy onto the volume"
expect 0 "NTFS: 4096-byte sectors, guessed" "$tool" fs "$ntfs4k" cat /large.txt
out_is "NTFS: 4096-byte sectors, guessed" "large sectors"

# ---- HFS+: read, and every change refused, leaving the volume as it was ----
# xorriso's HFS+ writer fills the volume inside an Apple partition map; dd
# cuts the Apple_HFS partition out of it, and fsck.hfsplus mends the free
# block count that xorriso leaves a little off. The driver has no write
# path yet, so a change is refused before anything reaches the disk.
hfs_tree="$work/hfs-tree"
mkdir -p "$hfs_tree/dir/empty"
printf 'on hfs\n' > "$hfs_tree/dir/one.txt"
head -c 300000 /dev/urandom > "$hfs_tree/big.bin"
touch -d '2012-03-04 05:06:08' "$hfs_tree/dir/one.txt"
xorriso -outdev "$work/hfs.iso" -hfsplus on -boot_image any hfsplus_block_size=2048 -map "$hfs_tree" / \
    >/dev/null 2>&1 || fail "xorriso could not make an HFS+ volume"
# The map's block size is the big-endian u16 at byte 2; its entries ("PM")
# follow from block 1, each with its start and length (u32 at 8 and 12)
# and its type at 48, all in the map's blocks.
be32() { od -An -tu4 --endian=big -j "$2" -N4 "$1" | tr -d ' '; }
apm_unit=$(od -An -tu2 --endian=big -j2 -N2 "$work/hfs.iso" | tr -d ' ')
hfs="$work/hfs.img"
entry=1
while [ "$(dd if="$work/hfs.iso" bs=1 skip=$((entry * apm_unit)) count=2 2>/dev/null)" = PM ]; do
    type=$(dd if="$work/hfs.iso" bs=1 skip=$((entry * apm_unit + 48)) count=32 2>/dev/null | tr -d '\000')
    if [ "$type" = Apple_HFS ]; then
        dd if="$work/hfs.iso" of="$hfs" bs="$apm_unit" skip="$(be32 "$work/hfs.iso" $((entry * apm_unit + 8)))" \
            count="$(be32 "$work/hfs.iso" $((entry * apm_unit + 12)))" 2>/dev/null
        break
    fi
    entry=$((entry + 1))
done
for round in 1 2 3; do
    fsck.hfsplus -fn "$hfs" >/dev/null 2>&1 && break
    fsck.hfsplus -fy "$hfs" >/dev/null 2>&1
done
fsck.hfsplus -fn "$hfs" >/dev/null 2>&1 || fail "HFS+: the volume xorriso made isn't clean"
expect 0 "HFS+: cat" "$tool" fs "$hfs" cat /dir/one.txt
out_is "HFS+: cat" "on hfs"
expect 0 "HFS+: cat in another case" "$tool" fs "$hfs" cat /DIR/One.TXT
out_is "HFS+: cat in another case" "on hfs"
expect 0 "HFS+: cat of a large file" "$tool" fs "$hfs" cat /big.bin
cmp -s "$work/out" "$hfs_tree/big.bin" || fail "HFS+: big.bin reads otherwise than xorriso wrote it"
expect 0 "HFS+: ls" "$tool" fs "$hfs" ls /
out_is "HFS+: ls" "big.bin
dir/"
expect 0 "HFS+: ls of a folder" "$tool" fs "$hfs" ls /dir
out_is "HFS+: ls of a folder" "empty/
one.txt"
expect 0 "HFS+: stat" "$tool" fs "$hfs" stat /dir/one.txt
out_has "HFS+: stat" "modified:    2012-03-04 05:06:08"
out_has "HFS+: stat" "size:        7"
expect 0 "HFS+: cp-out" "$tool" fs "$hfs" cp-out /big.bin "$work/hfs-big.out"
cmp -s "$work/hfs-big.out" "$hfs_tree/big.bin" || fail "HFS+: cp-out copied otherwise than xorriso wrote it"
expect 1 "HFS+: cat of a missing file" "$tool" fs "$hfs" cat /dir/none.txt
# xorriso sets the volume's software lock, so the driver holds it read only.
cp "$hfs" "$work/hfs-before.img"
expect 1 "HFS+: cp-in of a new file" "$tool" fs "$hfs" cp-in "$work/tree/full/one.txt" /new.txt
err_has "HFS+: cp-in of a new file" "FILE_READ_ONLY"
expect 1 "HFS+: cp-in over a file" "$tool" fs "$hfs" cp-in "$work/tree/full/one.txt" /dir/one.txt
err_has "HFS+: cp-in over a file" "FILE_READ_ONLY"
expect 1 "HFS+: mkdir" "$tool" fs "$hfs" mkdir /dir/made
err_has "HFS+: mkdir" "FILE_READ_ONLY"
expect 1 "HFS+: mv" "$tool" fs "$hfs" mv /dir/one.txt /moved.txt
err_has "HFS+: mv" "FILE_READ_ONLY"
expect 1 "HFS+: rm of a file" "$tool" fs "$hfs" rm /big.bin
err_has "HFS+: rm of a file" "FILE_READ_ONLY"
expect 1 "HFS+: rm of an empty directory" "$tool" fs "$hfs" rm /dir/empty
err_has "HFS+: rm of an empty directory" "FILE_READ_ONLY"
cmp -s "$hfs" "$work/hfs-before.img" || fail "HFS+: a refused change altered the image"
fsck.hfsplus -fn "$hfs" > "$work/fsck-hfs" 2>&1 || fail "HFS+: fsck.hfsplus -fn after refused changes: $(tail -3 "$work/fsck-hfs")"
# Fresh volumes of mkfs.hfsplus, one journaled: an empty root, the
# journal's two files left out. Unlocked, they take a change that fsck
# finds sound.
for journal in "" -J; do
    fresh="$work/hfs-fresh$journal.img"
    # A journal needs 8 MiB at least, which mkfs gives from 128 MiB on.
    if [ -n "$journal" ]; then truncate -s 128M "$fresh"; else truncate -s 8M "$fresh"; fi
    mkfs.hfsplus $journal -v Fresh "$fresh" >/dev/null 2>&1 || fail "mkfs.hfsplus $journal could not make a volume"
    expect 0 "HFS+ $journal: ls of a fresh volume" "$tool" fs "$fresh" ls /
    out_is "HFS+ $journal: ls of a fresh volume" ""
    expect 0 "HFS+ $journal: mkdir" "$tool" fs "$fresh" mkdir /made
    head -c 300000 /dev/urandom > "$work/hfs-data"
    expect 0 "HFS+ $journal: cp-in" "$tool" fs "$fresh" cp-in "$work/hfs-data" /made/data.bin
    expect 0 "HFS+ $journal: mv" "$tool" fs "$fresh" mv /made/data.bin /moved.bin
    fsck.hfsplus -fn "$fresh" >/dev/null 2>&1 || fail "HFS+ $journal: fsck.hfsplus -fn after the changes"
    icat "$fresh" "$(ifind -n moved.bin "$fresh")" 2>/dev/null | cmp -s - "$work/hfs-data" ||
        fail "HFS+ $journal: icat reads otherwise what cp-in wrote"
done

[ "$failures" -eq 0 ] && echo "fs command: all checks passed" && exit 0
echo "fs command: $failures failure(s)"
exit 1
