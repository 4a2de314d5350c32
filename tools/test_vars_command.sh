#!/bin/sh
# morvane vars changing a copy of OVMF's variable file: entries added for a
# GPT disk of sgdisk, their hard drive node held against sgdisk -i both in
# the listing and in the file's raw bytes; deletion, BootOrder, BootNext,
# the one-shot entry that the loader itself removes at its next start, and
# refusals that leave the file byte for byte as it was.
#
#   test_vars_command.sh TOOL
set -u
tool="$1"
export LC_ALL=C.UTF-8
. "$(dirname "$0")/test_lib.sh"
ovmf=/usr/share/OVMF/OVMF_VARS_4M.fd
[ -f "$ovmf" ] || { echo "no $ovmf: skipped"; exit 77; }
vars="$work/vars.fd"
cp "$ovmf" "$vars"
chmod 640 "$vars"

# A disk whose EFI system partition is its second, and one without any.
disk="$work/disk.img"
truncate -s 40M "$disk"
sgdisk -o -n 1:0:+8M -t 1:8300 -n 2:0:+16M -t 2:ef00 "$disk" > /dev/null || fail "sgdisk could not make the disk"
field() { sgdisk -i "$1" "$disk" | sed -n "s/^$2: *\([^ ]*\).*/\1/p"; }
first=$(field 2 "First sector")
size=$(($(field 2 "Last sector") - first + 1))
guid=$(field 2 "Partition unique GUID")
first1=$(field 1 "First sector")
size1=$(($(field 1 "Last sector") - first1 + 1))
guid1=$(field 1 "Partition unique GUID")
mkfs.fat -F 16 --offset "$first" "$disk" $((size / 2)) > /dev/null 2>&1 || fail "mkfs.fat"
printf 'MZ' > "$work/morvane.efi"
esp="$disk@@$((first * 512))"
mmd -i "$esp" ::EFI ::EFI/morvane && mcopy -i "$esp" "$work/morvane.efi" ::EFI/morvane/ || fail "mtools could not fill the ESP"
bare="$work/bare.img"
truncate -s 8M "$bare"
sgdisk -o -n 1:0:0 -t 1:8300 "$bare" > /dev/null || fail "sgdisk could not make the bare disk"

list() { expect 0 "list" "$tool" vars "$vars"; }
# entry LINE: the listing holds this line exactly.
entry() { grep -qxF -- "$1" "$work/out" || fail "no line '$1' in: $(cat "$work/out")"; }
tab=$(printf '\t')
hd() { printf 'HD(%s,GPT,%s,0x%X,0x%X)' "$1" "$2" "$3" "$4"; }

# ---- add: the ESP by default, a partition by number and by unique GUID ----
expect 0 "add" "$tool" vars "$vars" add --disk "$disk" --path '\EFI\morvane\morvane.efi' --description "Morvane test"
out_is "add" "added Boot0000"
[ "$(stat -c %a "$vars")" = 640 ] || fail "the edit changed the file's permissions to $(stat -c %a "$vars")"
expect 0 "add, first" "$tool" vars "$vars" add --disk "$disk:1" --path EFI/other/x.efi --description Other \
    --data "x.efi conf" --first
out_is "add, first" "added Boot0001"
expect 0 "add by GUID" "$tool" vars "$vars" add --description "By GUID" --path /EFI/BOOT/BOOTX64.EFI --disk "$disk:$guid"
out_is "add by GUID" "added Boot0002"
list
out_has "order after adds" "BootOrder: 0001,0000,0002"
entry "Boot0000* Morvane test$tab$(hd 2 "$guid" "$first" "$size")/\\EFI\\morvane\\morvane.efi"
# The data as UCS-2 with a terminator: each byte of the ASCII text and a 0.
wide=$(printf 'x.efi conf' | od -An -tx1 -v | sed 's/ \([0-9a-f][0-9a-f]\)/\100/g' | tr -d ' \n')0000
entry "Boot0001* Other$tab$(hd 1 "$guid1" "$first1" "$size1")/\\EFI\\other\\x.efi data:$wide u\"x.efi conf\""
entry "Boot0002* By GUID$tab$(hd 2 "$guid" "$first" "$size")/\\EFI\\BOOT\\BOOTX64.EFI"

# The hard drive node in the file's bytes, as the UEFI standard lays it out
# (type 4, subtype 1, length 42, GPT format and GUID signature), from what
# sgdisk says: the listing above is our own parser's word only.
le() {
    v=$1 n=$2 hex=""
    while [ "$n" -gt 0 ]; do hex="$hex$(printf '%02x' $((v & 255)))"; v=$((v >> 8)); n=$((n - 1)); done
    echo "$hex"
}
# A GUID's bytes as stored: its first three fields little-endian.
guid_bytes() {
    echo "$1" | tr -d '-' | tr 'A-F' 'a-f' | sed 's/^\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)\(..\)/\4\3\2\1\6\5\8\7/'
}
node="04012a00$(le 2 4)$(le "$first" 8)$(le "$size" 8)$(guid_bytes "$guid")0202"
count=$(od -An -tx1 -v "$vars" | tr -d ' \n' | grep -o "$node" | wc -l)
[ "$count" -eq 2 ] || fail "the ESP's hard drive node is in the file $count times, expected 2: $node"

# ---- refusals: each exits as it should and leaves the file as it was ----
cp "$vars" "$work/before.fd"
while IFS='|' read -r status message arguments; do
    eval "set -- $arguments"
    expect "$status" "vars $arguments" "$tool" vars "$vars" "$@"
    err_has "vars $arguments" "$message"
    [ -s "$work/out" ] && fail "vars $arguments: printed '$(cat "$work/out")' on a refusal"
    cmp -s "$vars" "$work/before.fd" || fail "vars $arguments changed the file"
done << EOF
1|has no EFI system partition|add --disk "$bare" --path /a.efi --description A
1|has no partition 7|add --disk "$disk:7" --path /a.efi --description A
2|No such file or directory|add --disk "$work/missing.img" --path /a.efi --description A
2|add needs --path|add --disk "$disk" --description A
2|--data needs a value|add --disk "$disk" --path /a.efi --description A --data
1|there is no Boot0009|delete 0009
2|'xyz' is no entry number|delete xyz
2|'12345' is no entry number|delete 12345
2|takes one entry number|delete 1 2
1|no such entry: Boot0009|order 0000,0009
2|order names 0 twice|order 0000,0
2|'' is no entry number|order 0000,,0001
1|there is no Boot0042|next 42
1|there is no Boot0042|once Boot0042
2|unknown command 'frobnicate'|frobnicate
EOF

# ---- order, BootNext, delete ----
expect 0 "order" "$tool" vars "$vars" order 0000,2 Boot0001
out_is "order" "BootOrder: 0000,0002,0001"
list
out_has "order set" "BootOrder: 0000,0002,0001"
[ "$(grep -c '^Boot000[012]\* ' "$work/out")" -eq 3 ] || fail "order lost an entry: $(cat "$work/out")"
expect 0 "next" "$tool" vars "$vars" next 2
list
out_has "next set" "BootNext: 0002"
expect 0 "next --clear" "$tool" vars "$vars" next --clear
list
grep -q "^BootNext" "$work/out" && fail "BootNext stayed: $(cat "$work/out")"
cp "$vars" "$work/before.fd"
expect 0 "next --clear, none" "$tool" vars "$vars" next --clear
out_is "next --clear, none" "no BootNext to clear"
cmp -s "$vars" "$work/before.fd" || fail "clearing an absent BootNext changed the file"
expect 0 "delete" "$tool" vars "$vars" delete 0001
out_is "delete" "deleted Boot0001"
list
out_has "delete, order" "BootOrder: 0000,0002"
grep -q "^Boot0001" "$work/out" && fail "Boot0001 stayed: $(cat "$work/out")"

# ---- once: tagged and first; the loader's next start deletes it ----
expect 0 "once" "$tool" vars "$vars" once 0002
list
out_has "once, order" "BootOrder: 0002,0000"
entry "Boot0002* By GUID$tab$(hd 2 "$guid" "$first" "$size")/\\EFI\\BOOT\\BOOTX64.EFI data:46616b655f746167 \"Fake_tag\""
cp "$vars" "$work/before.fd"
mkdir "$work/esp"
"$tool" boot --esp "$work/esp" --vars "$vars" --vars-out "$work/after.fd" > "$work/out" 2>&1
[ $? -ne 2 ] || fail "boot with the one-shot entry: $(cat "$work/out")"
cmp -s "$vars" "$work/before.fd" || fail "boot without --vars-out changed the variable file"
expect 0 "list after boot" "$tool" vars "$work/after.fd"
out_has "after boot, order" "BootOrder: 0000"
grep -q "^Boot0002" "$work/out" && fail "the loader left the one-shot entry: $(cat "$work/out")"
grep -q "^Boot0000\* Morvane test" "$work/out" || fail "the loader dropped another entry: $(cat "$work/out")"

# A Boot#### outside BootOrder keeps its number: a new entry passes it by.
grep "^Boot0000" "$work/out" > "$work/kept"
vars="$work/after.fd"
expect 0 "add, then" "$tool" vars "$vars" add --disk "$disk" --path /b.efi --description B
expect 0 "order without Boot0000" "$tool" vars "$vars" order 1
expect 0 "add beside a stray entry" "$tool" vars "$vars" add --disk "$disk" --path /c.efi --description C
out_is "add beside a stray entry" "added Boot0002"
list
out_has "stray, order" "BootOrder: 0001,0002"
grep -qxF -f "$work/kept" "$work/out" || fail "the stray Boot0000 changed: $(cat "$work/out")"

if [ "$failures" -eq 0 ]; then echo "vars command: all checks passed"; fi
[ "$failures" -eq 0 ]
