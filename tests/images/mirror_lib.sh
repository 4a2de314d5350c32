# shellcheck shell=sh
# What the write matrices share, sourced after matrix_start: every change
# made through `morvane fs` is made on a host copy of the tree too, the
# mirror, against which the volume is judged.
mirror="$work/mirror"

# put HOSTFILE PATH: copies in, over any file of that name.
put() {
    if fs cp-in "$1" "$2" 2>"$work/err"; then cp "$1" "$mirror$2"; else fail "cp-in to $2: $(cat "$work/err")"; fi
}

# make_dirs PATH...: in one call, parents before children.
make_dirs() {
    fs mkdir "$@" 2>"$work/err" || fail "mkdir $1 ...: $(head -3 "$work/err")"
    for path in "$@"; do mkdir "$mirror$path"; done
}

# move FROM TO: a rename, or a move into TO when it is a directory.
move() {
    if fs mv "$1" "$2" 2>"$work/err"; then mv "$mirror$1" "$mirror$2"; else fail "mv $1 $2: $(cat "$work/err")"; fi
}

# remove PATH...: files and empty directories, in one call.
remove() {
    fs rm "$@" 2>"$work/err" || fail "rm $1 ...: $(head -3 "$work/err")"
    for path in "$@"; do
        if [ -d "$mirror$path" ]; then rmdir "$mirror$path"; else rm -f "$mirror$path"; fi
    done
}

# link EXISTING NEW: a hard link.
link() {
    if fs ln "$1" "$2" 2>"$work/err"; then ln "$mirror$1" "$mirror$2"; else fail "ln $1 $2: $(cat "$work/err")"; fi
}

# host_file NAME BYTES: random bytes in a host file, its path printed.
host_file() {
    head -c "$2" /dev/urandom > "$work/$1"
    echo "$work/$1"
}

# "f PATH SIZE SHA256", "d PATH", "l PATH TARGET": the manifest of
# matrix_lib.sh without modification times (the mirror's are its own).
timeless_manifest() {
    manifest "$1" | sed -E 's/^(f .* [0-9]+) -?[0-9]+ ([0-9a-f]{64})$/\1 \2/'
}
