#!/bin/sh
# Installs the Debian packages the project needs; quiet when all are there.
set -eu
packages="build-essential cmake g++ binutils gnu-efi libboost-dev googletest libgtest-dev libgmock-dev
 libbenchmark-dev qemu-system-x86 ovmf mtools dosfstools gdisk cpio clang-14 libclang-rt-14-dev libfuzzer-14-dev
 grub-common 7zip ntfs-3g attr"
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
$SUDO apt-get update -qq
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
