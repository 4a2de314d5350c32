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
grep -q "code 21495812" "$work/out" || fail "no display: $(cat "$work/out")"

# No keys and no time-out: the run ends waiting.
mkdir -p "$work/wait/EFI/BOOT"
printf '<R><Menu><Entry Key="a" Text="only"><Chainload/></Entry></Menu></R>' > "$work/wait/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/wait" > "$work/out" 2>&1
grep -q '^ended: waiting for a key that never comes' "$work/out" || fail "waiting: $(cat "$work/out")"

# Usage errors exit with 2.
"$tool" boot --esp "$work/esp" --keys '{Nope}' > "$work/out" 2>&1
[ $? -eq 2 ] || fail "an unknown key name must exit with 2"
"$tool" boot --esp "$work/missing" > "$work/out" 2>&1
[ $? -eq 2 ] || fail "a missing ESP folder must exit with 2"

if [ "$failures" -eq 0 ]; then echo "boot command: all checks passed"; fi
[ "$failures" -eq 0 ]
