#!/bin/sh
# The ext backup through `morvane fs IMAGE backup`: volumes of mke2fs filled
# by debugfs (files with extended attributes of several namespaces, in the
# inode and in the attribute block, a sparse file, a file ending in a hole,
# a large dense file, an empty file, a directory with an attribute, a fast
# and a slow symbolic link, character devices of both number layouts, a
# block device, a FIFO), each entry backed up into a container file, which
# a reader written here from the container's published layout takes apart.
# Every piece must say what debugfs says of the entry: the order of the
# pieces, mode, owner, device numbers and link target (stat, dump), each
# attribute's full name and value (ea_list, ea_get), the contents with one
# sparse block per mapped stretch (stat's block list, dump), and the times
# (stat). A backup must leave the image as it was.
#
#   ext_backup_pieces.sh TOOL
set -u
tool=${1:-}
[ -x "$tool" ] || { echo "ext backup pieces: no tool at $tool"; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TZ=UTC LC_ALL=C.UTF-8
row=-

fail() {
    echo "FAIL [$row]: $*"
}

# judge WHAT PATH CONTAINER OPTION [KIND2-FILE]: the checker's findings, and
# a checker that breaks down counts as one.
judge() {
    what=$1
    shift
    python3 "$work/check.py" "$image" "$@" > "$work/problems" 2>&1 || echo "the checker broke down" >> "$work/problems"
    while read -r problem; do fail "$what: $problem"; done < "$work/problems"
}

# The reader and the judge of one container: check.py IMAGE PATH CONTAINER
# OPTION [KIND2-FILE]; prints one line per problem found.
cat > "$work/check.py" <<'EOF'
import re, struct, subprocess, sys

image, path, container, option = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
kind2_file = sys.argv[5] if len(sys.argv) > 5 else None
work = sys.argv[3] + ".d"
problems = []

def check(condition, what):
    if not condition:
        problems.append(what)

def debugfs(request):
    return subprocess.run(["debugfs", "-R", request, image], capture_output=True).stdout

def pieces_of(data):
    check(data[:8] == b"MVBACKUP", "container magic")
    version, used = struct.unpack_from("<II", data, 8)
    check(version == 1 and used == option, "container header %d %d" % (version, used))
    pieces, at = [], 16
    while at + 12 <= len(data):
        kind, size = struct.unpack_from("<IQ", data, at)
        at += 12
        if kind == 0:
            check(size == 0, "end record size")
            break
        pieces.append((kind, data[at:at + size]))
        at += size
    check(at == len(data), "container ends at %d of %d" % (at, len(data)))
    return pieces

def milliseconds(stat, field):
    m = re.search(r"^\s*" + field + r": 0x([0-9a-f]+)(?::([0-9a-f]+))?", stat, re.M)
    if not m:
        return 0
    seconds = struct.unpack("<i", struct.pack("<I", int(m.group(1), 16)))[0]
    if m.group(2) is None or int(m.group(2), 16) == 0:
        return seconds * 1000
    extra = int(m.group(2), 16)
    seconds |= (extra & 3) << 32
    return seconds * 1000 + (extra >> 2) // 1000000

def attributes_of():
    names = re.findall(r"^\s+(\S+) \(\d+\)", debugfs("ea_list " + path).decode(), re.M)
    values = {}
    for name in names:
        out = work + ".value"
        subprocess.run(["debugfs", "-R", "ea_get -f %s %s %s" % (out, path, name), image], capture_output=True)
        values[name] = open(out, "rb").read()
    return values

def records(data):
    found, at = {}, 0
    while at < len(data):
        (name_size,) = struct.unpack_from("<H", data, at)
        (value_size,) = struct.unpack_from("<Q", data, at + 2)
        name = data[at + 10:at + 10 + name_size].decode()
        check(name not in found, "attribute %s twice" % name)
        found[name] = data[at + 10 + name_size:at + 10 + name_size + value_size]
        at += 10 + name_size + value_size
    check(at == len(data), "attribute records end at %d of %d" % (at, len(data)))
    return found

def stretches(stat, block, size):
    # The mapped logical blocks of stat's list, joined where they follow
    # each other, in bytes cut at the size.
    listing = stat.split("EXTENTS:")[-1] if "EXTENTS:" in stat else stat.split("BLOCKS:")[-1]
    ranges = sorted((int(a), int(b or a)) for a, b in re.findall(r"\((\d+)(?:-(\d+))?\):", listing))
    joined = []
    for first, last in ranges:
        if joined and joined[-1][1] + 1 == first:
            joined[-1][1] = last
        else:
            joined.append([first, last])
    return [(a * block, min((b + 1) * block, size) - a * block) for a, b in joined if a * block < size]

def win32_streams(data):
    streams, at = [], 0
    while at < len(data):
        sid, attributes, size, name_size = struct.unpack_from("<IIQI", data, at)
        at += 20 + name_size
        start = 0
        if sid == 9:
            (start,) = struct.unpack_from("<Q", data, at)
            at += 8
            size -= 8
        streams.append((sid, attributes, start, data[at:at + size]))
        at += size
    check(at == len(data), "streams end at %d of %d" % (at, len(data)))
    return streams

data = open(container, "rb").read()
pieces = pieces_of(data)
kinds = [kind for kind, _ in pieces]
piece = dict(pieces)
stat = debugfs("stat " + path).decode()
file_type = re.search(r"Type: (\w+)", stat).group(1)
mode = int(re.search(r"Mode:\s+(\d+)", stat).group(1), 8)
size = int(re.search(r"Size: (\d+)", stat).group(1))
attributes = attributes_of()
contents = file_type == "regular" and size > 0 and option & 4 == 0
expected = [1, 6] + ([7] if attributes else []) + ([2] if contents else []) + [5]
check(kinds == expected, "pieces %s, not %s" % (kinds, expected))

check(piece.get(1) == struct.pack("<I", 0x10 if file_type == "directory" else 0), "attributes word")

# The POSIX record as debugfs describes the inode: device numbers for a
# device, the link's target (stat's for a fast link, the dump of its block
# for a slow one) as 16-bit units and a 0 for a link.
kinds_of = {"regular": 0, "character": 1, "block": 2, "FIFO": 3, "socket": 4, "symlink": 5, "directory": 128}
owner = int(re.search(r"User:\s+(\d+)", stat).group(1))
group = int(re.search(r"Group:\s+(\d+)", stat).group(1))
tail = b""
if file_type in ("character", "block"):
    tail = struct.pack("<2I", *map(int, re.search(r"Device major/minor number: (\d+):(\d+)", stat).groups()))
elif file_type == "symlink":
    fast = re.search(r'^Fast link dest: "(.*)"$', stat, re.M)
    if fast:
        target = fast.group(1).encode()
    else:
        subprocess.run(["debugfs", "-R", "dump %s %s" % (path, work + ".link"), image], capture_output=True)
        target = open(work + ".link", "rb").read()
    # The system's 16-bit strings have no surrogates: a sequence of four
    # bytes is refused, and each of its bytes becomes one "?".
    text = b"".join(c.encode("utf-16-le") if ord(c) < 0x10000 else b"?\0" * 4 for c in target.decode())
    tail = struct.pack("<H", len(text) // 2) + text + b"\0\0"
want_record = struct.pack("<5I", 20 + len(tail), kinds_of.get(file_type, -1) & 0xFFFFFFFF, owner, group, mode & 0xFFF)
check(piece.get(6) == want_record + tail, "POSIX record %s, not %s" % (piece.get(6), want_record + tail))

if attributes:
    check(records(piece.get(7, b"")) == attributes, "attributes %s" % sorted(records(piece.get(7, b""))))

if contents:
    block = int(re.search(r"Block size:\s+(\d+)", debugfs("stats").decode()).group(1))
    want = stretches(stat, block, size)
    streams = win32_streams(piece.get(2, b""))
    if len(want) == 1 and want[0] == (0, size):
        check([(s[0], s[1], len(s[3])) for s in streams] == [(1, 0, size)], "one data stream")
    else:
        got = [(s[0], s[1], s[2], len(s[3])) for s in streams]
        check(got == [(9, 8, a, n) for a, n in want], "sparse blocks %s, not %s" % (got, want))
    rebuilt = bytearray(size)
    for _, _, start, bytes_ in streams:
        rebuilt[start:start + len(bytes_)] = bytes_
    subprocess.run(["debugfs", "-R", "dump %s %s" % (path, work + ".dump"), image], capture_output=True)
    check(bytes(rebuilt) == open(work + ".dump", "rb").read(), "contents differ from debugfs dump")
    if kind2_file:
        check(open(kind2_file, "rb").read() == piece.get(2), "--kind 2 differs from the container's piece")

times = piece.get(5, b"")
check(len(times) == 16 and struct.unpack("<qq", times) == (milliseconds(stat, "mtime"), milliseconds(stat, "crtime")),
      "times %s" % (struct.unpack("<qq", times) if len(times) == 16 else times,))

for problem in problems:
    print(problem)
EOF

# The host files: pieces of data on 64 KiB boundaries, so that the host
# file system keeps the holes between them for debugfs to see.
python3 - "$work" <<'EOF'
import sys
work = sys.argv[1]
def pattern(size, seed):
    return bytes((i * 131 + seed * 7 + i // 509) & 0xFF for i in range(size))
open(work + "/plain.txt", "wb").write(b"hello backup\n")
open(work + "/big.bin", "wb").write(pattern(300 * 1024 + 5, 1))
open(work + "/empty", "wb").close()
with open(work + "/sparse.bin", "wb") as f:
    for at, size in ((0, 8192), (65536, 320 * 1024), (1024 * 1024, 5000)):
        f.seek(at)
        f.write(pattern(size, at % 251))
with open(work + "/tail_hole.bin", "wb") as f:
    f.write(pattern(8192, 3))
    f.truncate(200 * 1024)
open(work + "/value", "w").write("v" * 600)
EOF

# Link targets with characters beyond ASCII, one of them beyond 16 bits:
# the record holds them as 16-bit units. The slow one is too long for the
# inode.
fast_target='short/é'
slow_target="$(printf '%0100d' 0 | tr 0 d)/€/𝄞"

# name  mkfs  block  inode-size
rows='
ext4-1k-128  ext4  1024  128
ext4-4k-256  ext4  4096  256
ext2-1k-256  ext2  1024  256
'
echo "$rows" | while read -r row fs block inode_size; do
    [ -n "$row" ] || continue
    image=$work/$row.img
    truncate -s 8M "$image"
    if ! mkfs."$fs" -q -F -b "$block" -I "$inode_size" "$image" > /dev/null 2>&1; then
        fail "mkfs.$fs refused"
        continue
    fi
    w=$work
    debugfs -w -f - "$image" > /dev/null 2>&1 <<EOF
write $w/plain.txt plain.txt
write $w/big.bin big.bin
write $w/empty empty
write $w/sparse.bin sparse.bin
write $w/tail_hole.bin tail_hole.bin
mkdir d
ea_set d user.dirtag yes
ea_set plain.txt user.one valueone
ea_set plain.txt trusted.x tx
ea_set plain.txt security.sec "s e c"
ea_set plain.txt user.empty ""
ea_set -f $w/value big.bin user.big
ea_set sparse.bin user.s 1
sif plain.txt uid 1001
sif plain.txt gid 1002
sif plain.txt mode 0100640
symlink fast $fast_target
sif fast uid 1003
sif fast gid 1004
symlink slow $slow_target
mknod cdev c 4 5
sif cdev mode 020640
sif cdev uid 1005
mknod newdev c 300 700
mknod bdev b 8 1
mknod pipe p
EOF
    # The two links must be what their names say, or one way of keeping a
    # target would go untested.
    debugfs -R "stat /fast" "$image" 2>/dev/null | grep -q '^Fast link dest' || fail "/fast isn't a fast link"
    debugfs -R "stat /slow" "$image" 2>/dev/null | grep -q '^Fast link dest' && fail "/slow isn't a slow link"
    before=$(sha256sum < "$image")
    for entry in /plain.txt /big.bin /empty /sparse.bin /tail_hole.bin /d / /fast /slow /cdev /newdev /bdev /pipe; do
        out=$work/$row$(echo "$entry" | tr / _).bk
        if ! "$tool" fs "$image" backup "$entry" "$out" > "$work/says" 2>&1; then
            fail "backup $entry: $(cat "$work/says")"
            continue
        fi
        judge "$entry" "$entry" "$out" 0
    done
    out=$work/$row.sparse4.bk
    "$tool" fs "$image" backup --option 4 /sparse.bin "$out" > /dev/null 2>&1 || fail "backup --option 4"
    judge "option 4" /sparse.bin "$out" 4
    "$tool" fs "$image" backup --kind 2 /sparse.bin "$work/kind2" > /dev/null 2>&1 || fail "backup --kind 2"
    judge "--kind 2" /sparse.bin "$work/${row}_sparse.bin.bk" 0 "$work/kind2"
    [ "$(sha256sum < "$image")" = "$before" ] || fail "a backup changed the image"
done > "$work/report"

cat "$work/report"
if grep -q '^FAIL' "$work/report"; then
    echo "ext backup pieces: $(grep -c '^FAIL' "$work/report") failures"
    exit 1
fi
echo "ext backup pieces: all rows pass"
