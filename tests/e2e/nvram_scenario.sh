#!/bin/bash
# End to end in real NVRAM: a one-shot entry tagged "Fake_tag" at the head of
# BootOrder must be gone after one start of the loader, and nothing else.
#
#   tests/e2e/nvram_scenario.sh BUILD_DIR
#
# Two starts of OVMF share one copy of OVMF_VARS_4M.fd and one FAT ESP (made
# by mkfs.fat and mtools) that has no \EFI\BOOT\BOOTX64.EFI, so the firmware
# falls through to its UEFI shell, which runs \startup.nsh:
#
# 1. The shell makes the entries with its own bcfg: "Alpha" and "Beta"
#    (files that are no EFI images, so the boot manager passes over them),
#    and "Morvane one-shot" for \morvane.efi, whose optional data are the
#    tag; Beta's are "Fake_tab", one letter off. The tagged entry is moved to
#    the head of BootOrder, and `bcfg boot dump -v` lists the entries: the
#    list before.
# 2. The firmware boots the tagged entry: the loader starts, finds no
#    configuration document beside itself and fails, which must not keep it
#    from removing the entry. The boot manager goes on through the order to
#    the shell, which now lists the entries again (the list after) and asks
#    `dmpstore` for the tagged Boot#### variable.
#
# The firmware's shell is the reader of both lists; the check is that the
# list after is the list before without the tagged entry, in the same order,
# that its variable is gone, and that Beta kept its data. When build/morvane
# knows `vars`, its reading of the VARS file must agree with the shell's.
#
# Prints the two lists, then PASS or FAIL with the reasons; the consoles stay
# in BUILD_DIR/e2e-work/nvram, and a failure's log goes to
# BUILD_DIR/e2e-logs/nvram.log. Exit status 0 on success.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
. "$HERE/lib.sh"

LOADER_IMAGE=$BUILD_DIR/morvane.efi
TOOL=$BUILD_DIR/morvane
if [ ! -f "$LOADER_IMAGE" ]; then
    echo "missing $LOADER_IMAGE: build first (make)" >&2
    exit 2
fi
DIR=$BUILD_DIR/e2e-work/nvram
rm -rf "$DIR"
mkdir -p "$DIR"
cd "$DIR" || exit 2

TAGGED_DESCRIPTION='Morvane one-shot'
FAILURES=$DIR/failures
: >"$FAILURES"
fail() { echo "$1" >>"$FAILURES"; }

# The shell wants CRLF lines.
shell_script() {
    sed 's/$/\r/' >"$1"
}

make_esp() {
    mkfs.fat -C esp.img 16384 >/dev/null || return 1
    printf 'not an EFI image\n' >alpha.efi
    printf 'not an EFI image\n' >beta.efi
    printf 'Fake_tag' >tag.bin
    printf 'Fake_tab' >near.bin
    shell_script stage1.nsh <<'EOF'
fs0:
bcfg boot add 0 fs0:\alpha.efi "Alpha"
bcfg boot add 1 fs0:\beta.efi "Beta"
bcfg boot add 1 fs0:\morvane.efi "Morvane one-shot"
bcfg boot -opt 1 fs0:\tag.bin
bcfg boot -opt 2 fs0:\near.bin
bcfg boot mv 1 0
bcfg boot dump -v
reset -s
EOF
    mcopy -i esp.img "$LOADER_IMAGE" ::/morvane.efi || return 1
    for file in alpha.efi beta.efi tag.bin near.bin; do
        mcopy -i esp.img "$file" "::/$file" || return 1
    done
    mcopy -i esp.img stage1.nsh ::/startup.nsh
}

# start_firmware NAME: one start of OVMF on the ESP and the shared NVRAM;
# the console, cleaned, goes to NAME.txt.
start_firmware() {
    timeout -k 5 "$BOOT_TIME_LIMIT" qemu-system-x86_64 \
        -machine q35,accel=tcg -m 256 -display none -serial stdio -nic none -no-reboot \
        -drive if=pflash,format=raw,readonly=on,file="$OVMF_CODE" \
        -drive if=pflash,format=raw,file=vars.fd \
        -drive format=raw,file=esp.img \
        </dev/null >"$1.raw" 2>"$1.err"
    status=$?
    clean_console <"$1.raw" >"$1.txt"
    if [ "$status" -eq 124 ]; then
        fail "$1: no end within ${BOOT_TIME_LIMIT} s"
    elif [ "$status" -ne 0 ]; then
        fail "$1: QEMU exited with status $status"
    fi
}

# entry_list CONSOLE: "Boot#### Description" for each option of the last
# `bcfg boot dump -v` in the console, in BootOrder's order.
entry_list() {
    awk '
        /> bcfg boot dump -v/ { listing = 1; delete seen; count = 0; next }
        /> / { listing = 0 }
        listing && /^Option: [0-9]+\. Variable: Boot[0-9A-F][0-9A-F][0-9A-F][0-9A-F]/ { variable = $4 }
        listing && /^  Desc    - / { line[++count] = variable " " substr($0, 13) }
        END { for (i = 1; i <= count; i++) print line[i] }
    ' "$1" | sed 's/ *$//'
}

# optional_data CONSOLE VARIABLE: the hex dump lines of the entry's data.
optional_data() {
    awk -v wanted="$2" '
        /> bcfg boot dump -v/ { listing = 1; text = ""; next }
        /> / { listing = 0 }
        listing && /^Option: / { current = $4 }
        listing && current == wanted && /^  [0-9A-F]+: / { text = text $0 "\n" }
        END { printf "%s", text }
    ' "$1"
}

if ! make_esp; then
    echo "FAIL nvram_tagged_entry: cannot make the ESP"
    exit 1
fi
cp "$OVMF_VARS" vars.fd || exit 2

# First start: the shell makes the entries.
start_firmware before
entry_list before.txt >before.list
tagged=$(grep -F " $TAGGED_DESCRIPTION" before.list | head -n 1 | cut -d' ' -f1)
if [ -z "$tagged" ]; then
    fail "the shell made no tagged entry"
else
    if [ "$(head -n 1 before.list | cut -d' ' -f1)" != "$tagged" ]; then
        fail "the tagged entry $tagged is not the first of BootOrder"
    fi
    if ! optional_data before.txt "$tagged" | grep -q '46 61 6B 65 5F 74 61 67'; then
        fail "$tagged does not carry the tag"
    fi
fi
for name in Alpha Beta; do
    grep -q " $name\$" before.list || fail "the shell made no entry '$name'"
done
beta=$(grep ' Beta$' before.list | cut -d' ' -f1)
beta_data_before=$(optional_data before.txt "$beta")

if [ ! -s "$FAILURES" ]; then
    # Second start: the firmware boots the tagged entry, then the shell
    # lists what is left.
    shell_script stage2.nsh <<EOF
fs0:
bcfg boot dump -v
dmpstore $tagged
reset -s
EOF
    mcopy -o -i esp.img stage2.nsh ::/startup.nsh || fail "cannot replace startup.nsh"
    cp vars.fd vars-before.fd
    start_firmware after
    entry_list after.txt >after.list

    startup=$(grep -n -x -F 'Iniciando el cargador Morvane UEFI...' after.txt | head -n 1 | cut -d: -f1)
    report=$(grep -n -E "^Runtime exception 'Error durante la apertura del archivo\\.', code 262151, tag 0x[0-9a-f]{16}\$" \
        after.txt | head -n 1 | cut -d: -f1)
    if [ -z "$startup" ]; then
        fail "the firmware did not start the loader from the tagged entry"
    elif [ -z "$report" ] || [ "$report" -le "$startup" ]; then
        fail "the loader did not fail for want of its document"
    fi
    if [ ! -s after.list ]; then
        fail "the shell listed no entries after the loader's run"
    fi
    grep -v "^$tagged " before.list >expected.list
    if ! cmp -s expected.list after.list; then
        fail "the entries after are not those before without $tagged: $(diff expected.list after.list | grep '^[<>]' | paste -s -d ';')"
    fi
    if ! grep -q "dmpstore: No matching variables found\\..*Name $tagged" after.txt; then
        fail "the variable $tagged still exists"
    fi
    if [ "$(optional_data after.txt "$beta")" != "$beta_data_before" ]; then
        fail "Beta's optional data changed"
    fi

    # Our own reading of the firmware's files, when the tool is there.
    if [ -x "$TOOL" ] && "$TOOL" vars --help >/dev/null 2>&1; then
        for stage in before after; do
            file=vars.fd
            [ "$stage" = before ] && file=vars-before.fd
            "$TOOL" vars "$file" >"$stage.vars" 2>&1 || fail "morvane vars refused the $stage file"
            order=$(sed -n 's/^BootOrder: //p' "$stage.vars" | tr ',' ' ')
            listed=$(for number in $order; do
                sed -n "s/^Boot$number[* ] \\([^	]*\\)	.*/Boot$number \\1/p" "$stage.vars"
            done | sed 's/ *$//')
            if [ "$listed" != "$(cat "$stage.list")" ]; then
                fail "morvane vars reads the $stage file otherwise than the shell"
            fi
        done
    fi
fi

echo "before: $(paste -s -d ',' before.list | sed 's/,/, /g')"
echo "after:  $(paste -s -d ',' after.list 2>/dev/null | sed 's/,/, /g')"
# DIR/result holds "pass" or the reasons, as the other scenarios' do.
if [ -s "$FAILURES" ]; then
    cp "$FAILURES" result
    mkdir -p "$BUILD_DIR/e2e-logs"
    {
        sed 's/^/== failed: /' "$FAILURES"
        for stage in before after; do
            echo "== console of the start $stage the loader's run"
            cat "$stage.txt" 2>/dev/null
        done
    } >"$BUILD_DIR/e2e-logs/nvram.log"
    echo "FAIL nvram_tagged_entry: $(paste -s -d ';' "$FAILURES")   (log: $BUILD_DIR/e2e-logs/nvram.log)"
    exit 1
fi
echo pass >result
echo "PASS nvram_tagged_entry"
rm -f esp.img vars-before.fd
