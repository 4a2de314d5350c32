# shellcheck shell=sh disable=SC2154
# What every image matrix shares, sourced by each file system's script: one
# image per row of a table, made by the file system's independent tools,
# which `morvane fs` must show, copy out and change as those tools say.
#
# The script sets `matrix` (its name) and calls matrix_start with its own
# arguments; it sets `columns` (the names of the fields after the case name,
# into which each row is read) and `cases` (the table), defines
# make_case_image (makes $image for the row, failing when it cannot) and
# check_case, and calls run_matrix. check_reading needs copy_out_theirs DIR
# and copy_out_ours DIR; comparable (a filter of both sides of every
# comparison) and listed_link_time may be redefined. Checks report through
# fail; the script ends with status 0 when none failed.

# matrix_start TOOL [CASE...]: no CASE runs every row.
matrix_start() {
    tool=$1
    shift
    only="$*"
    [ -x "$tool" ] || { echo "$matrix matrix: no tool at $tool"; exit 2; }
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    # The independent tools and ours must read local times alike.
    export TZ=UTC LC_ALL=C.UTF-8
    # The rows run in a pipeline's subshell: the count lives in a file.
    echo 0 > "$work/failures"
    case_name=-
    # Given to every `morvane fs` call.
    fs_options=
    # no: the listings leave directories' times out.
    listing_directory_times=yes
}

fail() {
    echo "FAIL [$case_name]: $*"
    echo $(($(cat "$work/failures") + 1)) > "$work/failures"
}

wanted() {
    [ -z "$only" ] && return 0
    for one in $only; do [ "$one" = "$case_name" ] && return 0; done
    return 1
}

fs() {
    # shellcheck disable=SC2086
    "$tool" fs $fs_options "$image" "$@"
}

# same WHAT EXPECTED OURS: the two files are equal, else the first lines of
# their difference are reported.
same() {
    diff "$2" "$3" > "$work/diff" || fail "$1 differ: $(head -20 "$work/diff")"
}

# Files as "f PATH SIZE MTIME SHA256", symbolic links as "l PATH TARGET",
# directories as "d PATH". The sums are taken in one batch: a directory of
# thousands of entries would otherwise cost thousands of processes.
manifest() {
    (cd "$1" && find . -mindepth 1 -type d -printf 'd %P\n' && find . -type l -printf 'l %P %l\n' &&
        { find . -type f -print0 | xargs -0 -r sha256sum | sed 's#^\([0-9a-f]*\)  \./#S\t\1\t#'
          find . -type f -printf 'F\t%P\t%s %T@\n'; } |
        awk -F '\t' '$1 == "S" { sum[$3] = $2 } $1 == "F" { info[$2] = $3 }
            END { for (path in info) { split(info[path], v, " "); sub(/\..*/, "", v[2])
                                        printf "f %s %s %s %s\n", path, v[1], v[2], sum[path] } }') |
        LC_ALL=C sort
}

# The time a symbolic link of the reference copy DIR is listed with: the
# copy's own, unless the tool that made the copy cannot keep it.
listed_link_time() {
    date -d "@$(stat -c %Y "$1/$2")" '+%Y-%m-%d %H:%M:%S'
}

comparable() { cat; }

without_directory_times() {
    if [ "$listing_directory_times" = yes ]; then cat; else sed -E 's/^d [0-9-]+ [0-9:]+ /d /'; fi
}

# What `ls -l -R /` should print for the reference copy DIR, sizes of
# directories aside: the host's differ.
expected_listing() {
    ( (cd "$1" && find . -mindepth 1 \( -type d -printf 'd %TY-%Tm-%Td %TH:%TM:%TS %P\n' \) -o \
        \( -type f -printf '- %s %TY-%Tm-%Td %TH:%TM:%TS %P\n' \)) |
        sed -E 's/^((- [0-9]+|d) [0-9-]+ [0-9:]+)\.[0-9]+ /\1 /'
    (cd "$1" && find . -type l -printf '%P\n') | while IFS= read -r link; do
        target=$(readlink "$1/$link")
        printf 'l %s %s %s -> %s\n' "$(printf '%s' "$target" | wc -c)" "$(listed_link_time "$1" "$link")" \
            "$link" "$target"
    done) | without_directory_times | LC_ALL=C sort
}

# `ls -l -R /` with the directory lines cut to time and path.
our_listing() {
    fs ls -l -R / | sed -E -e 's#^d +[0-9]+ ([^ ]+ [^ ]+) (.*)/$#d \1 \2#' -e 's/^([-l]) +/\1 /' |
        without_directory_times | LC_ALL=C sort
}

# What the independent tool copies out against what `morvane fs` copies
# out (names, kinds, sizes, times, SHA-256 of every file, link targets),
# and against what `ls -l -R` shows.
check_reading() {
    ref="$work/ref"
    ours="$work/ours"
    rm -rf "$ref" "$ours"
    mkdir "$ref" "$ours"
    copy_out_theirs "$ref" || { fail "the independent tool could not copy the image out"; return; }
    copy_out_ours "$ours"
    manifest "$ref" | comparable > "$work/ref.manifest"
    manifest "$ours" 2>/dev/null | comparable > "$work/ours.manifest"
    same copies "$work/ref.manifest" "$work/ours.manifest"
    expected_listing "$ref" | comparable > "$work/ref.listing"
    our_listing | comparable > "$work/ours.listing"
    same listings "$work/ref.listing" "$work/ours.listing"
    rm -rf "$ref" "$ours"
}

# check_info TYPE UNIT ACCESS FREE: `fs info` names the file system TYPE,
# an allocation unit of UNIT bytes, an access that begins with ACCESS
# (read-write, read-only) and FREE free bytes as the file system's own tool
# counts them (- when it has none to ask).
check_info() {
    fs info > "$work/info" 2>&1 || { fail "info: $(cat "$work/info")"; return; }
    grep -qx "file system: *$1" "$work/info" || fail "info: not $1: $(cat "$work/info")"
    grep -Eqx "(cluster|block) size: *$2 bytes" "$work/info" || fail "info: not $2-byte units: $(cat "$work/info")"
    grep -q "^access: *$3" "$work/info" || fail "info: access not $3: $(cat "$work/info")"
    [ "$4" = - ] || grep -q "^free space: *$4 bytes" "$work/info" || fail "info: not $4 bytes free: $(cat "$work/info")"
}

# One change through `morvane fs`, which must be refused with $code.
attempt() {
    if fs "$@" > "$work/out" 2>&1; then
        fail "$* was not refused"
    elif ! grep -q "$code" "$work/out"; then
        fail "$*: refused without $code: $(cat "$work/out")"
    fi
}

# keep_image, then image_unchanged WHAT: the image is byte for byte as kept.
keep_image() { cp --sparse=always "$image" "$work/before.img"; }

image_unchanged() {
    cmp -s "$image" "$work/before.img" || fail "$1 altered the image"
    rm -f "$work/before.img"
}

# refuse_every_change CODE DIRECTORY [PATH...]: mkdir, cp-in (new and over
# /hello.txt), mv of /hello.txt (a rename and into DIRECTORY) and rm of
# /hello.txt and of each PATH are all refused with CODE, and the image stays
# as it was. The caller then runs its file system's own checker.
refuse_every_change() {
    code=$1
    directory=$2
    shift 2
    keep_image
    printf 'new\n' > "$work/new"
    attempt mkdir /made
    attempt cp-in "$work/new" /new.txt
    attempt cp-in "$work/new" /hello.txt
    attempt mv /hello.txt /moved.txt
    attempt mv /hello.txt "$directory"
    attempt rm /hello.txt
    for path in "$@"; do attempt rm "$path"; done
    image_unchanged "a refused change"
    rm -f "$work/new"
}

# No driver takes the image, and trying leaves it as it was.
check_refused_mount() {
    keep_image
    if fs ls / > "$work/out" 2>&1; then
        fail "the volume was mounted"
    elif ! grep -q "no driver recognises the volume" "$work/out"; then
        fail "refused for another reason: $(cat "$work/out")"
    fi
    image_unchanged "a refused mount"
}

run_matrix() {
    # Each row's fields land in the variables that $columns names.
    # shellcheck disable=SC2086,SC2229
    echo "$cases" | while read -r case_name $columns; do
        [ -n "$case_name" ] || continue
        wanted || continue
        image="$work/$case_name.img"
        if ! make_case_image; then
            fail "the image could not be made"
            rm -f "$image"
            continue
        fi
        check_case
        rm -f "$image"
        echo "case $case_name: done"
    done
    failures=$(cat "$work/failures")
    [ "$failures" -eq 0 ] && echo "$matrix matrix: all cases passed" && exit 0
    echo "$matrix matrix: $failures failure(s)"
    exit 1
}
