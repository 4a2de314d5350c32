#!/bin/sh
# NTFS backups through `morvane fs backup`: on a volume that mkntfs makes
# and ntfs-3g fills over FUSE with files of named streams (short, in
# clusters, binary, many), written through its "FILE:STREAM" names, the Win32 backup stream of each file (--kind 2)
# is taken apart by a parser written from the published layout (stream id,
# attributes, size, name size, the UTF-16 name, the data), and every data
# stream in it must equal what ntfscat reads of the same attribute; the
# streams must be exactly those ntfs-3g lists as user.* attributes, and
# `backup --list` must name each of them.
#
#   ntfs_backup_streams.sh TOOL
set -u
tool=$1
[ -x "$tool" ] || { echo "ntfs backup streams: no tool at $tool"; exit 2; }
for needed in mkntfs ntfs-3g ntfscat getfattr python3; do
    command -v "$needed" > /dev/null || { echo "SKIP: $needed is missing"; exit 0; }
done
work=$(mktemp -d)
mnt="$work/mnt"
trap 'umount "$mnt" 2>/dev/null; rm -rf "$work"' EXIT
export LC_ALL=C.UTF-8
image="$work/volume.img"

# The checks run in a pipeline's subshell: failures go to a file.
fail() {
    echo "FAIL [$1]: $2"
    echo "$1" >> "$work/failures"
}

# The files: NAME, the size of its unnamed data (random bytes), and its
# streams as STREAM=SIZE (random bytes too).
files='
one-stream.txt     12      side=15
in-clusters.bin    70000   big=90000 small=3
many.dat           0       a=1 b=2 c=300 d=4000 e=5 f=6 g=7 h=8
no-streams.bin     5000
'

make_image() {
    truncate -s 64M "$image" && mkntfs -F -f -q -c 4096 "$image" > /dev/null 2>&1 && mkdir "$mnt" &&
        ntfs-3g -o streams_interface=windows "$image" "$mnt" || return 1
    # Streams of any size are written as "FILE:STREAM" through this mount.
    echo "$files" | while read -r name size streams; do
        [ -n "$name" ] || continue
        head -c "$size" /dev/urandom > "$mnt/$name"
        for stream in $streams; do
            head -c "${stream#*=}" /dev/urandom > "$mnt/$name:${stream%%=*}" || exit 1
        done
    done || return 1
    umount "$mnt" || return 1
    # The streams as ntfs-3g lists them again, read only.
    ntfs-3g -o ro "$image" "$mnt" || return 1
    echo "$files" | while read -r name rest; do
        [ -n "$name" ] || continue
        getfattr --absolute-names -m '^user\.' "$mnt/$name" 2> /dev/null |
            sed -n 's/^user\./4-/p' | sort | tr '\n' ' ' > "$work/$name.listed"
    done
    umount "$mnt"
}

if ! make_image; then
    echo "SKIP: mkntfs or ntfs-3g over FUSE isn't usable here"
    exit 0
fi

# split_win32 FILE DIR: each stream of the Win32 backup stream FILE into
# DIR/ID-NAME (NAME "-" for none); a sparse stream's blocks land at their
# positions. Exit 1 on a stream that runs past the end.
split_win32() {
    python3 - "$1" "$2" << 'EOF'
import os, struct, sys
data = open(sys.argv[1], "rb").read()
out, at, sparse = sys.argv[2], 0, {}
while at < len(data):
    if len(data) - at < 20:
        sys.exit("header cut short at %d" % at)
    sid, attributes, size, name_size = struct.unpack_from("<IIQI", data, at)
    name = data[at + 20:at + 20 + name_size].decode("utf-16-le") or "-"
    body = data[at + 20 + name_size:at + 20 + name_size + size]
    if len(body) != size:
        sys.exit("stream %d cut short" % sid)
    at += 20 + name_size + size
    path = os.path.join(out, "%d-%s" % (sid, name))
    if sid == 9:
        path = os.path.join(out, "%d-%s" % (sparse[name], name))
        with open(path, "r+b") as f:
            f.seek(struct.unpack_from("<Q", body)[0])
            f.write(body[8:])
        continue
    with open(path, "wb") as f:
        f.write(b"" if attributes & 8 else body)
    if attributes & 8:
        sparse[name] = sid
EOF
}

echo "$files" | while read -r name size streams; do
    [ -n "$name" ] || continue
    got="$work/$name.d"
    mkdir "$got"
    if ! "$tool" fs "$image" backup --kind 2 "/$name" - > "$work/$name.w32" 2> "$work/err"; then
        fail "$name" "backup refused: $(cat "$work/err")"
        continue
    fi
    split_win32 "$work/$name.w32" "$got" || { fail "$name" "not a Win32 backup stream"; continue; }
    [ -f "$got/3--" ] || fail "$name" "no security stream"
    ntfscat "$image" "/$name" > "$work/expected" 2> /dev/null
    cmp -s "$work/expected" "$got/1--" || fail "$name" "unnamed data differs from ntfscat's"
    wanted=$(for s in $streams; do echo "4-${s%%=*}"; done | sort | tr '\n' ' ')
    listed=$(cat "$work/$name.listed")
    shown=$(cd "$got" && ls | grep '^4-' | sort | tr '\n' ' ')
    [ "$wanted" = "$listed" ] || fail "$name" "ntfs-3g lists [$listed], it was told [$wanted]"
    [ "$shown" = "$listed" ] || fail "$name" "streams [$shown], ntfs-3g lists [$listed]"
    "$tool" fs "$image" backup --list "/$name" > "$work/list" 2>&1 || fail "$name" "--list refused"
    for s in $streams; do
        stream=${s%%=*}
        ntfscat -a 0x80 -n "$stream" "$image" "/$name" > "$work/expected" 2> /dev/null
        cmp -s "$work/expected" "$got/4-$stream" || fail "$name" "stream $stream differs from ntfscat's"
        grep -q "^2 .*$stream" "$work/list" || fail "$name" "--list doesn't name $stream"
    done
done

failures=$(cat "$work/failures" 2> /dev/null | wc -l)
if [ "$failures" -ne 0 ]; then
    echo "ntfs backup streams: $failures failures"
    exit 1
fi
echo "ntfs backup streams: all passed"
