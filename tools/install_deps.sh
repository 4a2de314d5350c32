#!/bin/sh
# Installs the Debian packages the project needs; quiet when all are there.
set -eu
packages="build-essential cmake g++ binutils gnu-efi libboost-dev googletest libgtest-dev libgmock-dev
 libbenchmark-dev qemu-system-x86 ovmf mtools dosfstools gdisk cpio clang-14 libclang-rt-14-dev libfuzzer-14-dev
 grub-common 7zip ntfs-3g attr hfsprogs sleuthkit xorriso"
missing=""
for package in $packages; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing="$missing $package"
  fi
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive
# hfsprogs (mkfs.hfsplus, fsck.hfsplus) lives in bookworm's non-free
# component: add it to the bookworm source already configured.
sources=/etc/apt/sources.list.d/debian.sources
if [ -f "$sources" ] && ! grep -q 'non-free' "$sources"; then
  $SUDO sed -i '/^Suites: bookworm bookworm-updates/,/^Components:/ s/^Components: main$/Components: main non-free/' "$sources"
fi
if [ -f /etc/apt/sources.list ] && grep -q '^deb .* bookworm main$' /etc/apt/sources.list; then
  $SUDO sed -i 's/^\(deb .* bookworm\) main$/\1 main non-free/' /etc/apt/sources.list
fi
$SUDO apt-get update -qq
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
