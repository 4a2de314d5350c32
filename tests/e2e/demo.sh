#!/bin/bash
# Boots the real morvane.efi once under QEMU + OVMF, with no load options and
# no configuration document beside it, and shows the firmware console: the
# loader's start-up line, then its report of the missing document.
#
#   tests/e2e/demo.sh BUILD_DIR
#
# Exits 0 when the loader's start-up line appeared.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
. "$HERE/lib.sh"
e2e_images "$BUILD_DIR" || exit 2

STARTUP_LINE='Iniciando el cargador Morvane UEFI...'

WORK=$BUILD_DIR/e2e-demo
rm -rf "$WORK"
mkdir -p "$WORK"

echo "Booting morvane.efi under QEMU + OVMF (takes about 15 s, 10 s of it the loader's pause after its error report)..."
make_esp "$WORK/esp.img" "$WORK" || exit 1
boot_esp "$WORK/esp.img" "$WORK"
clean_console <"$WORK/console.raw" >"$WORK/console.txt"
echo "----- firmware console -----"
cat "$WORK/console.txt"
echo "----------------------------"

if grep -q -x -F -e "$STARTUP_LINE" "$WORK/console.txt"; then
    echo "demo: the loader started."
else
    echo "demo: the loader's start-up line did not appear; see $WORK/" >&2
    exit 1
fi
