#!/bin/sh
# The conf subcommand against the sample documents: every one is accepted,
# survives a round trip through both forms with the same tree, and broken
# copies are refused with the loader's code and exit status 1.
set -u
tool="$1"
documents="$2"
sources="$3"
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
    case "$name" in
        # Reader documents that the loader cannot carry out: the first child
        # of the root is no action.
        jobs_only.xml) expect_status 1 "$tool" conf check "$document"
            grep -qx "$document:2:3: <Jobs>: refused with 21495817 BAD_CONFIGURATION (tag 0x[0-9a-f]*)" "$work/out" \
                || fail "jobs only: $(cat "$work/out")" ;;
        mixed_content.xml) expect_status 1 "$tool" conf check "$document"
            grep -qx "$document:4:25: <b>: refused with 21495817 BAD_CONFIGURATION (tag 0x[0-9a-f]*)" "$work/out" \
                || fail "mixed content: $(cat "$work/out")" ;;
        *) expect_status 0 "$tool" conf check "$document"
            grep -q '^ok: ' "$work/out" || fail "check $name printed: $(cat "$work/out")" ;;
    esac
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
expect_status 1 "$tool" conf check "$work/badname.bxml"
grep -q ': <1 2>: refused with 21495817 BAD_CONFIGURATION' "$work/out" || fail "bad name, no action: $(cat "$work/out")"
expect_status 1 "$tool" conf convert --to xml "$work/badname.bxml" "$work/badname.xml"
grep -q 'cannot be written as xml' "$work/err" || fail "bad name: $(cat "$work/err")"

# The loader's rules over the tree: each class of refusal at the element
# to mend, and the loader itself, run on a simulated machine with the same
# document, reports the same code.
mkdir -p "$work/esp/EFI/BOOT"
printf 'kernel' >"$work/esp/k"
printf 'ramdisk' >"$work/esp/r"
refused() {
    name="$1"; place="$2"; printf '%b' "$3" >"$work/$name.xml"
    expect_status 1 "$tool" conf check "$work/$name.xml"
    # A refusal names the element once: no warning repeats it.
    [ ! -s "$work/err" ] || fail "$name: $(cat "$work/err")"
    grep -qx "$work/$name.xml:$place: refused with 21495817 BAD_CONFIGURATION (tag 0x[0-9a-f]*)" "$work/out" \
        || fail "$name: $(cat "$work/out" "$work/err")"
    cp "$work/$name.xml" "$work/esp/EFI/BOOT/BOOTX64.xml"
    "$tool" boot --esp "$work/esp" >"$work/boot" 2>&1
    grep -q "code 21495817, tag 0x" "$work/boot" || fail "$name: the loader did not refuse: $(cat "$work/boot")"
}
refused no_path '2:2: <LoadKernel>' '<R>\n <LoadKernel>\n  <Kernel/>\n  <Ramdisk Path="\\r"/>\n </LoadKernel>\n</R>\n'
refused no_ramdisk '1:4: <LoadKernel>' '<R><LoadKernel><Kernel Path="\\k"/></LoadKernel></R>'
refused no_key '2:1: <Entry>' '<R><Menu>\n<Entry Text="x"><Chainload/></Entry></Menu></R>'
refused bad_guid '1:4: <LoadKernel>' '<R><LoadKernel><Kernel Path="k"/><Ramdisk Path="r"/><GPT Guid="12-34"/></LoadKernel></R>'
refused duplicate_key '1:46: <Entry>' '<R><Menu><Entry Key="F1"><Chainload/></Entry><Entry Key="f1"><Chainload/></Entry></Menu></R>'
refused two_defaults '1:56: <Entry>' '<R><Menu><Entry Key="1" Default=""><Chainload/></Entry><Entry Key="2" Default=""><Chainload/></Entry></Menu></R>'
refused delay_without_default '1:10: <Topic>' '<R><Menu><Topic Delay="5"/><Entry Key="1"><Chainload/></Entry></Menu></R>'
refused two_actions '1:10: <Entry>' '<R><Menu><Entry Key="1"><Chainload/><Chainload/></Entry></Menu></R>'
refused empty_loading '1:4: <Chainload>' '<R><Chainload><Loading Text=""/></Chainload></R>'
refused empty_root '1:1: <R>' '<R>\n</R>'
refused unknown_action '3:3: <Boot>' '<R>\n\n  <Boot/></R>'
refused unknown_job '1:22: <Copy>' '<R><Chainload/><Jobs><Copy/></Jobs></R>'
# Every refusal is reported, each at the innermost element that fails.
printf '<R><Menu><Entry Key="1"><Menu>\n <Entry Key="2"><LoadKernel/></Entry></Menu></Entry>\n<Entry/><Entry Key="1"><Chainload/></Entry></Menu>\n<Jobs><Rename><Loading/></Rename></Jobs></R>' >"$work/many.xml"
expect_status 1 "$tool" conf check "$work/many.xml"
[ "$(grep -c 'refused with 21495817' "$work/out")" -eq 4 ] || fail "many: $(cat "$work/out")"
grep -q "^$work/many.xml:4:7: <Rename>: " "$work/out" && grep -q "^$work/many.xml:2:17: <LoadKernel>: " "$work/out" \
    && grep -q "^$work/many.xml:3:1: <Entry>: " "$work/out" && grep -q "^$work/many.xml:3:9: <Entry>: " "$work/out" \
    || fail "many: $(cat "$work/out")"
# A kernel that is nowhere is no refusal of the rules: no volume is looked at.
printf '<R><LoadKernel><Kernel Path="\\nowhere"/><Ramdisk Path="\\none"/></LoadKernel></R>' >"$work/files.xml"
expect_status 0 "$tool" conf check "$work/files.xml"
# The binary form has no lines: the element alone.
"$tool" conf convert --to bxml "$work/no_key.xml" "$work/no_key.bxml"
expect_status 1 "$tool" conf check "$work/no_key.bxml"
grep -qx "$work/no_key.bxml: <Entry>: refused with 21495817 BAD_CONFIGURATION (tag 0x[0-9a-f]*)" "$work/out" \
    || fail "binary place: $(cat "$work/out")"

# Warnings: accepted (exit 0), on standard error, one line each.
warned() {
    name="$1"; pattern="$2"; printf '%b' "$3" >"$work/$name.xml"
    expect_status 0 "$tool" conf check "$work/$name.xml"
    grep -q '^ok: ' "$work/out" && grep -qx "warning: $work/$name.xml:$pattern" "$work/err" \
        || fail "$name: $(cat "$work/out" "$work/err")"
    [ "$(wc -l <"$work/err")" -eq 1 ] || fail "$name: more than one warning: $(cat "$work/err")"
}
menu_with() { printf '<R><Menu>%s<Entry Key="1" Default=""><Chainload/></Entry></Menu></R>' "$1"; }
warned topik "1:10: <Topik>: element unknown to the loader" "$(menu_with '<Topik Text="x"/>')"
warned attribute "1:10: <Topic>: attribute 'Txt' unknown to the loader, which skips it" "$(menu_with '<Topic Txt="x"/>')"
warned f13 "1:10: <Entry>: Key 'F13' is read as the key F1" "$(menu_with '<Entry Key="F13"><Chainload/></Entry>')"
warned enter "1:10: <Entry>: Key 'Enter' is read as the character 'E'" "$(menu_with '<Entry Key="Enter"><Chainload/></Entry>')"
warned escape "1:10: <Entry>: Key 'Escape' is read as the key Esc" "$(menu_with '<Entry Key="Escape"><Chainload/></Entry>')"
warned words "1:10: <Topic>: Delay 'ten' is not a number of seconds; it is read as 0" "$(menu_with '<Topic Delay="ten"/>')"
warned never "1:10: <Topic>: Delay '215' wraps .*: the menu never times out (214 s at most)" "$(menu_with '<Topic Delay="215"/>')"
# 430 s is 4 300 000 000 units of 100 ns, 5 032 704 above 2^32: about 0.5 s.
warned short "1:10: <Topic>: Delay '430' wraps .*: it times out after 0 s (214 s at most)" "$(menu_with '<Topic Delay="430"/>')"
for type in C12A7328-F81F-11D2-BA4B-00A0C93EC93B 0fc63daf-8483-4772-8e79-3d69d8477de4 EBD0A0A2-B9E5-4433-87C0-68B6B72699C7; do
    warned type_guid "1:53: <GPT>: Guid '$type' is the partition type GUID '.*', not a partition's own unique GUID" \
        "<R><LoadKernel><Kernel Path=\"k\"/><Ramdisk Path=\"r\"/><GPT Guid=\"$type\"/></LoadKernel></R>"
done
# What is meant draws no warning: names in either case of the first letter,
# the page keys, the longest delay, no time-out, a partition's own GUID.
printf '<R xml:space="preserve"><Menu><Topic Text="t" Delay="214"/><Entry Key="f10"><Chainload/></Entry><Entry Key="PgDown"><Chainload/></Entry><Entry Key="esc"><Chainload/></Entry><Entry Key="x" Text="x" Default=""><LoadKernel><Kernel Path="k" Arguments="a"/><Ramdisk Path="r"/><GPT Guid="2F1C0B7E-7A1D-4D2E-9B55-3C1E0E6F1A22"/><Loading Text="l"/></LoadKernel></Entry></Menu><Jobs><Rename FileNameSource="a" FileNameTarget="b"/></Jobs></R>' >"$work/meant.xml"
expect_status 0 "$tool" conf check "$work/meant.xml"
[ ! -s "$work/err" ] || fail "meant: $(cat "$work/err")"
printf '<R><Menu><Topic Delay="-1"/><Entry Key="1"><Chainload/></Entry></Menu></R>' >"$work/forever.xml"
expect_status 0 "$tool" conf check "$work/forever.xml"
[ ! -s "$work/err" ] || fail "no time-out: $(cat "$work/err")"
# The sample documents of the source tree: accepted, warnings only.
for document in "$sources"/examples/*.xml "$sources"/tests/e2e/kernel/*.xml; do
    expect_status 0 "$tool" conf check "$document"
    ! grep -v '^warning: ' "$work/err" || fail "$document: not a warning"
done

# With --esp, the files themselves, opened by the loader's kernel action on
# the machine of `morvane boot`: the ESP folder, and a GPT disk of sgdisk
# whose partition 1 is ext4 (mke2fs -d), 2 FAT (mkfs.fat and mtools) and 3
# blank. Each file element sits on a line of its own, at column 1.
g1=11111111-2222-4333-8444-555555555501; g2=11111111-2222-4333-8444-555555555502
g3=11111111-2222-4333-8444-555555555503; gx=11111111-2222-4333-8444-5555555555FF
disk="$work/gpt.img"
truncate -s 12M "$disk"
sgdisk -o -n 1:0:+4M -t 1:8300 -u 1:$g1 -n 2:0:+4M -t 2:0700 -u 2:$g2 -n 3:0:+1M -u 3:$g3 "$disk" >"$work/sgdisk" 2>&1 \
    || fail "sgdisk: $(cat "$work/sgdisk")"
sector() { sgdisk -i "$1" "$disk" | sed -n "s/^$2 sector: \([0-9]*\).*/\1/p"; }
place() { dd if="$2" of="$disk" bs=512 seek="$(sector "$1" First)" conv=notrunc status=none; }
mkdir -p "$work/ext/boot" "$work/esp/boot"
for f in vmlinuz initrd; do printf '%s' "$f" >"$work/ext/boot/$f"; printf '%s' "$f" >"$work/esp/boot/$f"; done
mkfs.ext4 -q -d "$work/ext" "$work/p1.img" 4M >/dev/null 2>&1 || fail "mkfs.ext4"
mkfs.fat -C "$work/p2.img" 4096 >/dev/null || fail "mkfs.fat"
mmd -i "$work/p2.img" ::/boot && mcopy -i "$work/p2.img" "$work/ext/boot/vmlinuz" "$work/ext/boot/initrd" ::/boot || fail "mtools"
place 1 "$work/p1.img"; place 2 "$work/p2.img"
# entry KEY KERNEL RAMDISK [GUID]: three lines, the kernel on the 2nd.
entry() {
    printf '<Entry Key="%s"><LoadKernel>\n<Kernel Path="%s"/>\n<Ramdisk Path="%s"/>' "$1" "$2" "$3"
    [ -z "${4:-}" ] || printf '<GPT Guid="%s"/>' "$4"
    printf '</LoadKernel></Entry>\n'
}
{ printf '<R><Menu>\n'; entry a '\boot\vmlinuz' '/boot/initrd'; entry b /boot/vmlinuz /boot/initrd $g1
  printf '<Entry Key="n"><Menu>\n'; entry c '\boot\vmlinuz' /boot/initrd "$(echo $g2 | tr A-F a-f)"
  printf '</Menu></Entry></Menu></R>\n'; } >"$work/present.xml"
expect_status 0 "$tool" conf check "$work/present.xml" --esp "$work/esp" --disk "$disk"
grep -q '^ok: ' "$work/out" && grep -qx 'files: 6 files opened, none missing' "$work/out" || fail "present: $(cat "$work/out")"
{ printf '<R><Menu>\n'; entry a '\boot\missing' '\boot\initrd'; entry b /boot/vmlinuz /boot/none $g1
  entry c '\boot\vmlinuz' '\boot\none' $g2; entry d /k /r $g3; entry e /k /r $gx; printf '</Menu></R>\n'; } >"$work/absent.xml"
expect_status 1 "$tool" conf check "$work/absent.xml" --disk "$disk" --esp "$work/esp"
on_part() { echo "on partition $1 ($2) of $disk"; }
cat >"$work/absent.want" <<EOF
$work/absent.xml:3:1: <Kernel>: \\boot\\missing on the ESP: no file at this path (code 262151 FILE_OPEN)
$work/absent.xml:7:1: <Ramdisk>: /boot/none $(on_part 1 $g1): no file at this path (code 21495816 VOLUME_NOT_MOUNTED)
$work/absent.xml:10:1: <Ramdisk>: \\boot\\none $(on_part 2 $g2): no file at this path (code 21495816 VOLUME_NOT_MOUNTED)
$work/absent.xml:12:1: <Kernel>: /k $(on_part 3 $g3): no driver mounts this partition (code 21495816 VOLUME_NOT_MOUNTED)
$work/absent.xml:13:1: <Ramdisk>: /r $(on_part 3 $g3): no driver mounts this partition (code 21495816 VOLUME_NOT_MOUNTED)
$work/absent.xml:15:1: <Kernel>: /k on partition $gx: no attached disk has this partition (code 1101838 DISK_NOT_FOUND)
$work/absent.xml:16:1: <Ramdisk>: /r on partition $gx: no attached disk has this partition (code 1101838 DISK_NOT_FOUND)
EOF
cmp -s "$work/out" "$work/absent.want" || fail "absent files: $(diff "$work/absent.want" "$work/out")"
# The main action, beside a refusal of the rules; --image moves nothing.
printf '<R><LoadKernel>\n<Kernel Path="/boot/vmlinuz"/>\n<Ramdisk Path="/boot/initrd.img"/><GPT Guid="%s"/></LoadKernel>\n<Jobs><Copy/></Jobs></R>' $g1 >"$work/main.xml"
expect_status 1 "$tool" conf check "$work/main.xml" --esp "$work/esp" --image '\EFI\other\x.efi' --disk "$disk"
grep -q '^.*main.xml:4:7: <Copy>: refused with 21495817' "$work/out" &&
    grep -qx "$work/main.xml:3:1: <Ramdisk>: /boot/initrd.img $(on_part 1 $g1): no file at this path (code 21495816 VOLUME_NOT_MOUNTED)" "$work/out" &&
    [ "$(wc -l <"$work/out")" -eq 2 ] || fail "main action: $(cat "$work/out")"
expect_status 0 "$tool" conf check "$work/absent.xml"
expect_status 2 "$tool" conf check "$work/present.xml" --disk "$disk"
expect_status 2 "$tool" conf check "$work/present.xml" --esp "$work/no-esp"
expect_status 2 "$tool" conf check "$work/present.xml" --esp "$work/esp" --disk "$work/no.img"
grep -q 'no.img: No such file or directory$' "$work/err" || fail "missing disk message: $(cat "$work/err")"

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
