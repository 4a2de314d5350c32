# shellcheck shell=bash
# What the write benchmarks share: each round writes onto a fresh copy of
# an empty volume image, the copy made outside the timing; what each way
# wrote is read back by an independent tool and the volume checked by an
# independent checker before any timing and again after the last round; the
# best round of each way counts; and when our driver misses its goal, a
# count of the writes it sends to the image says where the time goes.
# Arguments, the tool check and the closing line come from read_lib.sh.
#
# A benchmark script sets EMPTY_IMAGE (the image every round starts from)
# and defines, before calling measure_writes:
#   write_way WAY IMAGE   writes the file onto IMAGE that way (timed); our
#                         way runs its tool under "${TRACE[@]}", which is
#                         empty unless writes are being counted
#   written_sha WAY IMAGE the SHA-256 of what WAY left on IMAGE, read back
#                         by an independent tool
#   check_volume IMAGE    the independent checker; its status says clean
#   LABEL[WAY]            how the report names WAY
# The way named morvane is ours; raw is the plain write it is compared with;
# any other way is a peer's write of the same file, which ours should beat.

. "$(dirname "${BASH_SOURCE[0]}")/read_lib.sh"

# Read by the scripts' write_way.
# shellcheck disable=SC2034
TRACE=()

# raw_runs IMAGE read|write: dd over each run of free blocks that the
# script listed in $WORK/runs ("IMAGE_OFFSET BYTES" a line), $FILE's bytes
# in order.
raw_runs() {
    local offset bytes done=0
    while read -r offset bytes; do
        if [ "$2" = write ]; then
            dd if="$FILE" of="$1" bs=1M conv=notrunc iflag=skip_bytes,count_bytes oflag=seek_bytes \
                skip="$done" seek="$offset" count="$bytes" status=none || return 1
        else
            dd if="$1" bs=1M iflag=skip_bytes,count_bytes skip="$offset" count="$bytes" status=none || return 1
        fi
        done=$((done + bytes))
    done <"$WORK/runs"
}

# fresh_image WAY: a copy of EMPTY_IMAGE for WAY, on disk before the timing
# starts, so that no write-back of the copy falls into a timed round.
fresh_image() {
    local image=$WORK/$1.img
    cp "$EMPTY_IMAGE" "$image" && sync "$image" && echo "$image"
}

# written_right WAY IMAGE EXPECTED_SHA256: true when WAY's bytes read back
# right and the volume stays clean; says what was wrong otherwise.
written_right() {
    local got
    got=$(written_sha "$1" "$2")
    if [ "$got" != "$3" ]; then
        echo "  ${LABEL[$1]}: wrong bytes read back (sha256 $got, expected $3): $(head -c 300 "$WORK/$1.err")"
        return 1
    fi
    if ! check_volume "$2" >"$WORK/$1.check" 2>&1; then
        echo "  ${LABEL[$1]}: the checker finds the volume damaged: $(head -c 300 "$WORK/$1.check")"
        return 1
    fi
}

# seconds_writing WAY: the wall-clock seconds of one write onto a fresh image.
seconds_writing() {
    local image start end
    image=$(fresh_image "$1") || return 1
    start=$EPOCHREALTIME
    write_way "$1" "$image" 2>"$WORK/$1.err" || return 1
    end=$EPOCHREALTIME
    awk -v s="$start" -v e="$end" 'BEGIN { printf "%.4f\n", e - s }'
}

# write_counts: our way's writes to the image, grouped by size, most
# frequent first, from an strace of one write onto a fresh image. The tool
# writes to its volume only with pwrite; the size is what the call returned.
write_counts() {
    local image
    image=$(fresh_image morvane) || return 1
    TRACE=(strace -f -qq -s 0 -e "trace=pwrite64,pwritev,pwritev2" -o "$WORK/morvane.trace")
    write_way morvane "$image" 2>"$WORK/morvane.err"
    # shellcheck disable=SC2034
    TRACE=()
    awk '/pwrite/ && $NF ~ /^[0-9]+$/ { calls[$NF]++ }
        END { for (size in calls) printf "%d %d %.1f\n", calls[size], size, calls[size] * size / 1048576 }' \
        "$WORK/morvane.trace" | sort -rn | head -4 |
        awk '{ printf "    %7d calls of %8d bytes (%6.1f MiB)\n", $1, $2, $3 }'
}

# measure_writes TITLE MIB EXPECTED_SHA256 WAY...: checks each way's write,
# times the right ones ROUNDS times, interleaved, checks the last round's
# images again, and prints MiB/s of each way's best round and the ratio of
# ours over the raw write beside the goal (RAW_GOAL, 0.5 unless set).
# Counts ways into BENCH_PASSED and BENCH_FAILED.
measure_writes() {
    local title=$1 mib=$2 expected=$3 way image seconds
    shift 3
    local -a ways=("$@")
    declare -A right=() best=()
    for way in "${ways[@]}"; do
        right[$way]=0
        image=$(fresh_image "$way") || continue
        write_way "$way" "$image" 2>"$WORK/$way.err" && written_right "$way" "$image" "$expected" && right[$way]=1
    done
    echo "$title, best of $ROUNDS rounds:"
    for _ in $(seq "$ROUNDS"); do
        for way in "${ways[@]}"; do
            [ "${right[$way]}" -eq 1 ] || continue
            if ! seconds=$(seconds_writing "$way"); then
                echo "  ${LABEL[$way]}: a timed round failed: $(head -c 300 "$WORK/$way.err")"
                right[$way]=0
                continue
            fi
            best[$way]=$(awk -v a="${best[$way]-}" -v b="$seconds" 'BEGIN { print (a == "" || b < a) ? b : a }')
        done
    done
    for way in "${ways[@]}"; do
        [ "${right[$way]}" -eq 1 ] && ! written_right "$way" "$WORK/$way.img" "$expected" && right[$way]=0
        if [ "${right[$way]}" -eq 1 ]; then
            BENCH_PASSED=$((BENCH_PASSED + 1))
            printf '  %-52s %8s MiB/s  (%.3f s)\n' "${LABEL[$way]}:" \
                "$(awk -v s="${best[$way]}" -v m="$mib" 'BEGIN { printf "%.1f", m / s }')" "${best[$way]}"
        else
            BENCH_FAILED=$((BENCH_FAILED + 1))
            printf '  %-52s failed\n' "${LABEL[$way]}:"
        fi
    done
    # A peer that writes the same file (any way but ours and the raw one):
    # ours should be ahead of it.
    for way in "${ways[@]}"; do
        case $way in morvane | raw) continue ;; esac
        [ "${right[morvane]-0}" -eq 1 ] && [ "${right[$way]}" -eq 1 ] || continue
        awk -v p="${best[$way]}" -v o="${best[morvane]}" -v name="${LABEL[$way]%% *}" 'BEGIN {
            printf "  our driver over %s: %6.2f   (%s)\n", name, p / o, (p > o ? "ahead" : "behind") }'
    done
    [ "${right[morvane]-0}" -eq 1 ] && [ "${right[raw]-0}" -eq 1 ] || return 0
    local met
    met=$(awk -v r="${best[raw]}" -v o="${best[morvane]}" -v goal="${RAW_GOAL:-0.5}" 'BEGIN {
        ratio = r / o
        printf "  our driver over the raw write: %6.2f   (goal at least %.2f: %s)\n", ratio, goal, (ratio >= goal ? "met" : "not met") }')
    echo "$met"
    case $met in
        *'not met)')
            if command -v strace >/dev/null; then
                echo "  where the time goes: our driver's writes to the image, by size:"
                write_counts
            fi ;;
    esac
}
