# shellcheck shell=bash
# The start that the boot benchmarks share (boot_time.sh, boot_race.sh):
# their arguments BUILD_DIR [ROUNDS], and the end-to-end libraries that
# make their disks and run QEMU + OVMF.
#
#   . "$(dirname "$0")/boot_lib.sh" "$@"      sets HERE, E2E, BUILD_DIR, ROUNDS
#
# and what both read from a boot's stamped console: seconds_to.
if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 BUILD_DIR [ROUNDS]" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
E2E=$(cd "$HERE/../tests/e2e" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
ROUNDS=${2:-3}
case $ROUNDS in
    ''|*[!0-9]*|0) echo "ROUNDS must be a positive number" >&2; exit 2 ;;
esac
. "$E2E/lib.sh"
. "$E2E/kernel/kernel_lib.sh"

# seconds_to TIMES REGEX: "WALL CPU" for the first line of the stamped
# console TIMES that matches REGEX (extended): seconds from BOOT_START, and
# QEMU's processor seconds by then; nothing if no line matches.
seconds_to() {
    clean_console <"$1" | awk -v start="$BOOT_START" -v regex="$2" '
        { line = $0; sub(/^[^ ]* [^ ]* /, "", line) }
        line ~ regex { printf "%.2f %s\n", $1 - start, $2; exit }'
}
