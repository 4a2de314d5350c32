# shellcheck shell=bash
# Pieces of the boot race (bench/boot_race.sh): the padded ramdisk, one GPT
# disk per file system made by the file systems' own tools, the ESPs of
# the loader and of GRUB, and one boot stopped at the initramfs' greeting.
# Sourced after bench/boot_lib.sh (which brings tests/e2e/lib.sh and
# kernel/kernel_lib.sh) and gpt_disk.sh.

# Every race disk carries its one partition under this unique GUID: only one
# is attached at a time, so one document serves them all.
RACE_GUID=7c3b9a12-4e5d-4f60-8a71-b2c3d4e5f607
RACE_RAMDISK_MIB=256
RACE_PARTITION_MIB=300
# The packed ramdisk and what it unpacks to must both fit beside the kernel.
RACE_MEMORY_MIB=2048
# No quiet: the kernel's banner (a notice) is its first line on the serial
# console, and the info lines that would slow every boot alike stay out.
RACE_ARGUMENTS='console=ttyS0 panic=-1 loglevel=6'
# The loader puts this in front of the document's arguments; the other two
# ways are given the whole line, so every kernel sees the same.
RACE_CMDLINE="reboot=k $RACE_ARGUMENTS"
RACE_STARTUP_LINE='Iniciando el cargador Morvane UEFI...'
RACE_GRUB_LINE='grub: race start'
RACE_KERNEL_LINE='] Linux version '
GRUB_MODULES='part_gpt fat ext2 ntfs hfsplus search search_fs_file linux echo normal'

# race_accelerator WORKDIR: sets RACE_ACCEL to kvm when OVMF runs under it,
# else to tcg, and says why. /dev/kvm alone proves little: under some nested
# hypervisors QEMU starts and then stops at OVMF's first instructions
# ("KVM internal error") or refuses the CPU's registers, so OVMF is run for
# a few seconds and must print on the serial console meanwhile.
race_accelerator() {
    local probe=$1/kvm-probe
    RACE_ACCEL=tcg
    if [ -r /dev/kvm ] && [ -w /dev/kvm ]; then
        cp "$OVMF_VARS" "$probe.vars" || return 1
        timeout 6 qemu-system-x86_64 -machine q35,accel=kvm -m 256 -display none -serial stdio -monitor none \
            -nic none -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
            -drive if=pflash,format=raw,file="$probe.vars" </dev/null >"$probe.out" 2>"$probe.err"
        if [ -s "$probe.out" ] && ! grep -q -i 'error' "$probe.err"; then
            RACE_ACCEL=kvm
        else
            echo "QEMU cannot run OVMF under KVM here ($(grep -i -m 1 'error' "$probe.err" || echo 'no console output')): TCG it is, every boot many times slower"
        fi
        rm -f "$probe.vars" "$probe.out" "$probe.err"
    else
        echo "no usable /dev/kvm: QEMU runs under TCG, every boot many times slower"
    fi
    if [ "$RACE_ACCEL" = kvm ]; then RACE_TIME_LIMIT=${RACE_TIME_LIMIT:-120}; else RACE_TIME_LIMIT=${RACE_TIME_LIMIT:-400}; fi
}

# race_grub_tools: grub-mkstandalone and GRUB's x86_64-efi modules, installed
# with apt-get when missing.
race_grub_tools() {
    local sudo=
    if command -v grub-mkstandalone >/dev/null && [ -f /usr/lib/grub/x86_64-efi/hfsplus.mod ]; then
        return 0
    fi
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "installing grub-efi-amd64-bin (apt-get)" >&2
    $sudo apt-get install -y -q grub-efi-amd64-bin >&2 ||
        { $sudo apt-get update -qq >&2 && $sudo apt-get install -y -q grub-efi-amd64-bin >&2; }
}

# race_ramdisk BASE OUT: the initramfs BASE with one more uncompressed cpio
# archive behind it, a file of random bytes, so that OUT is exactly
# RACE_RAMDISK_MIB MiB. The kernel unpacks concatenated archives and skips
# the zeros that square the size.
race_ramdisk() {
    local base=$1 out=$2 tree want have
    want=$((RACE_RAMDISK_MIB * 1048576))
    if [ -s "$out" ] && [ "$(stat -c %s "$out")" -eq "$want" ] && [ "$out" -nt "$base" ]; then
        return 0
    fi
    have=$(stat -c %s "$base") || return 1
    # Room for the archive's two headers and its 512-byte blocking.
    [ "$have" -lt $((want - 4096)) ] || { echo "$base is larger than the race's ramdisk" >&2; return 1; }
    tree=$out.tree
    rm -rf "$tree"
    mkdir -p "$tree" || return 1
    head -c $((want - have - 4096)) /dev/urandom >"$tree/race-padding.bin" || return 1
    if ! { cp "$base" "$out.part" &&
           (cd "$tree" && echo race-padding.bin | cpio --quiet -o -H newc -R 0:0) >>"$out.part" &&
           truncate -s "$want" "$out.part"; }; then
        rm -rf "$tree" "$out.part"
        return 1
    fi
    rm -rf "$tree"
    mv "$out.part" "$out"
}

# race_disk FS IMAGE KERNEL RAMDISK: a GPT disk whose one partition (RACE_GUID)
# holds KERNEL as /vmlinuz and RAMDISK as /initrd.img in the root of a
# volume of FS (fat32, ext4, ntfs or hfsplus).
race_disk() {
    local fs=$1 image=$2 kernel=$3 ramdisk=$4 size=$((RACE_PARTITION_MIB + 2)) tree
    case $fs in
        fat32)
            make_gpt_layout "$image" "$size" "0700:$RACE_PARTITION_MIB:$RACE_GUID" &&
                fill_fat_partition "$image" 1 32 "$kernel" ::/vmlinuz "$ramdisk" ::/initrd.img ;;
        ext4)
            tree=$image.tree
            rm -rf "$tree"
            mkdir -p "$tree" &&
                { ln -f "$kernel" "$tree/vmlinuz" 2>/dev/null || cp "$kernel" "$tree/vmlinuz"; } &&
                { ln -f "$ramdisk" "$tree/initrd.img" 2>/dev/null || cp "$ramdisk" "$tree/initrd.img"; } &&
                make_gpt_layout "$image" "$size" "8300:$RACE_PARTITION_MIB:$RACE_GUID" &&
                fill_ext_partition "$image" 1 mkfs.ext4 "$tree"
            local status=$?
            rm -rf "$tree"
            return $status ;;
        ntfs)
            make_gpt_layout "$image" "$size" "0700:$RACE_PARTITION_MIB:$RACE_GUID" &&
                fill_ntfs_partition "$image" 1 "$kernel" vmlinuz "$ramdisk" initrd.img ;;
        hfsplus)
            make_gpt_layout "$image" "$size" "AF00:$RACE_PARTITION_MIB:$RACE_GUID" &&
                fill_hfsplus_partition "$image" 1 "$kernel" vmlinuz "$ramdisk" initrd.img ;;
        *) echo "race_disk: unknown file system $fs" >&2; return 1 ;;
    esac
}

# race_document: the loader's document: one default entry that runs at
# once, its files on the partition RACE_GUID.
race_document() {
    printf '<R><Menu><Topic Delay="0"/><Entry Key="l" Text="Linux" Default="">'
    printf '<LoadKernel><GPT Guid="%s"/>' "$RACE_GUID"
    printf '<Kernel Path="/vmlinuz" Arguments="%s"/><Ramdisk Path="/initrd.img"/>' "$RACE_ARGUMENTS"
    printf '<Loading Text="Cargando..."/></LoadKernel></Entry></Menu></R>\n'
}

# race_grub_image OUT WORKDIR: GRUB as one EFI application, its modules and
# this configuration inside: a first line on the console, then the volume
# that holds /vmlinuz, searched for, and booted with the race's command line.
race_grub_image() {
    local out=$1 workdir=$2
    {
        echo "echo '$RACE_GRUB_LINE'"
        echo 'search --no-floppy --file /vmlinuz --set=root'
        echo "linux /vmlinuz $RACE_CMDLINE"
        echo 'initrd /initrd.img'
        echo 'boot'
    } >"$workdir/grub.cfg"
    grub-mkstandalone -O x86_64-efi -o "$out" --modules="$GRUB_MODULES" --install-modules="$GRUB_MODULES" \
        --locales= --fonts= --themes= "boot/grub/grub.cfg=$workdir/grub.cfg" >"$workdir/grub.log" 2>&1 ||
        { cat "$workdir/grub.log" >&2; return 1; }
}

# race_boot WORKDIR QEMU_ARGUMENT...: one boot under QEMU + OVMF with
# RACE_ACCEL, ended as soon as the greeting shows on the serial console.
# Writes WORKDIR/console.raw and WORKDIR/console.times (see stamp_lines);
# sets BOOT_START ($EPOCHREALTIME at QEMU's start) and BOOT_END: "greeting",
# "exit N" (QEMU ended on its own) or "timeout".
race_boot() {
    local workdir=$1 pipeline pid
    shift
    rm -f "$workdir/qemu.pid" "$workdir/qemu.status"
    cp "$OVMF_VARS" "$workdir/vars.fd" || return 1
    : >"$workdir/console.raw"
    : >"$workdir/console.times"
    BOOT_START=$EPOCHREALTIME
    {
        timeout -k 5 "$RACE_TIME_LIMIT" qemu-system-x86_64 \
            -machine "q35,accel=$RACE_ACCEL" -m "$RACE_MEMORY_MIB" -display none \
            -serial stdio -monitor none -nic none -no-reboot -pidfile "$workdir/qemu.pid" \
            -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
            -drive if=pflash,format=raw,file="$workdir/vars.fd" \
            "$@" </dev/null 2>"$workdir/qemu.err" |
            stamp_lines "$workdir/console.raw" "$workdir/console.times" "$workdir/qemu.pid"
        echo "${PIPESTATUS[0]}" >"$workdir/qemu.status"
    } &
    pipeline=$!
    BOOT_END=
    while [ ! -s "$workdir/qemu.status" ]; do
        if grep -q -a -F -e "$INIT_GREETING" "$workdir/console.raw"; then
            BOOT_END=greeting
            read -r pid <"$workdir/qemu.pid" && kill "$pid" 2>/dev/null
            break
        fi
        sleep 0.05
    done
    wait "$pipeline"
    if [ -z "$BOOT_END" ]; then
        case $(cat "$workdir/qemu.status") in
            124|137) BOOT_END=timeout ;;
            *) BOOT_END="exit $(cat "$workdir/qemu.status")" ;;
        esac
    fi
    rm -f "$workdir/vars.fd"
}

# race_summary VALUE...: "MEDIAN (MIN-MAX)", or "-" without values.
race_summary() {
    [ $# -gt 0 ] || { echo -; return; }
    printf '%s\n' "$@" | sort -n | awk '
        { v[NR] = $1 }
        END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
              printf "%.2f (%.2f-%.2f)\n", m, v[1], v[NR] }'
}
