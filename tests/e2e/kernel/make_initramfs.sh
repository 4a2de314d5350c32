#!/bin/bash
# Builds the initramfs of the real-kernel runs with cpio (newc format,
# uncompressed): Debian's busybox-static, the /init beside this script, and a
# 64 MiB file of random bytes with its SHA-256 in a file beside it.
#
#   tests/e2e/kernel/make_initramfs.sh BUILD_DIR
#
# Writes, below BUILD_DIR/e2e-kernel/:
#   busybox          from the busybox-static package, fetched once
#   initrd.img       the archive
#   payload.sha256   the random file's hash, as sha256sum prints it
# and leaves them alone on later runs unless /init or this script changed.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1" || exit 2
BUILD_DIR=$(cd "$1" && pwd) || exit 2
OUT=$BUILD_DIR/e2e-kernel
mkdir -p "$OUT" || exit 1
PAYLOAD_MIB=64

if ! command -v cpio >/dev/null; then
    echo "make_initramfs: cpio is missing (make deps)" >&2
    exit 1
fi

if [ ! -x "$OUT/busybox" ]; then
    . "$HERE/debian_package.sh"
    echo "make_initramfs: downloading busybox-static"
    unpack_package busybox-static "$OUT/busybox-unpack" './bin/busybox' || exit 1
    mv "$OUT/busybox-unpack/bin/busybox" "$OUT/busybox" || exit 1
    rm -rf "$OUT/busybox-unpack"
fi

if [ -s "$OUT/initrd.img" ] && [ -s "$OUT/payload.sha256" ] &&
   [ "$OUT/initrd.img" -nt "$HERE/init" ] && [ "$OUT/initrd.img" -nt "$0" ]; then
    exit 0
fi

tree=$OUT/initramfs-tree
rm -rf "$tree"
mkdir -p "$tree/bin" "$tree/dev" "$tree/proc" "$tree/sys" "$tree/tmp" || exit 1
cp "$HERE/init" "$tree/init" && chmod 755 "$tree/init" || exit 1
cp "$OUT/busybox" "$tree/bin/busybox" && chmod 755 "$tree/bin/busybox" || exit 1
head -c "$((PAYLOAD_MIB * 1024 * 1024))" /dev/urandom >"$tree/payload.bin" || exit 1
(cd "$tree" && sha256sum payload.bin) >"$tree/payload.sha256" || exit 1

# The payload goes last: a ramdisk cut short loses it first.
if ! (cd "$tree" &&
      printf '%s\n' . init bin bin/busybox dev proc sys tmp payload.sha256 payload.bin |
      cpio --quiet -o -H newc -R 0:0 >"$OUT/initrd.img.part"); then
    echo "make_initramfs: cpio failed" >&2
    exit 1
fi
cp "$tree/payload.sha256" "$OUT/payload.sha256" || exit 1
mv "$OUT/initrd.img.part" "$OUT/initrd.img" || exit 1
rm -rf "$tree"
echo "make_initramfs: $OUT/initrd.img ($(stat -c %s "$OUT/initrd.img") bytes)"
