#!/bin/bash
# Time from QEMU's start to the initramfs' greeting under TCG: Debian's
# kernel with the busybox initramfs of the end-to-end runs (64 MiB payload
# included), booted
#   - by OVMF itself, from -kernel/-initrd/-append (QEMU's fw_cfg), and
#   - by morvane.efi's direct way, started by the test launcher, with kernel
#     and ramdisk on a FAT32 ESP on the q35 machine's AHCI disk, and
#   - the same on a virtio-blk disk, which shows what the firmware's disk
#     driver costs.
# The same ESP is attached in every boot, so the firmware sees the same
# machine. Boots run one at a time, rounds interleaved, and the medians are
# compared.
#
#   bench/boot_time.sh BUILD_DIR [ROUNDS]        (ROUNDS: 3 if not given)
#
# Prints the seconds of each boot, the medians, and for each loader boot its
# difference to and ratio over the firmware's own boot. Closing line:
# "N passed, M failed", a boot passing when it reached the greeting.
set -u
. "$(dirname "$0")/boot_lib.sh" "$@"
e2e_images "$BUILD_DIR" || exit 2
kernel_inputs "$BUILD_DIR" >&2 || exit 2

WORK=$BUILD_DIR/bench-boot-time
rm -rf "$WORK"
mkdir -p "$WORK"

ARGUMENTS='console=ttyS0 panic=-1 quiet'
STARTUP_LINE='Iniciando el cargador Morvane UEFI...'
make_launcher_esp "$WORK/esp.img" "morvane.efi \\vmlinuz \\initrd.img $ARGUMENTS" \
    "$KERNEL_IMAGE" ::/vmlinuz "$INITRD_IMAGE" ::/initrd.img || exit 1

# The three ways, by name: the QEMU arguments of each. The disk is a
# snapshot, so no boot leaves anything on it for the next.
WAYS="firmware loader_ahci loader_virtio"
declare -A LABEL QEMU_ARGS
LABEL[firmware]="OVMF's own -kernel/-initrd/-append boot"
LABEL[loader_ahci]="morvane.efi, direct way, ESP on AHCI"
LABEL[loader_virtio]="morvane.efi, direct way, ESP on virtio-blk"
QEMU_ARGS[firmware]="-drive format=raw,snapshot=on,file=$WORK/esp.img -kernel $KERNEL_IMAGE -initrd $INITRD_IMAGE"
QEMU_ARGS[loader_ahci]="-drive format=raw,snapshot=on,file=$WORK/esp.img"
QEMU_ARGS[loader_virtio]="-drive if=virtio,format=raw,snapshot=on,file=$WORK/esp.img"

# median VALUE...: the middle value, or the mean of the two middle ones.
median() {
    printf '%s\n' "$@" | sort -n | awk '
        { v[NR] = $1 }
        END { if (NR % 2) printf "%.2f\n", v[(NR + 1) / 2]
              else printf "%.2f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# compare LABEL VALUE BASE UNIT: VALUE against BASE as difference and ratio.
compare() {
    awk -v label="$1" -v v="$2" -v b="$3" -v unit="$4" 'BEGIN {
        printf "  %-44s %+6.2f s %s beyond the firmware'\''s own boot, ratio %.2f\n", label ":", v - b, unit, v / b }'
}

declare -A WALL CPU STARTED_WALL STARTED_CPU
passed=0 failed=0
echo "Kernel $(cut -d ' ' -f 1,2 "$BUILD_DIR/e2e-kernel/kernel.txt"), initramfs $(awk -v b="$(stat -c %s "$INITRD_IMAGE")" 'BEGIN { printf "%.1f", b / 1048576 }') MiB, $KERNEL_MEMORY_MIB MiB q35 under TCG, $ROUNDS rounds"
echo "Seconds from QEMU's start to '$INIT_GREETING', on the wall clock"
echo "and as processor time of the QEMU process (steadier on a busy host):"
for round in $(seq 1 "$ROUNDS"); do
    for way in $WAYS; do
        dir=$WORK/$way-$round
        mkdir -p "$dir"
        # shellcheck disable=SC2206
        args=(${QEMU_ARGS[$way]})
        if [ "$way" = firmware ]; then
            args+=(-append "$ARGUMENTS")
        fi
        STOP_AT=$INIT_GREETING boot_machine "$dir" "${args[@]}"
        read -r wall cpu < <(seconds_to "$dir/console.times" "^${INIT_GREETING}\$")
        read -r started_wall started_cpu < <(seconds_to "$dir/console.times" "^${STARTUP_LINE//./\\.}\$")
        if [ -z "${wall-}" ] || [ "${cpu-}" = - ]; then
            failed=$((failed + 1))
            echo "  round $round, ${LABEL[$way]}: no greeting ($BOOT_END); console in $dir"
            continue
        fi
        passed=$((passed + 1))
        WALL[$way]="${WALL[$way]-} $wall"
        CPU[$way]="${CPU[$way]-} $cpu"
        if [ -n "${started_wall-}" ]; then
            STARTED_WALL[$way]="${STARTED_WALL[$way]-} $started_wall"
            STARTED_CPU[$way]="${STARTED_CPU[$way]-} $started_cpu"
        fi
        printf '  round %d, %-44s wall %6.2f s, CPU %6.2f s%s\n' "$round" "${LABEL[$way]}:" "$wall" "$cpu" \
            "${started_wall:+   (loader started: wall $started_wall s, CPU $started_cpu s)}"
        rm -f "$dir/vars.fd"
        unset wall cpu started_wall started_cpu
    done
done

echo "Medians:"
for way in $WAYS; do
    if [ -n "${WALL[$way]-}" ]; then
        # shellcheck disable=SC2086
        printf '  %-44s wall %6.2f s, CPU %6.2f s\n' "${LABEL[$way]}:" "$(median ${WALL[$way]})" "$(median ${CPU[$way]})"
    fi
done
if [ -n "${WALL[firmware]-}" ]; then
    # shellcheck disable=SC2086
    base_wall=$(median ${WALL[firmware]})
    # shellcheck disable=SC2086
    base_cpu=$(median ${CPU[firmware]})
    echo "The loader against the firmware's own boot:"
    for way in loader_ahci loader_virtio; do
        [ -n "${WALL[$way]-}" ] || continue
        # shellcheck disable=SC2086
        compare "${LABEL[$way]}" "$(median ${WALL[$way]})" "$base_wall" wall
        # shellcheck disable=SC2086
        compare "${LABEL[$way]}" "$(median ${CPU[$way]})" "$base_cpu" CPU
        if [ -n "${STARTED_WALL[$way]-}" ]; then
            # shellcheck disable=SC2086
            awk -v sw="$(median ${STARTED_WALL[$way]})" -v w="$(median ${WALL[$way]})" \
                -v sc="$(median ${STARTED_CPU[$way]})" -v c="$(median ${CPU[$way]})" 'BEGIN {
                printf "    to the loader'\''s first line: wall %.2f s, CPU %.2f s; from there to the greeting: wall %.2f s, CPU %.2f s\n", sw, sc, w - sw, c - sc }'
        fi
    done
fi
rm -f "$WORK/esp.img"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
