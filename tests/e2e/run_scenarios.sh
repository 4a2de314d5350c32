#!/bin/bash
# End-to-end scenarios: each boots the real morvane.efi under QEMU + OVMF from
# a FAT ESP made by mkfs.fat and mtools, started by the test launcher with
# chosen load options, and checks the loader's console text and exit status.
#
#   tests/e2e/run_scenarios.sh BUILD_DIR
#
# Consoles of failed scenarios are kept in BUILD_DIR/e2e-logs/.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
. "$HERE/lib.sh"
e2e_images "$BUILD_DIR" || exit 2

WORK=$BUILD_DIR/e2e-work
LOGS=$BUILD_DIR/e2e-logs
rm -rf "$WORK" "$LOGS"
mkdir -p "$WORK" "$LOGS"

# The loader's exact console texts.
USAGE_LINE='Usage: morvane.efi <kernel> [ramdismk] [cmdline arg]....'
NO_ARGUMENTS_LINE='If no arguments are specified, xml config is loaded'
STARTUP_LINE='Iniciando el cargador Morvane UEFI...'
# Non-ASCII letters reach the serial console as '?', so none are spelled out.
OPEN_ERROR_REPORT="^Runtime exception 'Error durante la apertura del archivo\\.', code 262151, tag 0x[0-9a-f]{16}\$"
STATUS_LINE='launcher: exit status 0x1'

# line_of TEXT FILE: number of the first line equal to TEXT, or 0.
line_of() {
    n=$(grep -n -x -F -e "$1" "$2" | head -n 1 | cut -d: -f1)
    echo "${n:-0}"
}

# line_matching REGEX FILE: number of the first line matching REGEX, or 0.
line_matching() {
    n=$(grep -n -E -e "$1" "$2" | head -n 1 | cut -d: -f1)
    echo "${n:-0}"
}

# check_exit QEMU_STATUS CONSOLE FROM: the launcher reported status 1 after
# line FROM and ended QEMU with the passing value.
check_exit() {
    case $1 in
        1) ;;
        3) fail "the launcher ended QEMU with the failing value" ;;
        124) fail "no end within ${BOOT_TIME_LIMIT} s" ;;
        *) fail "QEMU exited with status $1" ;;
    esac
    status=$(line_of "$STATUS_LINE" "$2")
    if [ "$status" -eq 0 ]; then
        fail "no '$STATUS_LINE' (got: $(grep '^launcher:' "$2" | head -n 1))"
    elif [ "$status" -le "$3" ]; then
        fail "'$STATUS_LINE' is not after the loader's output"
    fi
}

# The usage text, alone: the loader must not start.
check_usage() {
    usage=$(line_of "$USAGE_LINE" "$2")
    note=$(line_of "$NO_ARGUMENTS_LINE" "$2")
    if [ "$usage" -eq 0 ]; then
        fail "no usage line"
    elif [ "$(grep -c -x -F -e "$USAGE_LINE" "$2")" -ne 1 ]; then
        fail "the usage line is printed more than once"
    fi
    if [ "$note" -eq 0 ]; then
        fail "no '$NO_ARGUMENTS_LINE'"
    elif [ "$note" -ne $((usage + 1)) ]; then
        fail "'$NO_ARGUMENTS_LINE' does not follow the usage line"
    fi
    if grep -q -F -e "$STARTUP_LINE" "$2"; then
        fail "the start-up line was printed"
    fi
    check_exit "$1" "$2" "$note"
}

# A start that fails to open a file: the start-up line, then the report.
check_open_error() {
    startup=$(line_of "$STARTUP_LINE" "$2")
    report=$(line_matching "$OPEN_ERROR_REPORT" "$2")
    if [ "$startup" -eq 0 ]; then
        fail "no start-up line"
    fi
    if [ "$report" -eq 0 ]; then
        fail "no file-open error report (got: $(grep 'exception' "$2" | head -n 1))"
    elif [ "$report" -le "$startup" ]; then
        fail "the error report comes before the start-up line"
    fi
    if grep -q '^Usage:' "$2"; then
        fail "the usage text was printed"
    fi
    check_exit "$1" "$2" "$report"
}

# run_scenario NAME CHECK [OPTIONS]: boots one ESP and applies CHECK to its
# console; writes 'pass' or the reasons of failure to WORK/NAME/result.
run_scenario() {
    name=$1 check=$2
    shift 2
    dir=$WORK/$name
    mkdir -p "$dir"
    failures=$dir/result
    : >"$failures"
    fail() { echo "$1" >>"$failures"; }

    if ! make_esp "$dir/esp.img" "$dir" "$@"; then
        fail "cannot make the ESP"
    else
        boot_esp "$dir/esp.img" "$dir"
        qemu_status=$?
        clean_console <"$dir/console.raw" >"$dir/console.txt"
        "$check" "$qemu_status" "$dir/console.txt"
    fi

    if [ -s "$failures" ]; then
        {
            echo "== scenario $name, options: ${1-<no launch.txt>}"
            sed 's/^/== failed: /' "$failures"
            cat "$dir/console.txt" "$dir/qemu.err" 2>/dev/null
        } >"$LOGS/$name.log"
        echo "FAIL $name: $(paste -s -d ';' "$failures")   (log: $LOGS/$name.log)"
    else
        echo pass >"$failures"
        echo "PASS $name"
        rm -f "$dir/esp.img" "$dir/vars.fd"
    fi
}

# Two at a time: one boot keeps one core busy.
PARALLEL=2
scenario() {
    while [ "$(jobs -r -p | wc -l)" -ge "$PARALLEL" ]; do
        wait -n
    done
    run_scenario "$@" &
}

scenario help_question   check_usage      'morvane.efi /?'
scenario help_word       check_usage      'morvane.efi /help'
scenario help_quoted     check_usage      'morvane.efi "/?"'
scenario help_uppercase  check_open_error 'morvane.efi /HELP'
scenario missing_kernel  check_open_error 'morvane.efi nokernel'
scenario no_options      check_open_error
wait
# The tagged one-shot boot entry in real NVRAM; it records its own result.
"$HERE/nvram_scenario.sh" "$BUILD_DIR"

tally_results "$WORK"
