#!/bin/bash
# HFS+ backups of entries that the Linux hfsplus driver made in a QEMU
# guest (hfsplus_guest/make_images.sh, its b4096 volume, cached in the
# build folder): extended attributes set by the guest, hard links, symbolic
# links. `morvane fs IMG backup` writes each entry's pieces to a container;
# a small reader of the container's published layout holds each piece
# against what the guest read back (its tar archive), the values the
# guest's fill gave the attributes, and the names the attributes tree
# holds on disk. A copy whose inline attribute declares a value past the
# inline limit is refused.
#
#   hfsplus_backup_pieces.sh TOOL
#
# Exits 77 (skipped) when the guest can't make its volumes here.
set -u
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
build_dir=$(cd "$(dirname "$tool")" && pwd)
images=$("$here/hfsplus_guest/make_images.sh" "$build_dir" | tail -n 1)
[ -n "$images" ] && [ -f "$images/complete" ] || { echo "no guest volumes: skipped" >&2; exit 77; }
work=$(mktemp -d) || exit 2
trap 'rm -rf "$work"' EXIT
cp --sparse=always "$images/b4096.img" "$work/v.img" || exit 2
mkdir "$work/tree" && tar -x -f "$images/b4096.tar" -C "$work/tree" || exit 2
# The tar holds the tree under the folder the guest archived; find it by a known file.
tree=$(dirname "$(find "$work/tree" -name hello.txt -path '*/hello.txt' | head -n 1)")
[ -f "$tree/links/big.bin" ] || { echo "the guest's tree has no links/big.bin" >&2; exit 1; }
# The attribute names as the attributes tree holds them (UTF-16 big-endian).
for name in user.comment user.origin user.folder; do
    strings -e b "$work/v.img" | grep -qx "$name" || { echo "the volume holds no attribute $name" >&2; exit 1; }
done

failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# backup NAME PATH [OPTION]: the container of PATH in $work/NAME.bkp, the
# tool's exit code answered.
backup() {
    "$tool" fs "$work/v.img" backup ${3:+--option $3} "$2" "$work/$1.bkp" > "$work/$1.out" 2>&1
}

# check NAME SPEC...: the container NAME.bkp against python expressions
# (see the reader below).
check() {
    local name=$1
    shift
    python3 - "$work/$name.bkp" "$tree" "$@" <<'PYTHON' || fail "$name"
import struct, sys, calendar

def pieces(path):
    data = open(path, 'rb').read()
    assert data[:8] == b'MVBACKUP', 'magic'
    version, _ = struct.unpack_from('<II', data, 8)
    assert version == 1, 'version'
    at, out = 16, []
    while True:
        kind, size = struct.unpack_from('<IQ', data, at)
        at += 12
        if kind == 0:
            assert size == 0 and at == len(data), 'end record'
            return out
        out.append((kind, data[at:at + size]))
        at += size

def head(name, size):
    name = name.encode()
    return struct.pack('<HQ', len(name), size) + (name + b'\0' if name else b'')

def finder_and(attributes=b''):
    # Finder information first (a head and 32 bytes), then the attributes.
    def test(piece):
        assert piece[:31] == head('com.apple.FinderInfo', 32), 'Finder information head'
        assert piece[63:] == attributes, 'extended attributes %r' % piece[63:200]
    return test

got = pieces(sys.argv[1])
tree = sys.argv[2]
kinds = [kind for kind, _ in got]
piece = {kind: data for kind, data in got}
def file(path): return open(tree + '/' + path, 'rb').read()
def ms(text): return calendar.timegm(__import__('time').strptime(text, '%Y-%m-%d %H:%M:%S')) * 1000
for expression in sys.argv[3:]:
    result = eval(expression)
    if callable(result):
        result(piece[7])
    else:
        assert result, expression
PYTHON
}

# A file with an inline attribute, its data, its times as the guest set them.
backup hello /hello.txt || fail "hello.txt: $(cat "$work/hello.out")"
check hello "kinds == [1, 4, 6, 5, 7]" "piece[1] == b'\0' * 4" "piece[4] == file('hello.txt')" \
    "struct.unpack_from('<IIIII', piece[6])[:2] == (20, 0)" \
    "struct.unpack_from('<Q', piece[5])[0] == ms('1999-12-31 23:59:58')" \
    "finder_and(head('user.comment', 15) + b'a short comment')"
# Option bit 2: no data stream, every other piece as before.
backup hello4 /hello.txt 4 || fail "hello.txt with option 4"
check hello4 "kinds == [1, 6, 5, 7]" "finder_and(head('user.comment', 15) + b'a short comment')"
# A larger value, on a file of several blocks.
backup random /dir/random.bin || fail "random.bin: $(cat "$work/random.out")"
check random "kinds == [1, 4, 6, 5, 7]" "piece[4] == file('dir/random.bin')" \
    "finder_and(head('user.origin', 1000) + b'0' * 999 + b'7')"
# A folder with an attribute.
backup dir /dir || fail "dir: $(cat "$work/dir.out")"
check dir "kinds == [1, 6, 5, 7]" "piece[1] == b'\x10\0\0\0'" \
    "struct.unpack_from('<II', piece[6]) == (20, 128)" "finder_and(head('user.folder', 11) + b'on a folder')"
# Hard links: the inode's data and times, from either name.
backup second /links/second.txt || fail "second.txt: $(cat "$work/second.out")"
check second "kinds == [1, 4, 6, 5, 7]" "piece[4] == b'shared by three names\n'"
backup biglink "/big link.bin" || fail "big link.bin: $(cat "$work/biglink.out")"
check biglink "piece[4] == file('links/big.bin')" "struct.unpack_from('<Q', piece[5])[0] == ms('2010-10-10 10:10:10')"
# A symbolic link: its target in the Posix record; one of 604 characters is refused.
backup relative "/links/relative link" || fail "relative link: $(cat "$work/relative.out")"
check relative "kinds == [1, 6, 5, 7]" \
    "piece[6] == struct.pack('<IIIIIH', 48, 5, *struct.unpack_from('<III', piece[6], 8), 24) + '../hello.txt'.encode('utf-16-le') + b'\0\0'"
backup long "/links/long target"
[ $? -eq 1 ] || fail "a target of 604 characters was not refused: $(cat "$work/long.out")"

cmp -s "$images/b4096.img" "$work/v.img" || fail "the volume changed"

# An inline value above 32 KiB doesn't fit a node, so no sound volume holds
# one: hello.txt's record is made to declare 0x8001 bytes (its key found by
# the name as the published layout holds it; the record, of type 0x10, has
# the size at 12). The backup refuses the size before reading the value;
# at 0x8000 the value is read and found cut short.
for case in 32769:0x40019 32768:0x4000D; do
    cp --sparse=always "$images/b4096.img" "$work/big.img" || exit 2
    python3 - "$work/big.img" "${case%%:*}" <<'PYTHON' || { fail "no inline record of user.comment to edit"; continue; }
import struct, sys
path, size = sys.argv[1], int(sys.argv[2])
data = bytearray(open(path, 'rb').read())
name = 'user.comment'.encode('utf-16-be')
found = []
at = data.find(name)
while at >= 0:
    key = at - 14
    if at >= 14 and struct.unpack_from('>H', data, key)[0] == 12 + len(name) and \
            struct.unpack_from('>H', data, at - 2)[0] == len(name) // 2:
        record = key + 2 + 12 + len(name)
        if struct.unpack_from('>IIII', data, record) == (0x10, 0, 0, 15):
            found.append(record)
    at = data.find(name, at + 1)
assert len(found) == 1, found
struct.pack_into('>I', data, found[0] + 12, size)
open(path, 'wb').write(data)
PYTHON
    "$tool" fs "$work/big.img" backup /hello.txt "$work/big.bkp" > "$work/big.out" 2>&1
    code=$?
    [ $code -eq 1 ] && grep -qF "${case#*:}]" "$work/big.out" ||
        fail "a value of ${case%%:*} bytes: exit $code, $(cat "$work/big.out")"
done
[ "$failures" -eq 0 ] || exit 1
echo "hfsplus backup pieces: all passed"
