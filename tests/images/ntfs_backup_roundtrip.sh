#!/bin/sh
# NTFS backups carried to another volume: mkntfs makes a source and a
# destination volume, ntfs-3g over FUSE fills the source with files of named
# streams, a hard link, a sparse and a compressed file, a directory with a
# stream of its own, chosen attributes, times and a security descriptor; each
# entry goes out through `morvane fs SRC backup` and back in through
# `morvane fs DST restore`. Then ntfs-3g, mounted read only, must show on the
# destination what the source holds: contents, sizes, user.* streams, the
# modification and creation times (to the millisecond the backup carries),
# the attributes a restore may set, the descriptor; and `ntfsfix -n` must
# find the destination clean. Last, Ctrl-C during the backup of a large file
# must cancel it with FILE_CANCELLED and leave no backup file.
#
#   ntfs_backup_roundtrip.sh TOOL
set -u
tool=$1
[ -x "$tool" ] || { echo "ntfs backup round trip: no tool at $tool"; exit 2; }
for needed in mkntfs ntfs-3g ntfsfix setfattr getfattr python3; do
    command -v "$needed" > /dev/null || { echo "SKIP: $needed is missing"; exit 77; }
done
[ -c /dev/fuse ] || { echo "SKIP: no /dev/fuse for ntfs-3g"; exit 77; }
work=$(mktemp -d)
mnt="$work/mnt"
mkdir "$mnt"
# A mount left behind by a failed step would keep the image busy.
trap 'umount "$mnt" 2>/dev/null; rm -rf "$work"' EXIT
export TZ=UTC LC_ALL=C.UTF-8
src="$work/src.img"
dst="$work/dst.img"
failures=0

fail() {
    echo "FAIL [$1]: $2"
    failures=$((failures + 1))
}

# The entries carried over: FROM on the source, restored to TO on the
# destination. ATTRIBUTES are set by ntfs-3g on the source ("-" keeps what
# it gives); MODIFIED goes through touch -d, CREATED through
# system.ntfs_crtime. The fractions below a millisecond are there to be
# cut: the backup carries milliseconds. The directory is the source's root,
# restored onto an empty directory, set last on the source, where writing
# its children changes its times.
entries='
/docs/streams.bin      /docs/streams.bin      0x00002020  2001-02-03T04:05:06.7891234  1999-12-31T23:59:59.9999999
/docs/second-name.bin  /docs/second-name.bin  0x00000021  2011-11-11T11:11:11          2010-10-10T10:10:10
/sparse.bin            /sparse.bin            -           2040-01-02T03:04:05.006      2030-01-01T00:00:00
/tail.bin              /tail.bin              -           2041-01-02T03:04:05          2031-01-01T00:00:00
/packed/text.txt       /packed/text.txt       0x00000822  2012-12-12T12:12:12          1965-03-04T05:06:07
/packed/mixed.bin      /packed/mixed.bin      -           2013-01-01T00:00:01          2013-01-01T00:00:00
/flags.bin             /flags.bin             0x00001127  2099-12-31T23:59:59          1980-01-01T00:00:00
/normal.bin            /normal.bin            0x00000000  2005-05-05T05:05:05.5        2005-05-05T05:05:05.4
/secured.bin           /secured.bin           -           2006-06-06T06:06:06          2006-06-06T06:06:06
/                      /root-copy             -           2020-02-02T02:02:02.0202     2019-09-09T09:09:09
'

# ntfs_time DATE: the value NTFS stores for DATE (100 ns from 1601).
ntfs_time() {
    seconds=$(date -d "$1" +%s) && fraction=$(date -d "$1" +%N) || return 1
    echo $((seconds * 10000000 + 1${fraction} / 100 - 10000000 + 116444736000000000))
}

# A self-relative descriptor that neither mkntfs, ntfs-3g nor a new file of
# ours would make: its owner, group and two allowing entries are our own.
set_descriptor() {
    python3 - "$1" << 'EOF'
import os, struct, sys
def sid(authority, *subs):
    return (struct.pack("<BB", 1, len(subs)) + authority.to_bytes(6, "big") +
            b"".join(struct.pack("<I", s) for s in subs))
owner, group = sid(5, 21, 11, 22, 33, 1001), sid(5, 21, 11, 22, 33, 513)
aces = b""
for mask, who in ((0x1200A9, sid(1, 0)), (0x1F01FF, owner)):
    aces += struct.pack("<BBHI", 0, 0, 8 + len(who), mask) + who
acl = struct.pack("<BBHHH", 2, 0, 8 + len(aces), 2, 0) + aces
dacl_at, owner_at = 20, 20 + len(acl)
descriptor = struct.pack("<BBHIIII", 1, 0, 0x8004, owner_at, owner_at + len(owner), 0, dacl_at) + acl + owner + group
os.setxattr(sys.argv[1], "system.ntfs_acl", descriptor)
EOF
}

# set_streams FILE: user.* attributes of ntfs-3g are named data streams: a
# short one, one far beyond what a record holds (an extended attribute
# carries 64 KiB at most), an empty one and one with a name beyond ASCII.
set_streams() {
    python3 - "$1" << 'EOF'
import os, sys
os.setxattr(sys.argv[1], "user.side", b"a short side stream")
os.setxattr(sys.argv[1], "user.big", os.urandom(65000))
os.setxattr(sys.argv[1], "user.empty", b"")
os.setxattr(sys.argv[1], "user.ünïcödé", os.urandom(300))
EOF
}

fill_source() {
    m=$mnt
    mkdir "$m/docs" "$m/packed"
    head -c 3000 /dev/urandom > "$m/docs/streams.bin"
    set_streams "$m/docs/streams.bin" || return 1
    setfattr -n user.of-the-directory -v 0x0102030405 "$m" || return 1
    head -c 5000 /dev/urandom > "$m/docs/linked.bin"
    ln "$m/docs/linked.bin" "$m/docs/second-name.bin" || return 1
    # Holes between ranges of data, the last one ending inside a cluster.
    for at in 0 700000 2000000; do
        head -c 5000 /dev/urandom | dd of="$m/sparse.bin" bs=5000 seek="$at" oflag=seek_bytes conv=notrunc status=none
    done
    # A sparse file that ends in a hole: only its size says where it ends.
    head -c 5000 /dev/urandom | dd of="$m/tail.bin" bs=5000 seek=700000 oflag=seek_bytes status=none
    truncate -s 3145728 "$m/tail.bin" || return 1
    # Marked compressed before they are written, the files are compressed.
    setfattr -h -v 0x00000800 -n system.ntfs_attrib_be "$m/packed" || return 1
    seq 1 40000 | sed 's/$/ lines of text that repeat a great deal/' > "$m/packed/text.txt"
    for i in 1 2 3 4 5 6 7 8 9 10 11 12; do
        head -c 4096 /dev/urandom
        printf '%04096d' "$i"
    done > "$m/packed/mixed.bin"
    # Over a few bytes: ntfs-3g reads a small system file as an Interix one.
    head -c 4000 /dev/urandom > "$m/flags.bin"
    head -c 100 /dev/urandom > "$m/normal.bin"
    head -c 2000 /dev/urandom > "$m/secured.bin"
    set_descriptor "$m/secured.bin" || return 1
    head -c 100M /dev/urandom > "$m/large.bin" || return 1
    # Attributes and times last: writing changes them.
    echo "$entries" | while read -r from to attributes modified created; do
        [ -n "$from" ] || continue
        [ "$attributes" = - ] || setfattr -h -v "$attributes" -n system.ntfs_attrib_be "$m$from" || exit 1
        touch -d "$modified" "$m$from" || exit 1
        setfattr -h -n system.ntfs_crtime_be -v "$(printf '0x%016x' "$(ntfs_time "$created")")" "$m$from" || exit 1
    done
}

make_volumes() {
    truncate -s 200M "$src" && mkntfs -F -f -q -c 4096 "$src" > /dev/null 2>&1 || return 1
    truncate -s 64M "$dst" && mkntfs -F -f -q -c 4096 "$dst" > /dev/null 2>&1 || return 1
    ntfs-3g "$src" "$mnt" || return 1
    fill_source
    filled=$?
    umount "$mnt" || return 1
    [ "$filled" -eq 0 ] || return 1
    # The directories a restore needs: it makes files, not directories.
    ntfs-3g "$dst" "$mnt" && mkdir "$mnt/docs" "$mnt/packed" "$mnt/root-copy" && umount "$mnt"
}

make_volumes || { fail setup "mkntfs or ntfs-3g could not make the volumes"; exit 1; }

# ---- what ntfs-3g shows ----

# xattr_hex FILE NAME: the value of an extended attribute, in hex.
xattr_hex() { getfattr --only-values -h -n "$2" "$1" 2> /dev/null | od -An -v -tx1 | tr -d ' \n'; }

# Creation and modification time (system.ntfs_times_be starts with them).
times_of() {
    hex=$(xattr_hex "$1" system.ntfs_times_be)
    [ ${#hex} -ge 32 ] || return 1
    echo "$((0x$(echo "$hex" | cut -c1-16))) $((0x$(echo "$hex" | cut -c17-32)))"
}

# A time cut to the millisecond, as a time in milliseconds comes back.
to_ms() {
    since_1970=$(($1 - 116444736000000000))
    echo $((since_1970 / 10000 * 10000 + 116444736000000000))
}

# What a restore may set of the attributes: read only, hidden, system,
# archive, temporary, offline, not content indexed.
settable() { printf '0x%x' $((0x$(xattr_hex "$1" system.ntfs_attrib_be) & 0x3127)); }

user_streams() { getfattr --absolute-names -h -d -m '^user\.' -e hex "$1" 2> /dev/null | sed 1d; }

# record WHERE SIDE: what ntfs-3g shows of every entry, one file per entry
# (named by its destination path) and aspect, under $work/WHERE; SIDE 1
# takes the source paths, 2 the destination ones.
record() {
    echo "$entries" | while read -r from to rest; do
        [ -n "$from" ] || continue
        out="$work/$1/$(echo "$to" | sed 's#^/##' | tr / _)"
        path=$from
        [ "$2" = 1 ] || path=$to
        mkdir -p "$out"
        [ -d "$mnt$path" ] || cat "$mnt$path" > "$out/contents"
        stat -c '%s %h' "$mnt$path" > "$out/size-links"
        times_of "$mnt$path" > "$out/times"
        settable "$mnt$path" > "$out/attributes"
        user_streams "$mnt$path" > "$out/streams"
        xattr_hex "$mnt$path" system.ntfs_acl > "$out/descriptor"
        xattr_hex "$mnt$path" system.ntfs_attrib_be > "$out/all-attributes"
    done
}

ntfs-3g -o ro "$src" "$mnt" || { fail setup "ntfs-3g cannot mount the source"; exit 1; }
record source 1
umount "$mnt"

# The source must hold what each case is about, or the case proves nothing.
s="$work/source"
grep -q ' 2$' "$s/docs_second-name.bin/size-links" || fail setup "the hard link was not made"
[ $((0x$(cat "$s/sparse.bin/all-attributes") & 0x200)) -ne 0 ] || fail setup "sparse.bin is not sparse"
[ $((0x$(cat "$s/tail.bin/all-attributes") & 0x200)) -ne 0 ] || fail setup "tail.bin is not sparse"
[ $((0x$(cat "$s/packed_text.txt/all-attributes") & 0x800)) -ne 0 ] || fail setup "text.txt is not compressed"
[ "$(grep -c '^user\.' "$s/docs_streams.bin/streams")" -eq 4 ] || fail setup "streams.bin lacks its streams"
[ "$(cat "$s/flags.bin/attributes")" = 0x1127 ] || fail setup "flags.bin has not its attributes"

# ---- backup --list ----

"$tool" fs "$src" backup --list /docs/streams.bin > "$work/list" 2>&1 || fail list "refused: $(cat "$work/list")"
for stream in side big empty ünïcödé; do
    grep -q "^2 .*$stream" "$work/list" || fail list "no line names the stream $stream: $(cat "$work/list")"
done

# ---- the round trip ----

echo "$entries" | while read -r from to rest; do
    [ -n "$from" ] || continue
    # A hard link comes back as a file of its own: a backup carries one
    # entry, not the other names of its record.
    "$tool" fs "$src" backup "$from" "$work/entry.bk" > "$work/err" 2>&1 || echo "$from: backup: $(cat "$work/err")"
    "$tool" fs "$dst" restore "$work/entry.bk" "$to" > "$work/err" 2>&1 || echo "$to: restore: $(cat "$work/err")"
    rm -f "$work/entry.bk"
done > "$work/refused"
[ ! -s "$work/refused" ] || fail round-trip "$(cat "$work/refused")"

ntfsfix -n "$dst" > "$work/fix" 2>&1 || fail ntfsfix "$(tail -5 "$work/fix")"
! grep -q -i -e error -e corrupt -e fixing -e inconsisten "$work/fix" || fail ntfsfix "$(tail -5 "$work/fix")"

if ntfs-3g -o ro "$dst" "$mnt" 2> "$work/err"; then
    record destination 2
    umount "$mnt"
else
    fail mount "ntfs-3g cannot mount the destination: $(head -3 "$work/err")"
fi

for got in "$work/source"/*; do
    case_name=$(basename "$got")
    d="$work/destination/$case_name"
    [ -d "$d" ] || continue
    for aspect in contents streams attributes descriptor; do
        [ ! -f "$got/$aspect" ] || cmp -s "$got/$aspect" "$d/$aspect" ||
            fail "$case_name" "$aspect differ: $(cmp "$got/$aspect" "$d/$aspect" 2>&1 | sed "s#$work/##g")"
    done
    if [ -f "$got/contents" ]; then
        [ "$(cut -d' ' -f1 "$got/size-links")" = "$(cut -d' ' -f1 "$d/size-links")" ] ||
            fail "$case_name" "size $(cut -d' ' -f1 "$d/size-links"), the source's $(cut -d' ' -f1 "$got/size-links")"
        [ "$(cut -d' ' -f2 "$d/size-links")" = 1 ] || fail "$case_name" "$(cut -d' ' -f2 "$d/size-links") links, not 1"
    fi
    read -r created modified < "$got/times"
    wanted="$(to_ms "$created") $(to_ms "$modified")"
    [ "$(cat "$d/times")" = "$wanted" ] || fail "$case_name" "created and modified $(cat "$d/times"), not $wanted"
done
[ -n "$(ls "$work/destination" 2> /dev/null)" ] || fail mount "nothing was read from the destination"

# The descriptor was carried, not made alike by chance: without the security
# (option 1) the restored file has another.
if ! { "$tool" fs "$src" backup --option 1 /secured.bin "$work/bare.bk" > "$work/err" 2>&1 &&
    "$tool" fs "$dst" restore "$work/bare.bk" /bare.bin > "$work/err" 2>&1; }; then
    fail option-1 "$(cat "$work/err")"
fi
if ntfs-3g -o ro "$dst" "$mnt"; then
    [ "$(xattr_hex "$mnt/bare.bin" system.ntfs_acl)" != "$(cat "$s/secured.bin/descriptor")" ] ||
        fail option-1 "a backup without security gave the source's descriptor"
    cmp -s "$mnt/bare.bin" "$s/secured.bin/contents" || fail option-1 "contents differ"
    umount "$mnt"
fi

# ---- Ctrl-C ----

# The backup is stopped as soon as its first bytes reach the file (its
# header waits in a buffer until pieces follow, and its handler of SIGINT is
# in place by then), sent SIGINT and let go on: it must notice at its next
# piece, whatever the speed of this machine. The file is polled without
# pauses: the whole backup may take a few tens of milliseconds.
"$tool" fs "$src" backup /large.bin "$work/large.bk" 2> "$work/err" &
running=$!
state() { awk '{ print $3 }' "/proc/$running/stat" 2> /dev/null; }
written() { stat -c %s "$work/large.bk" 2> /dev/null || echo 0; }
tries=0
while [ "$(written)" -eq 0 ] && [ "$(state)" != Z ] && [ "$tries" -lt 20000 ]; do tries=$((tries + 1)); done
kill -STOP "$running" 2> /dev/null
tries=0
while [ "$(state)" != T ] && [ "$(state)" != Z ] && [ "$tries" -lt 1000 ]; do tries=$((tries + 1)); done
# Stopped, not ended, with megabytes still to write: pieces are left.
if [ "$(state)" = T ] && [ "$(written)" -lt 100000000 ]; then
    kill -INT "$running"
    kill -CONT "$running"
    wait "$running"
    status=$?
    [ "$status" -eq 1 ] || fail ctrl-c "status $status, not 1: $(cat "$work/err")"
    grep -q FILE_CANCELLED "$work/err" || fail ctrl-c "no FILE_CANCELLED: $(cat "$work/err")"
    [ ! -e "$work/large.bk" ] || fail ctrl-c "a cancelled backup left its file"
else
    kill -CONT "$running" 2> /dev/null
    wait "$running"
    echo "NOTE: the backup of 100 MiB ended before it could be interrupted; Ctrl-C not checked"
fi

if [ "$failures" -ne 0 ]; then
    echo "ntfs backup round trip: $failures failures"
    exit 1
fi
echo "ntfs backup round trip: all passed"
