#!/bin/sh
# The boot subcommand: the loader on a simulated machine, driven by keys,
# against the sample document and a kernel whose header is written here
# field by field.
set -u
tool="$1"
examples="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# poke FILE OFFSET OCTAL-BYTES: writes bytes at an offset.
poke() { printf "$3" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }

# A bzImage with one setup sector and 4 KiB of payload: protocol 2.15,
# loaded high, relocatable, 4 KiB alignment, init_size 0x2000.
kernel="$work/esp/vmlinuz"
mkdir -p "$work/esp/EFI/BOOT"
dd if=/dev/zero of="$kernel" bs=512 count=10 status=none
poke "$kernel" 497 '\001'                 # setup_sects
poke "$kernel" 510 '\125\252'             # boot_flag 0xAA55
poke "$kernel" 513 '\146'                 # jump offset 0x66
poke "$kernel" 514 'HdrS'
poke "$kernel" 518 '\017\002'             # version 0x020F
poke "$kernel" 529 '\001'                 # loadflags: loaded high
poke "$kernel" 564 '\001\014'             # relocatable, min_alignment 12
poke "$kernel" 608 '\000\040\000\000'     # init_size
printf 'ramdisk' > "$work/esp/initrd.img"
cp "$examples/morvane.xml" "$work/esp/EFI/BOOT/BOOTX64.xml"

# Keys after two seconds: "2" opens the nested menu, F10 leaves.
"$tool" boot --esp "$work/esp" --keys '{+2}2{F10}' > "$work/out" 2>&1 || fail "boot exited with $?"
grep -q '^More choices' "$work/out" || fail "the nested menu did not show: $(cat "$work/out")"
grep -q '^ended: returned 1; the firmware goes on' "$work/out" || fail "no ending line: $(cat "$work/out")"
grep -q 'simulated time 2.0 s' "$work/out" || fail "the keys did not come at 2 s: $(cat "$work/out")"

# No key: the default entry boots the kernel, and the hand-over is shown.
"$tool" boot --esp "$work/esp" > "$work/out" 2>&1 || fail "boot exited with $?"
grep -q '^Loading Linux\.\.\.$' "$work/out" || fail "no loading line: $(cat "$work/out")"
grep -q 'boot protocol     2\.15' "$work/out" || fail "protocol: $(cat "$work/out")"
grep -q 'command line      "reboot=k console=ttyS0 panic=-1 quiet"' "$work/out" || fail "command line: $(cat "$work/out")"
grep -q 'ramdisk           0x[0-9a-f]*, 7 bytes' "$work/out" || fail "ramdisk: $(cat "$work/out")"
grep -q 'video             1024x768, 32 bpp' "$work/out" || fail "video: $(cat "$work/out")"
grep -q '^ended: the kernel took over' "$work/out" || fail "ending: $(cat "$work/out")"

# Without a display there is no framebuffer for the kernel: refused.
"$tool" boot --esp "$work/esp" --no-display > "$work/out" 2>&1
[ $? -eq 1 ] || fail "an error report must exit with 1"
grep -q "code 21495812" "$work/out" || fail "no display: $(cat "$work/out")"
grep -q "^reported: VIDEO_NOT_DETECTED " "$work/out" || fail "no display, name: $(cat "$work/out")"
grep -q "refused\|partitions" "$work/out" && fail "no display is no file error: $(cat "$work/out")"

# A kernel path that the ESP lacks: the report, then the path asked for.
sed 's|Path="[^"]*vmlinuz"|Path="\\boot\\missing"|' "$examples/morvane.xml" > "$work/esp/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/esp" > "$work/out" 2>&1
[ $? -eq 1 ] || fail "a missing kernel must exit with 1"
grep -q "^last file the ESP refused: .boot.missing " "$work/out" || fail "missing kernel path: $(cat "$work/out")"
grep -qxF 'the loader looked for \boot\missing on the ESP: no file at this path' "$work/out" || fail "missing kernel lead: $(cat "$work/out")"
cp "$examples/morvane.xml" "$work/esp/EFI/BOOT/BOOTX64.xml"

# No keys and no time-out: the run ends waiting.
mkdir -p "$work/wait/EFI/BOOT"
printf '<R><Menu><Entry Key="a" Text="only"><Chainload/></Entry></Menu></R>' > "$work/wait/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/wait" > "$work/out" 2>&1
[ $? -eq 1 ] || fail "waiting forever must exit with 1"
grep -q '^ended: waiting for a key that never comes' "$work/out" || fail "waiting: $(cat "$work/out")"

# A GPT disk made by sgdisk: partition 1 holds no file system, partition 2
# is a FAT volume made by mkfs.fat with the kernel and a ramdisk of its own
# below \boot. The document names partition 2 by its GUID in lower case.
gpt_guid=6a1f3e2d-9b4c-4d5e-8f70-112233445566
blank_guid=0D9C8B7A-6F5E-4D3C-AB2A-998877665544
disk="$work/gpt.img"
truncate -s 8M "$disk"
sgdisk -o -n 1:0:+1M -t 1:8300 -u 1:$blank_guid -n 2:0:0 -t 2:0700 -u 2:$gpt_guid "$disk" > "$work/sgdisk.out" 2>&1 ||
    fail "sgdisk: $(cat "$work/sgdisk.out")"
first=$(sgdisk -i 2 "$disk" | sed -n 's/^First sector: \([0-9]*\).*/\1/p')
last=$(sgdisk -i 2 "$disk" | sed -n 's/^Last sector: \([0-9]*\).*/\1/p')
mkfs.fat -C "$work/part.img" $(( (last - first + 1) / 2 )) > /dev/null || fail "mkfs.fat"
printf 'ramdisk from the partition' > "$work/gpt-initrd.img"
if ! { mmd -i "$work/part.img" ::/boot && mcopy -i "$work/part.img" "$kernel" ::/boot/vmlinuz &&
       mcopy -i "$work/part.img" "$work/gpt-initrd.img" ::/boot/initrd.img; }; then
    fail "mtools cannot fill the partition"
fi
dd if="$work/part.img" of="$disk" bs=512 seek="$first" conv=notrunc status=none
rm -f "$kernel" "$work/esp/initrd.img"

# gpt_document GUID: a menu whose default entry boots from the partition GUID.
gpt_document() {
    printf '<R><Menu><Topic Delay="1"/><Entry Key="l" Text="Linux" Default=""><LoadKernel>'
    printf '<Kernel Path="/boot/vmlinuz" Arguments="root=PARTUUID=%s"/>' "$gpt_guid"
    printf '<Ramdisk Path="\\boot\\initrd.img"/><GPT Guid="%s"/></LoadKernel></Entry></Menu></R>' "$1"
}
gpt_document "$gpt_guid" > "$work/esp/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/esp" --disk "$disk" > "$work/out" 2>&1 || fail "boot exited with $?"
grep -q '^ended: the kernel took over' "$work/out" || fail "GPT boot: $(cat "$work/out")"
grep -q 'ramdisk           0x[0-9a-f]*, 26 bytes' "$work/out" || fail "GPT ramdisk: $(cat "$work/out")"
grep -q "command line      \"reboot=k root=PARTUUID=$gpt_guid\"" "$work/out" || fail "GPT command line: $(cat "$work/out")"

# A ramdisk that the FAT partition lacks: the loader's report says only
# that the volume failed; the path and the partition follow it.
gpt_document "$gpt_guid" | sed 's|initrd.img|none|' > "$work/esp/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/esp" --disk "$disk" > "$work/out" 2>&1
[ $? -eq 1 ] || fail "a missing ramdisk on a partition must exit with 1"
grep -q "^Runtime exception '', code 21495816, tag " "$work/out" || fail "missing ramdisk, report: $(cat "$work/out")"
grep -qixF "the loader looked for \\boot\\none on partition 2 ($gpt_guid) of $disk: no file at this path" "$work/out" ||
    fail "missing ramdisk, lead: $(cat "$work/out")"

# A GUID that no partition has, and a partition that no driver mounts: each
# stops the loader with its report and the lead to the partition, and no
# kernel runs.
gpt_document 6A1F3E2D-9B4C-4D5E-8F70-112233445567 > "$work/esp/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/esp" --disk "$disk" > "$work/out" 2>&1
grep -q "^Runtime exception 'No se pudo encontrar\.', code 1101838, tag 0x[0-9a-f]\{16\}$" "$work/out" ||
    fail "wrong GUID: $(cat "$work/out")"
grep -q "^reported: DISK_NOT_FOUND " "$work/out" || fail "wrong GUID, name: $(cat "$work/out")"
grep -qi "gpt.img:2  $gpt_guid\$" "$work/out" || fail "wrong GUID, partitions: $(cat "$work/out")"
grep -qi "gpt.img:1  $blank_guid\$" "$work/out" || fail "wrong GUID, partitions: $(cat "$work/out")"
grep -qixF "the loader looked for /boot/vmlinuz on partition 6A1F3E2D-9B4C-4D5E-8F70-112233445567: no attached disk has this partition" \
    "$work/out" || fail "wrong GUID, lead: $(cat "$work/out")"
gpt_document "$blank_guid" > "$work/esp/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/esp" --disk "$disk" > "$work/out" 2>&1
grep -q "^Runtime exception '', code 21495816, tag 0x[0-9a-f]\{16\}$" "$work/out" ||
    fail "unmounted partition: $(cat "$work/out")"
grep -q "^reported: VOLUME_NOT_MOUNTED " "$work/out" || fail "unmounted partition, name: $(cat "$work/out")"
grep -qi "gpt.img:1  $blank_guid  (read by the loader)" "$work/out" || fail "unmounted, partition read: $(cat "$work/out")"
grep -qi "gpt.img:2  $gpt_guid\$" "$work/out" || fail "unmounted, partition 2 was not read: $(cat "$work/out")"
grep -qixF "the loader looked for /boot/vmlinuz on partition 1 ($blank_guid) of $disk: no driver mounts this partition" "$work/out" ||
    fail "unmounted, lead: $(cat "$work/out")"
"$tool" boot --esp "$work/esp" --disk "$work/missing.img" > "$work/out" 2>&1
[ $? -eq 2 ] || fail "a missing disk image must exit with 2"

# A variable file is a copy of a machine's NVRAM: the run reads it and
# leaves it alone; --vars-out takes what the run leaves.
ovmf_vars=/usr/share/OVMF/OVMF_VARS_4M.fd
if [ -f "$ovmf_vars" ]; then
    cp "$ovmf_vars" "$work/vars.fd"
    # How the run ends doesn't matter here, only what it did to the files.
    "$tool" boot --esp "$work/esp" --vars "$work/vars.fd" > "$work/out" 2>&1
    [ $? -ne 2 ] || fail "boot with --vars: $(cat "$work/out")"
    cmp -s "$ovmf_vars" "$work/vars.fd" || fail "boot --vars changed the variable file"
    "$tool" boot --esp "$work/esp" --vars "$work/vars.fd" --vars-out "$work/after.fd" > "$work/out" 2>&1
    [ $? -ne 2 ] || fail "boot with --vars-out: $(cat "$work/out")"
    "$tool" vars "$work/after.fd" > "$work/after.txt" 2>&1 || fail "the --vars-out file is no variable file"
    "$tool" vars "$work/vars.fd" > "$work/before.txt" 2>&1
    cmp -s "$work/before.txt" "$work/after.txt" || fail "--vars-out: the entries changed: $(cat "$work/after.txt")"
fi
"$tool" boot --esp "$work/esp" --vars-out "$work/x.fd" > "$work/out" 2>&1
[ $? -eq 2 ] || fail "--vars-out without --vars must exit with 2"

# Usage errors exit with 2.
"$tool" boot --esp "$work/esp" --keys '{Nope}' > "$work/out" 2>&1
[ $? -eq 2 ] || fail "an unknown key name must exit with 2"
"$tool" boot --esp "$work/missing" > "$work/out" 2>&1
[ $? -eq 2 ] || fail "a missing ESP folder must exit with 2"

if [ "$failures" -eq 0 ]; then echo "boot command: all checks passed"; fi
[ "$failures" -eq 0 ]
