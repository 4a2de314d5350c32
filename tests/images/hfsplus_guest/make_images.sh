#!/bin/bash
# Makes the HFS+ volumes of the image matrix that only the Linux hfsplus
# driver can fill (fragmented files in the extents overflow tree, hard and
# symbolic links, extended attributes): mkfs.hfsplus makes each volume on
# the host, a QEMU guest running Debian's kernel (the one the end-to-end
# runs use) with its own hfsplus module fills it, and fsck.hfsplus -fn must
# find it clean afterwards.
#
#   tests/images/hfsplus_guest/make_images.sh BUILD_DIR
#   tests/images/hfsplus_guest/make_images.sh --read-back BUILD_DIR OUT VOLUME...
#
# Prints, as its last line, the folder that holds for each row ROW:
#   ROW.img        the volume
#   ROW.tar        its tree as the guest's driver read it back (tar)
#   ROW.manifest   the guest's manifest of that tree (see init)
#   ROW.log        the guest's log of the fill
# The folder is BUILD_DIR/hfsplus-images/KEY, KEY a hash of the guest's
# scripts, this one and the kernel's version: a second run with nothing
# changed finds it and boots nothing.
#
# With --read-back, one guest mounts each VOLUME (written by our driver)
# read-only with the Linux driver, and OUT receives for each NAME.img
# among them NAME.tar and NAME.manifest as above, and read.log, the
# guest's log, "read" as its last line when every volume was read.
set -u

MODE=fill
if [ "${1:-}" = --read-back ]; then
    MODE=read-back
    shift
    [ $# -ge 3 ] || { echo "usage: $0 --read-back BUILD_DIR OUT VOLUME..." >&2; exit 2; }
elif [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
KERNEL_SCRIPTS=$(cd "$HERE/../../e2e/kernel" && pwd)
mkdir -p "$1" || exit 2
BUILD_DIR=$(cd "$1" && pwd) || exit 2
GUEST=$BUILD_DIR/hfsplus-guest
# Two matrices may ask at once (ctest runs tests side by side): one fills,
# the other waits and then finds the volumes made.
exec 9>"$BUILD_DIR/hfsplus-guest.lock"
flock 9
mkdir -p "$GUEST" || exit 1

# The mkfs options are one word, ':' standing for a space. A data clump
# of one block makes the driver allocate block by block, which the
# fragmented files need.
# name      block  mkfs           MiB  mount  trees
ROWS='
b512        512    -c:d=1         40   -      common,links,frag3000
b4096       4096   -              40   -      common,links,many,names,xattrs
b64k        65536  -c:d=1         96   -      common,links,frag40
hfsx        4096   -s             16   -      common,case,names
journaled   4096   -J             128  force  common,links
'
# The modules the guest loads, and those they need, found through the
# "depends=" of each module's .modinfo (the package has no modules.dep).
WANTED_MODULES='nls_utf8 hfsplus virtio_pci virtio_blk'

"$KERNEL_SCRIPTS/fetch_kernel.sh" "$BUILD_DIR" >&2 || exit 1
KERNEL=$BUILD_DIR/e2e-kernel/vmlinuz
read -r PACKAGE VERSION < "$BUILD_DIR/e2e-kernel/kernel.txt" || exit 1

KEY=$(cat "$0" "$HERE/init" "$HERE/fill.sh" "$HERE/xattr.c" "$BUILD_DIR/e2e-kernel/kernel.txt" |
      sha256sum | cut -c 1-16)
IMAGES=$BUILD_DIR/hfsplus-images/$KEY
if [ "$MODE" = fill ] && [ -f "$IMAGES/complete" ]; then
    echo "$IMAGES"
    exit 0
fi

# fetch_modules: the wanted modules and their dependencies below
# $GUEST/modules, with modules.order listing them dependencies first.
fetch_modules() {
    local dir=$GUEST/modules download deb members version_dir module found pending
    [ -s "$dir/modules.order" ] && [ "$(cat "$dir/package")" = "$PACKAGE $VERSION" ] && return 0
    rm -rf "$dir"
    mkdir -p "$dir" || return 1
    download=$(mktemp -d) || return 1
    chmod a+rwx "$download"
    (cd "$download" && apt-get download -q "$PACKAGE=$VERSION" >&2) || { rm -rf "$download"; return 1; }
    deb=$(ls "$download"/*.deb)
    dpkg-deb --fsys-tarfile "$deb" | tar -t > "$download/members" || { rm -rf "$download"; return 1; }
    dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$download" --wildcards './lib/modules/*/modules.builtin' || return 1
    version_dir=$(ls -d "$download"/lib/modules/*)
    found=
    pending=$WANTED_MODULES
    while [ -n "$pending" ]; do
        members=
        for module in $pending; do
            grep -q "/$module\.ko\$" "$version_dir/modules.builtin" && continue
            members="$members $(grep -m 1 "/$module\.ko\$" "$download/members")" ||
                { echo "no module $module in $PACKAGE" >&2; rm -rf "$download"; return 1; }
        done
        [ -n "${members// /}" ] || break
        # shellcheck disable=SC2086
        dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$download" $members || { rm -rf "$download"; return 1; }
        found="$found $pending"
        pending=
        for member in $members; do
            cp "$download/$member" "$dir/" || return 1
            for module in $(tr '\0' '\n' < "$download/$member" | sed -n 's/^depends=//p' | tr , ' '); do
                case " $found $pending " in *" $module "*) ;; *) pending="$pending $module" ;; esac
            done
        done
    done
    rm -rf "$download"
    # Load order: a module after every module it depends on.
    local ordered='' left progress
    left=$(cd "$dir" && ls -- *.ko | sed 's/\.ko$//')
    while [ -n "$left" ]; do
        progress=
        for module in $left; do
            ready=yes
            for need in $(tr '\0' '\n' < "$dir/$module.ko" | sed -n 's/^depends=//p' | tr , ' '); do
                case " $ordered " in *" $need "*) ;; *) [ ! -f "$dir/$need.ko" ] || ready= ;; esac
            done
            [ -n "$ready" ] || continue
            ordered="$ordered $module"
            progress=yes
        done
        [ -n "$progress" ] || { echo "modules depend on each other in a circle: $left" >&2; return 1; }
        left=$(for module in $left; do case " $ordered " in *" $module "*) ;; *) echo "$module" ;; esac; done)
    done
    printf '%s\n' $ordered > "$dir/modules.order"
    echo "$PACKAGE $VERSION" > "$dir/package"
}

fetch_busybox() {
    [ -x "$GUEST/busybox" ] && return 0
    if [ -x "$BUILD_DIR/e2e-kernel/busybox" ]; then
        cp "$BUILD_DIR/e2e-kernel/busybox" "$GUEST/busybox"
        return
    fi
    . "$KERNEL_SCRIPTS/debian_package.sh"
    unpack_package busybox-static "$GUEST/busybox-unpack" './bin/busybox' || return 1
    mv "$GUEST/busybox-unpack/bin/busybox" "$GUEST/busybox" && rm -rf "$GUEST/busybox-unpack"
}

# make_initramfs OUT: each run its own tree, so that a filling and a
# read-back may run side by side.
make_initramfs() {
    local tree
    tree=$(mktemp -d "$GUEST/tree.XXXXXX") || return 1
    mkdir -p "$tree/bin" "$tree/modules" || return 1
    cp "$HERE/init" "$tree/init" && chmod 755 "$tree/init" || return 1
    cp "$HERE/fill.sh" "$tree/fill.sh" || return 1
    cp "$GUEST/busybox" "$tree/bin/busybox" || return 1
    gcc -static -Os -o "$tree/bin/xattr" "$HERE/xattr.c" || return 1
    cp "$GUEST/modules"/*.ko "$tree/modules/" && cp "$GUEST/modules/modules.order" "$tree/" || return 1
    (cd "$tree" && find . | cpio --quiet -o -H newc -R 0:0) > "$1" || return 1
    rm -rf "$tree"
}

# boot_guest CONSOLE ARGUMENTS DISK...: the guest, told ARGUMENTS on its
# kernel command line, with each DISK as a virtio disk in order.
boot_guest() {
    local console=$1 arguments=$2 disk drives=()
    shift 2
    for disk in "$@"; do drives+=(-drive "file=$disk,format=raw,if=virtio"); done
    timeout -k 5 900 qemu-system-x86_64 -machine q35,accel=$ACCEL -m 512 -smp 1 \
        -display none -serial stdio -nic none -no-reboot \
        -kernel "$KERNEL" -initrd "$WORK/initrd.img" \
        -append "console=ttyS0 quiet panic=-1 $arguments" "${drives[@]}" \
        < /dev/null > "$console" 2>&1
}

# read_back OUT VOLUME...: the Linux driver's reading of each volume, in
# one boot: the guest names them by their place, 0 to N-1.
read_back() {
    local out=$1 answer=$WORK/answer.img number=0 volume name
    shift
    mkdir -p "$out" && truncate -s 1G "$answer" || return 1
    boot_guest "$WORK/read.console" "hfsread=$#" "$@" "$answer"
    tar -x -f "$answer" -C "$WORK" 2>/dev/null
    cp "$WORK/read.log" "$out/read.log" 2>/dev/null || { tail -n 20 "$WORK/read.console" >&2; return 1; }
    for volume in "$@"; do
        name=$(basename "$volume" .img)
        mv "$WORK/$number.tar" "$out/$name.tar" 2>/dev/null && mv "$WORK/$number.manifest" "$out/$name.manifest" 2>/dev/null
        number=$((number + 1))
    done
    [ "$(tail -n 1 "$out/read.log")" = read ]
}

# fill_row NAME BLOCK MKFS MIB MOUNT TREES: the row's volume in $WORK.
fill_row() {
    local name=$1 block=$2 mkfs=$3 mib=$4 mount=$5 trees=$6 image=$WORK/$1.img answer=$WORK/$1.answer
    local options=
    [ "$mkfs" = - ] || options=${mkfs//:/ }
    [ "$mount" != - ] || mount=
    rm -f "$image" "$answer"
    truncate -s "${mib}M" "$image" && truncate -s 256M "$answer" || return 1
    # shellcheck disable=SC2086
    mkfs.hfsplus -v "$name" -b "$block" $options "$image" > "$WORK/$name.mkfs" 2>&1 ||
        { cat "$WORK/$name.mkfs" >&2; return 1; }
    echo "hfsplus guest: filling $name ($ACCEL, at $((SECONDS - started)) s)" >&2
    boot_guest "$WORK/$name.console" "hfsrow=$name hfsblock=$block hfstrees=$trees${mount:+ hfsmount=$mount}" \
        "$image" "$answer"
    mkdir -p "$WORK/$name.out" || return 1
    tar -x -f "$answer" -C "$WORK/$name.out" 2>/dev/null
    rm -f "$answer"
    if [ "$(tail -n 1 "$WORK/$name.out/fill.log" 2>/dev/null)" != filled ]; then
        echo "hfsplus guest: $name was not filled:" >&2
        cat "$WORK/$name.out/fill.log" >&2 2>/dev/null || tail -n 20 "$WORK/$name.console" >&2
        return 1
    fi
    # The Linux driver keeps no folder counts, which HFSX volumes must
    # have: fsck.hfsplus puts them in, then must find nothing more.
    if ! fsck.hfsplus -fn "$image" > "$WORK/$name.fsck" 2>&1 &&
       [ "$(grep -c -v -e 'HasFolderCount' -e 'Incorrect folder count' -e '(It should be' \
            -e '^\*\*' -e 'Executing fsck' -e 'The volume name is' "$WORK/$name.fsck")" -eq 0 ]; then
        cat "$WORK/$name.fsck" >> "$WORK/$name.out/fill.log"
        fsck.hfsplus -fy "$image" >> "$WORK/$name.out/fill.log" 2>&1
    fi
    if ! fsck.hfsplus -fn "$image" > "$WORK/$name.fsck" 2>&1; then
        echo "hfsplus guest: fsck.hfsplus -fn finds $name damaged:" >&2
        cat "$WORK/$name.fsck" >&2
        return 1
    fi
    mv "$WORK/$name.out/volume.tar" "$WORK/$name.tar" && mv "$WORK/$name.out/manifest" "$WORK/$name.manifest" &&
        mv "$WORK/$name.out/fill.log" "$WORK/$name.log" &&
        rm -rf "$WORK/$name.out" "$WORK/$name.mkfs" "$WORK/$name.console" "$WORK/$name.fsck"
}

# KVM is used only where asked for: on machines where /dev/kvm is there
# but nested virtualisation is broken, a KVM guest hangs without a word.
ACCEL=${HFSPLUS_GUEST_ACCEL:-tcg}

fetch_modules || exit 1
fetch_busybox || exit 1
mkdir -p "$BUILD_DIR/hfsplus-images" || exit 1
WORK=$(mktemp -d "$BUILD_DIR/hfsplus-images/making.XXXXXX") || exit 1
trap 'rm -rf "$WORK"' EXIT
make_initramfs "$WORK/initrd.img" || exit 1
if [ "$MODE" = read-back ]; then
    out=$2
    shift 2
    read_back "$out" "$@"
    exit
fi
started=$SECONDS
echo "$ROWS" | while read -r name block mkfs mib mount trees; do
    [ -n "$name" ] || continue
    fill_row "$name" "$block" "$mkfs" "$mib" "$mount" "$trees" || exit 1
done || exit 1
echo "hfsplus guest: all volumes filled in $((SECONDS - started)) s" >&2
rm -f "$WORK/initrd.img"
touch "$WORK/complete"
rm -rf "$IMAGES"
mv "$WORK" "$IMAGES" || exit 1
# Volumes of earlier versions of the guest are of no more use.
find "$BUILD_DIR/hfsplus-images" -mindepth 1 -maxdepth 1 -name '????????????????' ! -name "$KEY" -exec rm -rf {} +
trap - EXIT
echo "$IMAGES"
