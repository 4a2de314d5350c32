#!/bin/sh
# morvane boot --stats: the Block I/O reads of a boot from a GPT disk made
# by sgdisk, whose FAT32 partition (mkfs.fat, mtools) holds the kernel and
# a ramdisk of an odd size. The reads must cover both files at least once
# and not twice over, and the per-partition lines and the size classes
# must add up to the totals.
set -u
tool="$1"
. "$(dirname "$0")/test_lib.sh"

# poke FILE OFFSET OCTAL-BYTES: writes bytes at an offset.
poke() { printf "$3" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }

# A bzImage with one setup sector and 4 KiB of payload, as the boot tool's
# own test makes it: protocol 2.15, loaded high, relocatable.
kernel="$work/vmlinuz"
dd if=/dev/zero of="$kernel" bs=512 count=10 status=none
poke "$kernel" 497 '\001'
poke "$kernel" 510 '\125\252'
poke "$kernel" 513 '\146'
poke "$kernel" 514 'HdrS'
poke "$kernel" 518 '\017\002'
poke "$kernel" 529 '\001'
poke "$kernel" 564 '\001\014'
poke "$kernel" 608 '\000\040\000\000'
ramdisk="$work/initrd.img"
head -c $((3 * 1048576 + 1234)) /dev/urandom > "$ramdisk"
files=$(( $(stat -c %s "$kernel") + $(stat -c %s "$ramdisk") ))

guid=2f4e6a8c-1b3d-4e5f-9a7b-c8d9e0f1a2b3
disk="$work/disk.img"
truncate -s 48M "$disk"
sgdisk -o -n 1:0:+40M -t 1:0700 -u "1:$guid" -n 2:0:+1M -t 2:8300 "$disk" > "$work/sgdisk.txt" 2>&1 ||
    fail "sgdisk: $(cat "$work/sgdisk.txt")"
first=$(sgdisk -i 1 "$disk" | sed -n 's/^First sector: \([0-9]*\).*/\1/p')
mkfs.fat -F 32 --offset "$first" "$disk" $((40 * 1024)) > /dev/null 2>&1 || fail "mkfs.fat failed"
mcopy -i "$disk@@$((first * 512))" "$kernel" ::/vmlinuz && mcopy -i "$disk@@$((first * 512))" "$ramdisk" ::/initrd.img ||
    fail "mcopy failed"

mkdir -p "$work/esp/EFI/BOOT"
printf '<R><Menu><Topic Delay="0"/><Entry Key="l" Default=""><LoadKernel><GPT Guid="%s"/>%s%s</LoadKernel></Entry></Menu></R>\n' \
    "$guid" '<Kernel Path="/vmlinuz" Arguments="quiet"/>' '<Ramdisk Path="/initrd.img"/>' > "$work/esp/EFI/BOOT/BOOTX64.xml"

expect 0 "boot without --stats" "$tool" boot --esp "$work/esp" --disk "$disk"
grep -q 'block I/O reads' "$work/out" && fail "without --stats: the reads were printed"

expect 0 "boot --stats" "$tool" boot --esp "$work/esp" --disk "$disk" --stats
out_has "boot --stats" "ended: the kernel took over"
out_has "boot --stats" "block I/O reads (simulated time "

# The totals, the sums of the per-medium lines and of the size classes,
# and the size classes that break their own bounds.
awk -v files="$files" -v disk="$disk" '
    / calls .* bytes/ && !/^ *all disks/ && !/^ *[0-9]+-[0-9]+ / { medium_calls += $(NF - 7); medium_bytes += $(NF - 5) }
    $1 == disk ":1" { partition_bytes = $4 }
    $1 == disk ":2" { print "the blank partition was read" }
    /^ *all disks/ { calls = $3; bytes = $5 }
    /^ *[0-9]+-[0-9]+ / {
        split($1, bound, "-"); n = $2; b = $4; low = $7 + 0; high = $9 + 0
        class_calls += n; class_bytes += b
        if (low < bound[1] || high > bound[2] || low * n > b || high * n < b) print "size class out of its bounds: " $0
    }
    END {
        if (calls == "") { print "no all-disks line"; exit }
        if (medium_calls != calls || medium_bytes != bytes) print "media add up to " medium_calls "/" medium_bytes ", not " calls "/" bytes
        if (class_calls != calls || class_bytes != bytes) print "size classes add up to " class_calls "/" class_bytes ", not " calls "/" bytes
        if (partition_bytes < files) print "the partition gave " partition_bytes " bytes, short of the files'\'' " files
        if (bytes >= 2 * files) print bytes " bytes read for files of " files ": read twice over"
    }' "$work/out" > "$work/problems"
while read -r problem; do fail "boot --stats: $problem"; done < "$work/problems"

[ "$failures" -eq 0 ] && echo "boot stats: all passed"
[ "$failures" -eq 0 ]
