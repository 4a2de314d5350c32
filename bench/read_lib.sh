# shellcheck shell=bash
# What the read benchmarks share: the arguments, the check that every way
# delivers the right bytes before it is timed, the interleaved rounds with
# the best round counting, and the report. Sourced by fat_read.sh and
# ext_read.sh.
#
# A benchmark script defines, before calling measure_ways:
#   read_way WAY    writes what WAY delivers to standard output (timed)
#   LABEL[WAY]      how the report names WAY
# and may define canonical WAY, a filter that puts WAY's output into the
# form that is compared (cat when not defined). The way named morvane is
# ours; raw and grub are what it is compared with.

# bench_arguments "$@": BUILD_DIR, ROUNDS and TOOL from the command line.
bench_arguments() {
    if [ $# -lt 1 ] || [ $# -gt 2 ]; then
        echo "usage: $0 BUILD_DIR [ROUNDS]" >&2
        exit 2
    fi
    BUILD_DIR=$(cd "$1" && pwd) || exit 2
    ROUNDS=${2:-3}
    case $ROUNDS in
        ''|*[!0-9]*|0) echo "ROUNDS must be a positive number" >&2; exit 2 ;;
    esac
    TOOL=$BUILD_DIR/morvane
    BENCH_PASSED=0
    BENCH_FAILED=0
}

# bench_require COMMAND...: leaves with status 2 when one is missing.
bench_require() {
    local needed
    for needed in "$@"; do
        if ! command -v "$needed" >/dev/null; then
            echo "missing $needed: build first (make) and install the tools (make deps)" >&2
            exit 2
        fi
    done
}

declare -A LABEL

if ! declare -F canonical >/dev/null; then
    canonical() { cat; }
fi

# seconds_of WAY: the wall-clock seconds of one run of the way into /dev/null.
seconds_of() {
    local start end
    start=$EPOCHREALTIME
    read_way "$1" >/dev/null 2>"$WORK/$1.err"
    end=$EPOCHREALTIME
    awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f\n", e - s }'
}

# measure_ways TITLE MIB EXPECTED_SHA256 WAY...: checks each way's output
# against EXPECTED_SHA256, times the right ones ROUNDS times, interleaved,
# and prints the best round of each: MiB/s when MIB is a size, seconds when
# it is empty. Then the ratios of our way over the others: above 1 means
# ours is faster; beside those of reads, the goals (RAW_GOAL and GRUB_GOAL,
# which a script may set; 0.5 and 1.5 unless it does). Counts ways into
# BENCH_PASSED and BENCH_FAILED.
measure_ways() {
    local title=$1 mib=$2 expected=$3 way got seconds other
    shift 3
    local -a ways=("$@")
    declare -A right=() best=()
    for way in "${ways[@]}"; do
        got=$(read_way "$way" 2>"$WORK/$way.err" | canonical "$way" | sha256sum | cut -d ' ' -f 1)
        if [ "$got" = "$expected" ]; then
            right[$way]=1
            BENCH_PASSED=$((BENCH_PASSED + 1))
        else
            right[$way]=0
            BENCH_FAILED=$((BENCH_FAILED + 1))
            echo "  ${LABEL[$way]}: wrong output (sha256 $got, expected $expected): $(head -c 300 "$WORK/$way.err")"
        fi
    done
    echo "$title, best of $ROUNDS rounds:"
    for _ in $(seq "$ROUNDS"); do
        for way in "${ways[@]}"; do
            [ "${right[$way]}" -eq 1 ] || continue
            seconds=$(seconds_of "$way")
            best[$way]=$(awk -v a="${best[$way]-}" -v b="$seconds" 'BEGIN { print (a == "" || b < a) ? b : a }')
        done
    done
    for way in "${ways[@]}"; do
        if [ "${right[$way]}" -ne 1 ]; then
            printf '  %-44s failed\n' "${LABEL[$way]}:"
        elif [ -n "$mib" ]; then
            printf '  %-44s %8s MiB/s  (%.3f s)\n' "${LABEL[$way]}:" \
                "$(awk -v s="${best[$way]}" -v m="$mib" 'BEGIN { printf "%.1f", m / s }')" "${best[$way]}"
        else
            printf '  %-44s %8.3f s\n' "${LABEL[$way]}:" "${best[$way]}"
        fi
    done
    [ "${right[morvane]-0}" -eq 1 ] || return 0
    for other in raw grub; do
        [ "${right[$other]-0}" -eq 1 ] || continue
        awk -v a="${best[$other]}" -v b="${best[morvane]}" -v name="$other" -v reads="$mib" \
            -v raw_goal="${RAW_GOAL:-0.5}" -v grub_goal="${GRUB_GOAL:-1.5}" 'BEGIN {
            ratio = a / b
            if (reads == "") goal = ""
            else if (name == "raw") goal = sprintf("   (goal at least %.2f: %s)", raw_goal, ratio >= raw_goal ? "met" : "not met")
            else goal = sprintf("   (goal %.1f or more: %s)", grub_goal, ratio >= grub_goal ? "met" : "not met")
            printf "  our driver over %-14s %6.2f%s\n", (name == "raw" ? "the raw read:" : "grub-fstest:"), ratio, goal }'
    done
}

# bench_summary: the closing line, and the status: 0 when every way was right.
bench_summary() {
    echo "$BENCH_PASSED passed, $BENCH_FAILED failed"
    [ "$BENCH_FAILED" -eq 0 ]
}
