#!/bin/bash
# Fetches the kernel of Debian's linux-image-amd64 metapackage (the package it
# depends on, as the archive names it today) and unpacks its bzImage to
#
#   BUILD_DIR/e2e-kernel/vmlinuz        the kernel
#   BUILD_DIR/e2e-kernel/kernel.txt     package name and version it came from
#
#   tests/e2e/kernel/fetch_kernel.sh BUILD_DIR
#
# A second run finds the kernel there and downloads nothing.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
mkdir -p "$1" || exit 2
BUILD_DIR=$(cd "$1" && pwd) || exit 2
OUT=$BUILD_DIR/e2e-kernel
mkdir -p "$OUT" || exit 1

if [ -s "$OUT/vmlinuz" ] && [ -s "$OUT/kernel.txt" ]; then
    exit 0
fi

. "$(cd "$(dirname "$0")" && pwd)/debian_package.sh"

# The metapackage depends on exactly one versioned image package.
package=$(apt-cache depends linux-image-amd64 2>/dev/null |
          sed -n 's/^ *Depends: \(linux-image-[^ ]*-amd64\)$/\1/p' | head -n 1)
if [ -z "$package" ]; then
    refresh_package_lists
    package=$(apt-cache depends linux-image-amd64 2>/dev/null |
              sed -n 's/^ *Depends: \(linux-image-[^ ]*-amd64\)$/\1/p' | head -n 1)
fi
if [ -z "$package" ]; then
    echo "fetch_kernel: the package lists name no dependency of linux-image-amd64" >&2
    exit 1
fi

echo "fetch_kernel: downloading $package"
unpack_package "$package" "$OUT/unpack" './boot/vmlinuz-*' || exit 1
kernel=$(ls "$OUT"/unpack/boot/vmlinuz-* 2>/dev/null | head -n 1)
if [ -z "$kernel" ]; then
    echo "fetch_kernel: $package holds no /boot/vmlinuz-*" >&2
    exit 1
fi
mv "$kernel" "$OUT/vmlinuz.part" && mv "$OUT/vmlinuz.part" "$OUT/vmlinuz" || exit 1
rm -rf "$OUT/unpack"
printf '%s %s\n' "$package" "$PACKAGE_VERSION" >"$OUT/kernel.txt"
echo "fetch_kernel: $OUT/vmlinuz ($(stat -c %s "$OUT/vmlinuz") bytes, $package $PACKAGE_VERSION)"
