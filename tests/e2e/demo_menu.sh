#!/bin/bash
# Boots the real morvane.efi under QEMU + OVMF as the firmware's own boot
# file \EFI\BOOT\BOOTX64.EFI, with the sample document examples/morvane.xml
# beside it as \EFI\BOOT\BOOTX64.xml, and shows the firmware console as it
# comes: the loader runs the sample's Rename job, shows its menu, and after
# the menu's delay runs the default entry, which leaves the loader. The
# firmware then goes on to its next boot option, a small marker app on a
# second disk, which ends the run. Last, the loader's volume is listed with
# mtools to show the renamed file.
#
#   tests/e2e/demo_menu.sh [-i] BUILD_DIR
#
# -i: interactive. Your keys go to the serial console, so you choose the
# entry yourself (a lone Esc takes a moment: the firmware waits to see
# whether more of a key sequence follows). Ctrl-A then X ends QEMU.
#
# Exits 0 when the sample's menu appeared.
set -u

interactive=
if [ "${1-}" = -i ]; then
    interactive=1
    shift
fi
if [ $# -ne 1 ]; then
    echo "usage: $0 [-i] BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
SOURCE_DIR=$(cd "$HERE/../.." && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
. "$HERE/lib.sh"
e2e_document_images "$BUILD_DIR" || exit 2

SAMPLE_DOCUMENT=$SOURCE_DIR/examples/morvane.xml
# The sample's first line, its menu's topic.
TOPIC_LINE=$(sed -n 's/.*<Topic Text="\([^"]*\)".*/\1/p' "$SAMPLE_DOCUMENT" | head -n 1)

WORK=$BUILD_DIR/e2e-demo-menu
rm -rf "$WORK"
mkdir -p "$WORK"

make_loader_esp "$WORK/esp.img" "$SAMPLE_DOCUMENT" || exit 1
# The file that the sample's Rename job expects.
printf 'Written by demo_menu.sh before the first boot.\n' >"$WORK/first-boot.txt"
mcopy -i "$WORK/esp.img" "$WORK/first-boot.txt" ::/EFI/BOOT/first-boot.txt || exit 1
make_marker_disk "$WORK/next.img" || exit 1

echo "The loader's volume before the boot:"
mdir -/ -b -i "$WORK/esp.img" ::/EFI
echo
if [ -n "$interactive" ]; then
    echo "Booting under QEMU + OVMF. Press a key of the menu once it shows; Ctrl-A then X ends QEMU."
else
    echo "Booting under QEMU + OVMF: about 5 s to the menu, then its 5 s delay runs out and the default entry runs."
fi
echo "----- firmware console -----"

if [ -n "$interactive" ]; then
    cp "$OVMF_VARS" "$WORK/vars.fd" || exit 1
    # The terminal is the serial console; what it shows is kept as well.
    qemu-system-x86_64 \
        -machine q35,accel=tcg -m 256 -display none -serial mon:stdio -nic none -no-reboot \
        -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
        -drive if=pflash,format=raw,file="$WORK/vars.fd" \
        -drive format=raw,file="$WORK/esp.img" \
        -drive format=raw,file="$WORK/next.img" \
        -device isa-debug-exit,iobase=0xf4,iosize=0x04 | tee "$WORK/console.raw"
else
    : >"$WORK/console.raw"
    boot_loader_disks "$WORK" "$WORK/esp.img" "$WORK/next.img" &
    boot=$!
    # Shown as it comes, cleaned of the firmware's terminal sequences.
    tail -n +1 -f --pid="$boot" "$WORK/console.raw" 2>/dev/null |
        sed -u -e 's/\x1b\[[0-9;?=]*[@-~]//g' -e 's/\x1b[^[]//g' -e 's/\r//g'
    wait "$boot"
fi
clean_console <"$WORK/console.raw" >"$WORK/console.txt"
echo "----------------------------"
echo
echo "The loader's volume after the boot:"
mdir -/ -b -i "$WORK/esp.img" ::/EFI
echo

if grep -q -x -F -e "$TOPIC_LINE" "$WORK/console.txt"; then
    echo "demo: the loader showed the sample's menu."
else
    echo "demo: the sample's menu did not appear; see $WORK/" >&2
    exit 1
fi
