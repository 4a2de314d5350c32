#!/bin/bash
# End-to-end scenarios with a real kernel: Debian's kernel and a busybox
# initramfs, booted by the real morvane.efi under QEMU + OVMF from a FAT32
# ESP made by mkfs.fat and mtools. The initramfs' /init prints what the
# kernel was handed (see tests/e2e/kernel/init) and powers the machine off;
# the machine's screen is saved at that moment and compared with the
# framebuffer the kernel found.
#
#   tests/e2e/kernel_scenarios.sh BUILD_DIR [SCENARIO]...
#
# Fetches the kernel and busybox-static (apt-get download, cached under
# BUILD_DIR/e2e-kernel/) and builds the initramfs on first use. Needs
# BUILD_DIR/morvane.efi and the test launcher; the menu scenario also needs
# the host tool BUILD_DIR/morvane to check its document first. With
# SCENARIO names, runs only those. Consoles of failed scenarios are kept in
# BUILD_DIR/e2e-logs/kernel-NAME.log.
set -u

if [ $# -lt 1 ]; then
    echo "usage: $0 BUILD_DIR [SCENARIO]..." >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
shift
. "$HERE/lib.sh"
. "$HERE/kernel/kernel_lib.sh"
e2e_images "$BUILD_DIR" || exit 2
TOOL=$BUILD_DIR/morvane
kernel_inputs "$BUILD_DIR" || exit 2

scenario_folders "$BUILD_DIR" kernel

# The loader's exact console texts. Non-ASCII letters reach the serial
# console as '?'.
STARTUP_LINE='Iniciando el cargador Morvane UEFI...'
STATUS_LINE='launcher: exit status 0x1'
TAG='tag 0x[0-9a-f]{16}'
CORRUPT_REPORT="^Runtime exception 'El kernel est\\? da\\?ado\\.', code 21495810, $TAG\$"
UNSUPPORTED_REPORT="^Runtime exception 'Versi\\?n de kernel no compatible\\.', code 21495811, $TAG\$"
NO_VIDEO_REPORT="^Runtime exception 'NO fue posible detectar el modo de salida gr\\?fica\\.', code 21495812, $TAG\$"

# The three arguments of the direct way, and the command line the kernel
# must show for them: the loader's fixed prefix, then each argument with one
# blank behind it.
ARGUMENTS='console=ttyS0 panic=-1 quiet'
DIRECT_CMDLINE="reboot=k $ARGUMENTS "
# The menu's entry hands its Arguments attribute over as it is.
MENU_CMDLINE="reboot=k $ARGUMENTS"
MENU_DOCUMENT="<R><Menu><Topic Delay=\"1\"/><Entry Key=\"l\" Text=\"Linux\" Default=\"\"><LoadKernel><Kernel Path=\"\\vmlinuz\" Arguments=\"$ARGUMENTS\"/><Ramdisk Path=\"\\initrd.img\"/><Loading Text=\"Cargando...\"/></LoadKernel></Entry></Menu></R>"
# The mode the loader must choose on QEMU's standard VGA: OVMF's GOP there
# offers no EDID, so only 4:3 modes up to 1024 pixels wide are candidates,
# and the largest of them wins. The firmware itself starts in 1280 x 800.
EXPECTED_SCREEN='1024 768'
EXPECTED_DEPTH=32
# Bytes per line: QEMU's standard VGA has no padding at the line ends.
EXPECTED_STRIDE=4096
PAYLOAD_BYTES=67108864

# ---------------------------------------------------------------------------
# Checks. Each writes its complaints through fail, which run_scenario
# defines per scenario; CONSOLE is the cleaned console, DIR the work folder.

# line_of TEXT FILE: number of the first line equal to TEXT, or 0.
line_of() {
    local n
    n=$(grep -n -x -F -e "$1" "$2" | head -n 1 | cut -d: -f1)
    echo "${n:-0}"
}

# line_matching REGEX FILE: number of the first line matching REGEX, or 0.
line_matching() {
    local n
    n=$(grep -n -E -e "$1" "$2" | head -n 1 | cut -d: -f1)
    echo "${n:-0}"
}

# init_value KEY LINES: the rest of the first /init line "KEY ...".
init_value() {
    sed -n "s/^$1 //p" "$2" | head -n 1
}

# check_started CONSOLE: the loader started exactly once.
check_started() {
    local count
    count=$(grep -c -x -F -e "$STARTUP_LINE" "$1")
    if [ "$count" -ne 1 ]; then
        fail "the loader's start-up line appears $count times, not once"
    fi
}

# check_kernel_boot DIR CONSOLE CMDLINE [LINE]...: the loader printed the
# LINEs after its start-up line and nothing else, then the kernel booted,
# was handed CMDLINE, the loader's signature and the whole ramdisk, found
# the framebuffer and a memory map, and powered the machine off.
check_kernel_boot() {
    local dir=$1 console=$2 cmdline=$3 lines startup greeting expected i value
    shift 3
    lines=$dir/init.txt
    init_lines "$console" >"$lines"

    case $BOOT_END in
        poweroff) ;;
        timeout) fail "no power-off within ${KERNEL_BOOT_TIME_LIMIT} s" ;;
        *) fail "the machine did not power off: QEMU $BOOT_END" ;;
    esac
    check_started "$console"
    if grep -q '^Runtime exception' "$console"; then
        fail "the loader reported: $(grep '^Runtime exception' "$console" | head -n 1)"
    fi
    startup=$(line_of "$STARTUP_LINE" "$console")
    greeting=$(line_of "$INIT_GREETING" "$console")
    if [ "$greeting" -eq 0 ]; then
        fail "the initramfs did not start: no '$INIT_GREETING'"
        return
    elif [ "$greeting" -le "$startup" ]; then
        fail "the initramfs' greeting comes before the loader's start-up line"
    fi
    # The loader's own lines: exactly these between its start and the kernel.
    i=$((startup + 1))
    for expected in "$@"; do
        value=$(sed -n "${i}p" "$console")
        if [ "$value" != "$expected" ]; then
            fail "loader line $((i - startup)): expected '$expected', got '$value'"
        fi
        i=$((i + 1))
    done
    if [ "$i" -ne "$greeting" ]; then
        fail "the loader printed $((greeting - startup - 1)) lines before the kernel, expected $#"
    fi

    value=$(init_value cmdline "$lines")
    if [ "$value" != "[$cmdline]" ]; then
        fail "kernel command line: expected [$cmdline], got ${value:-nothing}"
    fi
    value=$(init_value type_of_loader "$lines")
    if [ "$value" != 0x50 ]; then
        fail "type_of_loader: expected 0x50, got ${value:-nothing}"
    fi
    value=$(init_value header "$lines")
    if [ "$value" != '48 64 72 53' ]; then
        fail "boot_params header signature: expected 48 64 72 53 (HdrS), got ${value:-nothing}"
    fi
    check_framebuffer "$dir" "$lines"
    check_e820 "$lines"
    value=$(init_value 'payload sha256' "$lines")
    if [ "$value" != "$PAYLOAD_SHA256 size $PAYLOAD_BYTES" ]; then
        fail "ramdisk payload: expected $PAYLOAD_SHA256 size $PAYLOAD_BYTES, got ${value:-nothing}"
    fi
    if ! grep -q -x 'done' "$lines"; then
        fail "/init did not reach its end"
    fi
}

# check_framebuffer DIR LINES: the kernel found a framebuffer of the mode
# the loader had to choose, and QEMU's display was in that mode at the end.
check_framebuffer() {
    local dir=$1 lines=$2 fb screen
    fb=$(init_value fb0 "$lines")
    case $fb in
        "${EXPECTED_SCREEN/ /,} $EXPECTED_DEPTH $EXPECTED_STRIDE "*) ;;
        *) fail "framebuffer: expected ${EXPECTED_SCREEN/ /,} at $EXPECTED_DEPTH bits, $EXPECTED_STRIDE bytes a line; the kernel found ${fb:-nothing}" ;;
    esac
    if [ ! -s "$dir/screen.ppm" ]; then
        fail "no screen dump of the machine"
    else
        screen=$(screen_size "$dir/screen.ppm")
        if [ "$screen" != "$EXPECTED_SCREEN" ]; then
            fail "QEMU's display is ${screen:-unreadable}, expected $EXPECTED_SCREEN"
        fi
    fi
}

# check_e820 LINES: the kernel reports a memory map from its loader with
# usable memory below 640 KiB and at 1 MiB, and nearly all of the machine's
# memory as usable.
check_e820() {
    local lines=$1 count range type start end usable=0 low=0 high=0
    count=$(grep -c '^e820 ' "$lines")
    if [ "$count" -lt 3 ]; then
        fail "the kernel reports $count E820 entries"
        return
    fi
    while read -r _ range type; do
        # range: [mem 0xSTART-0xEND], END inclusive.
        range=${range#0x}
        start=$((0x${range%%-*}))
        end=${range#*-0x}
        end=$((0x${end%]}))
        [ "$type" = usable ] || continue
        usable=$((usable + end + 1 - start))
        [ "$start" -eq 0 ] && low=1
        [ "$start" -le $((0x100000)) ] && [ "$end" -ge $((0x100000)) ] && high=1
    done < <(sed -n 's/^e820 \[mem \(0x[0-9a-f]*-0x[0-9a-f]*\)\] \(.*\)$/x \1 \2/p' "$lines")
    [ "$low" -eq 1 ] || fail "E820: no usable range at address 0"
    [ "$high" -eq 1 ] || fail "E820: no usable range holding 1 MiB"
    if [ "$usable" -lt $((KERNEL_MEMORY_MIB * 1024 * 1024 * 9 / 10)) ]; then
        fail "E820: only $((usable / 1024)) KiB usable of the machine's $KERNEL_MEMORY_MIB MiB"
    fi
}

# check_report CONSOLE REGEX: the loader refused with the report REGEX after
# its start-up line, returned to the launcher, and no kernel ran.
check_report() {
    local console=$1 regex=$2 startup report status
    case $BOOT_END in
        'exit 1') ;;
        'exit 3') fail "the launcher ended QEMU with the failing value" ;;
        timeout) fail "no end within ${KERNEL_BOOT_TIME_LIMIT} s" ;;
        *) fail "QEMU: $BOOT_END, not the launcher's end" ;;
    esac
    check_started "$console"
    startup=$(line_of "$STARTUP_LINE" "$console")
    report=$(line_matching "$regex" "$console")
    if [ "$report" -eq 0 ]; then
        fail "no report /$regex/ (got: $(grep -a 'exception' "$console" | head -n 1))"
    elif [ "$report" -ne $((startup + 1)) ]; then
        fail "the report is not the line right after the start-up line"
    fi
    status=$(line_of "$STATUS_LINE" "$console")
    if [ "$status" -eq 0 ]; then
        fail "no '$STATUS_LINE' (got: $(grep '^launcher:' "$console" | head -n 1))"
    elif [ "$status" -le "$report" ]; then
        fail "'$STATUS_LINE' is not after the report"
    fi
    if grep -q -F -e "$INIT_PREFIX" "$console"; then
        fail "a kernel ran after all"
    fi
}

# ---------------------------------------------------------------------------
# Scenarios. Each makes its ESP in DIR, boots it through boot_machine and
# applies its checks to DIR/console.txt.

# patched_kernel OUT OFFSET HEX_BYTES: a copy of the kernel with the bytes
# at OFFSET replaced.
patched_kernel() {
    cp "$KERNEL_IMAGE" "$1" || return 1
    printf '%b' "$(printf '%s' "$3" | sed 's/\(..\)/\\x\1/g')" |
        dd of="$1" bs=1 seek="$(($2))" conv=notrunc status=none
}

# The direct way: kernel, ramdisk and three arguments.
scenario_direct() {
    local dir=$1
    make_launcher_esp "$dir/esp.img" "morvane.efi \\vmlinuz \\initrd.img $ARGUMENTS" \
        "$KERNEL_IMAGE" ::/vmlinuz "$INITRD_IMAGE" ::/initrd.img || { fail "cannot make the ESP"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/esp.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_kernel_boot "$dir" "$dir/console.txt" "$DIRECT_CMDLINE"
}

# The document way: the loader as the firmware's removable-media boot file,
# its document beside it with one LoadKernel entry, the default after 1 s.
scenario_menu() {
    local dir=$1
    printf '%s\n' "$MENU_DOCUMENT" >"$dir/BOOTX64.xml"
    if ! "$TOOL" conf check "$dir/BOOTX64.xml" >"$dir/conf-check.txt" 2>&1; then
        fail "morvane conf check refuses the document: $(cat "$dir/conf-check.txt")"
        return
    fi
    make_big_esp "$dir/esp.img" \
        "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI "$dir/BOOTX64.xml" ::/EFI/BOOT/BOOTX64.xml \
        "$KERNEL_IMAGE" ::/vmlinuz "$INITRD_IMAGE" ::/initrd.img || { fail "cannot make the ESP"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/esp.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_kernel_boot "$dir" "$dir/console.txt" "$MENU_CMDLINE" Linux Cargando...
}

# A kernel whose "HdrS" signature at 0x202 reads "HdrX".
scenario_corrupt_kernel() {
    local dir=$1
    patched_kernel "$dir/vmlinuz" 0x205 58 || { fail "cannot patch the kernel"; return; }
    make_launcher_esp "$dir/esp.img" "morvane.efi \\vmlinuz" \
        "$dir/vmlinuz" ::/vmlinuz || { fail "cannot make the ESP"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/esp.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_report "$dir/console.txt" "$CORRUPT_REPORT"
}

# A kernel that claims boot protocol 2.09 (version at 0x206, little endian).
scenario_old_protocol() {
    local dir=$1
    patched_kernel "$dir/vmlinuz" 0x206 0902 || { fail "cannot patch the kernel"; return; }
    make_launcher_esp "$dir/esp.img" "morvane.efi \\vmlinuz" \
        "$dir/vmlinuz" ::/vmlinuz || { fail "cannot make the ESP"; return; }
    boot_machine "$dir" -drive format=raw,file="$dir/esp.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_report "$dir/console.txt" "$UNSUPPORTED_REPORT"
}

# A machine without a display adapter: the firmware has neither GOP nor
# UGA, no framebuffer can be handed over, and the loader must not boot.
scenario_no_video() {
    local dir=$1
    make_launcher_esp "$dir/esp.img" "morvane.efi \\vmlinuz \\initrd.img $ARGUMENTS" \
        "$KERNEL_IMAGE" ::/vmlinuz "$INITRD_IMAGE" ::/initrd.img || { fail "cannot make the ESP"; return; }
    boot_machine "$dir" -vga none -drive format=raw,file="$dir/esp.img"
    clean_console <"$dir/console.raw" >"$dir/console.txt"
    check_report "$dir/console.txt" "$NO_VIDEO_REPORT"
}

ALL_SCENARIOS="direct menu corrupt_kernel old_protocol no_video"

scenario_log() {
    echo "== machine: $BOOT_END"
    echo "== console"
    cat "$1/console.txt" 2>/dev/null
    echo "== QEMU's standard error"
    cat "$1/qemu.err" 2>/dev/null
}

# The images are remade on every run; only the consoles are worth keeping.
scenario_cleanup() {
    rm -f "$1/esp.img" "$1/vmlinuz" "$1/vars.fd" "$1/screen.ppm"
}

scenarios=${*:-$ALL_SCENARIOS}
# shellcheck disable=SC2086
check_scenario_names "$ALL_SCENARIOS" $scenarios
# shellcheck disable=SC2086
run_scenarios kernel $scenarios
