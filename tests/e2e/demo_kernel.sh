#!/bin/bash
# Boots Debian's kernel through the real morvane.efi under QEMU + OVMF and
# shows the firmware console as it comes: the loader's menu, its "Loading"
# line, then the busybox initramfs' greeting and what the kernel was handed,
# until the initramfs powers the machine off.
#
#   tests/e2e/demo_kernel.sh BUILD_DIR [DOCUMENT]
#
# The loader is the firmware's own boot file \EFI\BOOT\BOOTX64.EFI, with
# DOCUMENT beside it as \EFI\BOOT\BOOTX64.xml (tests/e2e/kernel/demo.xml if
# not given), and the kernel and ramdisk at \vmlinuz and \initrd.img, where
# a LoadKernel entry of DOCUMENT is to name them. Files that a Rename job of
# DOCUMENT expects are made. The kernel and busybox-static are fetched
# (apt-get download, cached under BUILD_DIR/e2e-kernel/) on first use.
#
# Exits 0 when the initramfs' greeting appeared.
set -u

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 BUILD_DIR [DOCUMENT]" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
DOCUMENT=${2:-$HERE/kernel/demo.xml}
. "$HERE/lib.sh"
. "$HERE/kernel/kernel_lib.sh"
e2e_images "$BUILD_DIR" || exit 2
if [ ! -f "$DOCUMENT" ]; then
    echo "no document $DOCUMENT" >&2
    exit 2
fi
kernel_inputs "$BUILD_DIR" || exit 1

WORK=$BUILD_DIR/e2e-demo-kernel
rm -rf "$WORK"
mkdir -p "$WORK"

# The sources of the document's Rename jobs, so that its jobs succeed.
files=()
while IFS= read -r source; do
    [ -n "$source" ] || continue
    printf 'Written by demo_kernel.sh before the boot.\n' >"$WORK/rename-source.$((${#files[@]} / 2))"
    files+=("$WORK/rename-source.$((${#files[@]} / 2))" "::$(printf '%s' "$source" | tr '\\' /)")
done < <(grep -o 'FileNameSource="[^"]*"' "$DOCUMENT" | sed 's/^FileNameSource="\(.*\)"$/\1/')

make_big_esp "$WORK/esp.img" \
    "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI "$DOCUMENT" ::/EFI/BOOT/BOOTX64.xml \
    "$KERNEL_IMAGE" ::/vmlinuz "$INITRD_IMAGE" ::/initrd.img "${files[@]}" || exit 1

echo "Kernel: $(cat "$BUILD_DIR/e2e-kernel/kernel.txt"); initramfs: $(stat -c %s "$INITRD_IMAGE") bytes"
echo "Document \\EFI\\BOOT\\BOOTX64.xml: $DOCUMENT"
echo "Booting under QEMU + OVMF (TCG): about 5 s to the menu, then its delay, then 10-20 s for"
echo "the loader to read kernel and ramdisk and for the kernel to start the initramfs..."
echo "----- firmware console -----"
boot_machine "$WORK" -drive format=raw,file="$WORK/esp.img" &
machine=$!
# Follow the console as it grows, without the firmware's control sequences.
tail -n +1 -F "$WORK/console.raw" --pid="$machine" 2>/dev/null |
    sed -u -e 's/\x1b\[[0-9;?=]*[@-~]//g' -e 's/\x1b[^[]//g' -e 's/\r//g'
wait "$machine"
echo "----------------------------"
rm -f "$WORK/esp.img"

clean_console <"$WORK/console.raw" >"$WORK/console.txt"
if grep -q -x -F -e "$INIT_GREETING" "$WORK/console.txt"; then
    echo "demo: Linux booted through morvane.efi; the initramfs said: ${INIT_GREETING#"$INIT_PREFIX"greeting }"
else
    echo "demo: the initramfs' greeting did not appear; see $WORK/console.txt" >&2
    exit 1
fi
