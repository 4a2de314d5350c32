#!/bin/sh
# The conf subcommand against the sample documents: every one is accepted,
# survives a round trip through both forms with the same tree, and broken
# copies are refused with the loader's code and exit status 1.
set -u
tool="$1"
documents="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ -x "$tool" ] || { echo "no tool at $tool"; exit 1; }
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

expect_status() {
    expected="$1"; shift
    "$@" >"$work/out" 2>"$work/err"
    status=$?
    [ "$status" -eq "$expected" ] || fail "$* exited with $status, expected $expected: $(cat "$work/out" "$work/err")"
}

for document in "$documents"/*; do
    name=$(basename "$document")
    expect_status 0 "$tool" conf check "$document"
    grep -q '^ok: ' "$work/out" || fail "check $name printed: $(cat "$work/out")"
    "$tool" conf show "$document" >"$work/original.show" || fail "show $name"
    expect_status 0 "$tool" conf convert --to bxml "$document" "$work/$name.bxml"
    expect_status 0 "$tool" conf convert --to=xml "$work/$name.bxml" "$work/$name.xml"
    expect_status 0 "$tool" conf convert --to xml "$document" "$work/$name.direct.xml"
    head -c 6 "$work/$name.bxml" | od -An -c | grep -q 'B   X   M   L 001 001' || fail "$name.bxml header"
    for converted in "$work/$name.bxml" "$work/$name.xml" "$work/$name.direct.xml"; do
        "$tool" conf show "$converted" >"$work/converted.show" || fail "show $converted"
        cmp -s "$work/original.show" "$work/converted.show" || fail "tree of $converted differs from $name"
    done
    # Every proper prefix of the binary form is refused as truncated.
    size=$(wc -c <"$work/$name.bxml")
    for cut in 0 5 6 $((size / 2)) $((size - 1)); do
        head -c "$cut" "$work/$name.bxml" >"$work/cut.bxml"
        expect_status 1 "$tool" conf check "$work/cut.bxml"
        grep -q 'refused with 21495817 BAD_CONFIGURATION' "$work/out" || fail "cut $cut of $name: $(cat "$work/out")"
    done
done

# Refusals: the loader's code, the place, the reason.
printf '<Root>\n  <Menu>\n\t<Entry Key="1" Key="2"/>\n  </Menu>\n</Root>\n' >"$work/duplicate.xml"
expect_status 1 "$tool" conf check "$work/duplicate.xml"
grep -qx "$work/duplicate.xml:3:24: byte 32: refused with 21495817 BAD_CONFIGURATION: an attribute that the element already has" "$work/out" \
    || fail "duplicate attribute: $(cat "$work/out")"
printf 'BXML\001\001\000\001a' >"$work/short.bxml"
expect_status 1 "$tool" conf check "$work/short.bxml"
grep -qx "$work/short.bxml: byte 9: refused with 21495817 BAD_CONFIGURATION: the document ends early (262146 FILE_EOF stored in the stream)" "$work/out" \
    || fail "truncated binary: $(cat "$work/out")"
: >"$work/empty.xml"
expect_status 1 "$tool" conf check "$work/empty.xml"
grep -q 'no root element' "$work/out" || fail "empty: $(cat "$work/out")"
expect_status 1 "$tool" conf convert --to xml "$work/empty.xml" "$work/never.xml"
[ ! -e "$work/never.xml" ] || fail "a refused document was converted"

# A tree that the text form cannot carry: a name of bytes.
printf 'BXML\001\001\000\0031 2\000\001\000' >"$work/badname.bxml"
expect_status 0 "$tool" conf check "$work/badname.bxml"
expect_status 1 "$tool" conf convert --to xml "$work/badname.bxml" "$work/badname.xml"
grep -q 'cannot be written as xml' "$work/err" || fail "bad name: $(cat "$work/err")"

# Usage and input/output errors.
expect_status 0 "$tool" --help
expect_status 0 "$tool" conf --help
expect_status 2 "$tool"
expect_status 2 "$tool" nothing
expect_status 2 "$tool" conf
expect_status 2 "$tool" conf check
expect_status 2 "$tool" conf convert --to json "$work/empty.xml" "$work/x"
expect_status 2 "$tool" conf check "$work/does-not-exist.xml"
grep -q 'cannot open.*: No such file or directory$' "$work/err" || fail "missing file message: $(cat "$work/err")"
expect_status 2 "$tool" conf check "$work"
grep -q 'cannot read.*: Is a directory$' "$work/err" || fail "folder message: $(cat "$work/err")"
expect_status 2 "$tool" conf convert --to bxml "$documents/chainload.xml" "$work/no/such/dir.bxml"
grep -q 'dir.bxml: No such file or directory$' "$work/err" || fail "unwritable output message: $(cat "$work/err")"
expect_status 0 "$tool" conf check - <"$documents/menu.xml"

[ "$failures" -eq 0 ] || { echo "$failures failures"; exit 1; }
echo "all conf command checks passed"
