# Shared pieces of the end-to-end runs: a FAT ESP made by mkfs.fat and mtools,
# one QEMU + OVMF boot of it, and the firmware console cleaned for comparison.
# Sourced by the scenario and demo scripts of this folder.

OVMF_CODE=/usr/share/OVMF/OVMF_CODE_4M.fd
OVMF_VARS=/usr/share/OVMF/OVMF_VARS_4M.fd
# One boot takes 5-20 s under TCG; anything near this limit is a hang.
BOOT_TIME_LIMIT=${BOOT_TIME_LIMIT:-90}

# e2e_images BUILD_DIR: sets LOADER_IMAGE and LAUNCHER_IMAGE, or fails.
e2e_images() {
    LOADER_IMAGE=$1/morvane.efi
    LAUNCHER_IMAGE=$1/tests/e2e/launcher/launcher.efi
    for image in "$LOADER_IMAGE" "$LAUNCHER_IMAGE"; do
        if [ ! -f "$image" ]; then
            echo "missing $image: build first (make)" >&2
            return 1
        fi
    done
}

# make_esp IMAGE WORKDIR [OPTIONS]: a whole-disk FAT volume holding the
# launcher as the removable-media boot file and the loader at the root. With
# OPTIONS, \launch.txt carries them; without, there is no \launch.txt and the
# loader is started with no load options.
make_esp() {
    image=$1 workdir=$2
    rm -f "$image"
    mkfs.fat -C "$image" 16384 >/dev/null || return 1
    mmd -i "$image" ::/EFI ::/EFI/BOOT || return 1
    mcopy -i "$image" "$LAUNCHER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI || return 1
    mcopy -i "$image" "$LOADER_IMAGE" ::/morvane.efi || return 1
    if [ $# -ge 3 ]; then
        printf '%s\n' "$3" > "$workdir/launch.txt"
        mcopy -i "$image" "$workdir/launch.txt" ::/launch.txt || return 1
    fi
}

# boot_esp IMAGE WORKDIR: boots the ESP with a fresh copy of the NVRAM and
# writes the raw serial console to WORKDIR/console.raw. Returns QEMU's exit
# status: the launcher's isa-debug-exit value v gives (v << 1) | 1, so 1 means
# the loader returned what it should; 124 is the time limit.
boot_esp() {
    image=$1 workdir=$2
    cp "$OVMF_VARS" "$workdir/vars.fd" || return 1
    timeout -k 5 "$BOOT_TIME_LIMIT" qemu-system-x86_64 \
        -machine q35,accel=tcg -m 256 -display none -serial stdio -nic none -no-reboot \
        -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
        -drive if=pflash,format=raw,file="$workdir/vars.fd" \
        -drive format=raw,file="$image" \
        -device isa-debug-exit,iobase=0xf4,iosize=0x04 \
        </dev/null >"$workdir/console.raw" 2>"$workdir/qemu.err"
}

# clean_console < RAW > TEXT: drops the firmware's terminal control sequences
# (ESC[2J, ESC[01;01H, ESC[=3h, colours, ...) and the CRs of its CRLF lines.
clean_console() {
    sed -e 's/\x1b\[[0-9;?=]*[@-~]//g' -e 's/\x1b[^[]//g' -e 's/\r//g'
}

# ---------------------------------------------------------------------------
# Boots of the loader as the firmware's own removable-media boot file, with
# the marker on a second disk as the boot option behind it. Used by
# the document and kernel scenarios and the demo.

# The marker's line, and QEMU's status when the marker ends it: its
# isa-debug-exit value 0x21 gives (0x21 << 1) | 1.
MARKER_LINE='marker: next boot option reached'
MARKER_EXIT_STATUS=67

# e2e_document_images BUILD_DIR: sets LOADER_IMAGE and MARKER_IMAGE, or fails.
e2e_document_images() {
    LOADER_IMAGE=$1/morvane.efi
    MARKER_IMAGE=$1/tests/e2e/marker/marker.efi
    local image
    for image in "$LOADER_IMAGE" "$MARKER_IMAGE"; do
        if [ ! -f "$image" ]; then
            echo "missing $image: build first (make)" >&2
            return 1
        fi
    done
}

# make_loader_esp IMAGE [DOCUMENT]: a whole-disk FAT volume with the loader
# as \EFI\BOOT\BOOTX64.EFI and, if given, DOCUMENT (any file, text or BXML)
# beside it as \EFI\BOOT\BOOTX64.xml, where the loader looks for it.
make_loader_esp() {
    local image=$1
    rm -f "$image"
    mkfs.fat -C "$image" 16384 >/dev/null || return 1
    mmd -i "$image" ::/EFI ::/EFI/BOOT || return 1
    mcopy -i "$image" "$LOADER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI || return 1
    if [ $# -ge 2 ]; then
        mcopy -i "$image" "$2" ::/EFI/BOOT/BOOTX64.xml || return 1
    fi
}

# make_marker_disk IMAGE: a whole-disk FAT volume with the marker as its
# removable-media boot file.
make_marker_disk() {
    local image=$1
    rm -f "$image"
    mkfs.fat -C "$image" 2048 >/dev/null || return 1
    mmd -i "$image" ::/EFI ::/EFI/BOOT || return 1
    mcopy -i "$image" "$MARKER_IMAGE" ::/EFI/BOOT/BOOTX64.EFI || return 1
}

# type_keys RAW FIFO [LINE KEYS]...: for each pair in turn, waits until the
# cleaned console in RAW holds LINE as a whole line, gives the loader a
# moment to reach its wait for a key (a key that arrives before the console
# is reset there is lost), then writes KEYS (printf %b escapes, so '\033[B'
# is the Down key of the serial terminal) to FIFO, QEMU's standard input.
# Runs until its last pair is done; the caller ends it when QEMU ends.
type_keys() {
    local raw=$1 fifo=$2
    shift 2
    while [ $# -ge 2 ]; do
        until clean_console <"$raw" | grep -q -x -F -e "$1"; do
            sleep 0.2
        done
        sleep 1
        printf '%b' "$2" >"$fifo"
        shift 2
    done
}

# boot_loader_disks WORKDIR ESP NEXT_DISK [LINE KEYS]...: boots ESP as the
# first disk and NEXT_DISK as the second, with a fresh copy of the NVRAM, and
# writes the raw serial console to WORKDIR/console.raw. With LINE KEYS pairs,
# the keys are typed on the serial console as type_keys says; without, QEMU's
# standard input is empty. OVMF's boot order is then: the q35 DVD drive
# (empty, fails at once), the first disk, the second disk. Returns QEMU's
# exit status: MARKER_EXIT_STATUS when the marker ended it, 124 at the time
# limit.
boot_loader_disks() {
    local workdir=$1 esp=$2 next=$3
    shift 3
    local input=/dev/null driver='' keys_fd='' status
    cp "$OVMF_VARS" "$workdir/vars.fd" || return 1
    : >"$workdir/console.raw"
    if [ $# -gt 0 ]; then
        input=$workdir/keys.fifo
        rm -f "$input"
        mkfifo "$input" || return 1
        # Held open for reading and writing, so neither QEMU's open of its
        # input nor the writes of type_keys wait for the other side, and QEMU
        # never sees the end of its input while it runs.
        exec {keys_fd}<>"$input"
        type_keys "$workdir/console.raw" "$input" "$@" &
        driver=$!
    fi
    timeout -k 5 "$BOOT_TIME_LIMIT" qemu-system-x86_64 \
        -machine q35,accel=tcg -m 256 -display none -serial stdio -nic none -no-reboot \
        -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
        -drive if=pflash,format=raw,file="$workdir/vars.fd" \
        -drive format=raw,file="$esp" \
        -drive format=raw,file="$next" \
        -device isa-debug-exit,iobase=0xf4,iosize=0x04 \
        <"$input" >"$workdir/console.raw" 2>"$workdir/qemu.err"
    status=$?
    if [ -n "$driver" ]; then
        kill "$driver" 2>/dev/null
        wait "$driver" 2>/dev/null
        exec {keys_fd}>&-
        rm -f "$input"
    fi
    return "$status"
}

# scenario_folders BUILD_DIR KIND: sets WORK, emptied, and LOGS for one
# script's scenarios, and drops the logs of KIND's earlier failures.
scenario_folders() {
    WORK=$1/e2e-$2-work
    LOGS=$1/e2e-logs
    rm -rf "$WORK"
    mkdir -p "$WORK" "$LOGS"
    rm -f "$LOGS/$2"-*.log
}

# run_scenario KIND NAME: runs scenario_NAME in WORK/NAME, with fail()
# collecting its reasons, and writes 'pass' or them to WORK/NAME/result.
# A failed scenario's log, LOGS/KIND-NAME.log, holds the reasons and what
# the script's scenario_log DIR prints; a script may also define
# scenario_cleanup DIR RESULT to drop large files.
run_scenario() {
    local kind=$1 name=$2 dir=$WORK/$2 failures
    mkdir -p "$dir"
    failures=$dir/result
    : >"$failures"
    fail() { echo "$1" >>"$failures"; }

    "scenario_$name" "$dir"

    if [ -s "$failures" ]; then
        {
            echo "== $kind scenario $name"
            sed 's/^/== failed: /' "$failures"
            scenario_log "$dir"
        } >"$LOGS/$kind-$name.log"
        echo "FAIL $name: $(paste -s -d ';' "$failures")   (log: $LOGS/$kind-$name.log)"
    else
        echo pass >"$failures"
        echo "PASS $name"
    fi
    if declare -F scenario_cleanup >/dev/null; then scenario_cleanup "$dir" "$(cat "$failures")"; fi
}

# run_scenarios KIND NAME...: runs the scenarios two at a time, as one
# boot keeps one core busy, then tallies them.
run_scenarios() {
    local kind=$1 name
    shift
    for name in "$@"; do
        while [ "$(jobs -r -p | wc -l)" -ge 2 ]; do
            wait -n
        done
        run_scenario "$kind" "$name" &
    done
    wait
    tally_results "$WORK"
}

# check_scenario_names ALL NAME...: refuses a name that isn't in ALL.
check_scenario_names() {
    local all=$1 name
    shift
    for name in "$@"; do
        case " $all " in
            *" $name "*) ;;
            *) echo "unknown scenario $name (have: $all)" >&2; exit 2 ;;
        esac
    done
}

# tally_results WORK: counts the "result" files the scenarios under WORK
# left ("pass", or their reasons), prints the closing line and answers
# whether all passed.
tally_results() {
    local passed=0 failed=0 result
    for result in "$1"/*/result; do
        if [ "$(cat "$result")" = pass ]; then
            passed=$((passed + 1))
        else
            failed=$((failed + 1))
        fi
    done
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
