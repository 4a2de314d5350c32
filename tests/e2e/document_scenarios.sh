#!/bin/bash
# End-to-end scenarios of the document way: the real morvane.efi is the
# firmware's own removable-media boot file \EFI\BOOT\BOOTX64.EFI, started by
# OVMF with no load options, and reads \EFI\BOOT\BOOTX64.xml beside it.
# The marker app on a second disk is the boot option behind it: its line
# shows that the loader handed control back to the firmware, which went on.
# Keys are typed on the serial console once the menu's lines have appeared.
# Files that the loader renames are checked afterwards with mtools.
#
#   tests/e2e/document_scenarios.sh BUILD_DIR
#
# Needs BUILD_DIR/morvane.efi, BUILD_DIR/tests/e2e/marker/marker.efi and the
# host tool BUILD_DIR/morvane (for the binary form of the documents).
# Consoles and documents of failed scenarios are kept in BUILD_DIR/e2e-logs/.
set -u

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
HERE=$(cd "$(dirname "$0")" && pwd)
SOURCE_DIR=$(cd "$HERE/../.." && pwd)
BUILD_DIR=$(cd "$1" && pwd) || exit 2
. "$HERE/lib.sh"
e2e_document_images "$BUILD_DIR" || exit 2
TOOL=$BUILD_DIR/morvane
SAMPLE_DOCUMENT=$SOURCE_DIR/examples/morvane.xml

scenario_folders "$BUILD_DIR" document

# The loader's exact console texts; a line of an expected console that
# begins with '~' is an extended regular expression for the whole line.
STARTUP_LINE='Iniciando el cargador Morvane UEFI...'
OPEN_ERROR_REPORT="~^Runtime exception 'Error durante la apertura del archivo\\.', code 262151, tag 0x[0-9a-f]{16}\$"
BAD_CONFIGURATION_REPORT="~^Runtime exception '', code 21495817, tag 0x[0-9a-f]{16}\$"
KERNEL_CORRUPT_REPORT="~^Runtime exception 'El kernel est. da.ado\\.', code 21495810, tag 0x[0-9a-f]{16}\$"

# ---------------------------------------------------------------------------
# Checks. Each writes its complaints through fail, which run_scenario
# defines per scenario.

# line_of TEXT FILE: number of the first line equal to TEXT, or 0.
line_of() {
    local n
    n=$(grep -n -x -F -e "$1" "$2" | head -n 1 | cut -d: -f1)
    echo "${n:-0}"
}

# loader_block CONSOLE: what the loader printed, from its start-up line up to
# the firmware's next line of its own ("BdsDxe: ..."), which it prints when
# it goes on to the next boot option.
loader_block() {
    awk -v start="$STARTUP_LINE" '
        !inside && $0 == start { inside = 1 }
        inside && /^BdsDxe: / { exit }
        inside { print }' "$1"
}

# check_loader_lines CONSOLE EXPECTED...: the loader printed exactly the
# EXPECTED lines, in this order, and nothing between or behind them.
check_loader_lines() {
    local console=$1 block expected got i=0 line pattern
    shift
    if [ "$(grep -c -x -F -e "$STARTUP_LINE" "$console")" -ne 1 ]; then
        fail "the start-up line is not there exactly once (loader started $(grep -c -x -F -e "$STARTUP_LINE" "$console") times)"
        return
    fi
    block=${console%.txt}.loader
    loader_block "$console" >"$block"
    mapfile -t got <"$block"
    for pattern in "$@"; do
        line=${got[i]-<nothing>}
        i=$((i + 1))
        case $pattern in
            '~'*) expected=${pattern#\~}
                  if ! printf '%s\n' "$line" | grep -q -E -e "$expected"; then
                      fail "loader line $i: expected /$expected/, got '$line'"
                      return
                  fi ;;
            *)    if [ "$line" != "$pattern" ]; then
                      fail "loader line $i: expected '$pattern', got '$line'"
                      return
                  fi ;;
        esac
    done
    if [ "${#got[@]}" -gt "$#" ]; then
        fail "loader line $(($# + 1)): nothing more expected, got '${got[$#]}'"
    fi
}

# check_next_option STATUS CONSOLE: the loader returned to the firmware,
# which started the marker from the second disk, and the marker ended QEMU.
check_next_option() {
    local status=$1 console=$2 startup marker
    case $status in
        "$MARKER_EXIT_STATUS") ;;
        124) fail "no end within ${BOOT_TIME_LIMIT} s" ;;
        *) fail "QEMU exited with status $status, not the marker's $MARKER_EXIT_STATUS" ;;
    esac
    startup=$(line_of "$STARTUP_LINE" "$console")
    marker=$(line_of "$MARKER_LINE" "$console")
    if [ "$marker" -eq 0 ]; then
        fail "the next boot option did not start: no '$MARKER_LINE'"
    elif [ "$marker" -le "$startup" ]; then
        fail "the marker ran before the loader"
    fi
}

# check_run STATUS CONSOLE EXPECTED...: both of the above.
check_run() {
    local status=$1 console=$2
    shift 2
    check_loader_lines "$console" "$@"
    check_next_option "$status" "$console"
}

# boot DIR NAME ESP [LINE KEYS]...: one boot of ESP with a fresh marker disk;
# the console goes to DIR/NAME.txt, QEMU's status to BOOT_STATUS.
boot() {
    local dir=$1 name=$2 esp=$3
    shift 3
    if ! make_marker_disk "$dir/next.img"; then
        fail "cannot make the marker disk"
        BOOT_STATUS=255
        return
    fi
    boot_loader_disks "$dir" "$esp" "$dir/next.img" "$@"
    BOOT_STATUS=$?
    clean_console <"$dir/console.raw" >"$dir/$name.txt"
    cp "$dir/qemu.err" "$dir/$name.qemu.err"
}

# to_bxml IN OUT: the binary form of a document, made by the host tool; it
# must really be the binary form, or comparing both forms proves nothing.
to_bxml() {
    if ! "$TOOL" conf convert --to bxml "$1" "$2" >"$2.out" 2>&1; then
        fail "the host tool cannot convert $1: $(head -n 3 "$2.out")"
        return 1
    fi
    if [ "$(head -c 4 "$2")" != BXML ]; then
        fail "the converted document does not begin with BXML"
        return 1
    fi
}

# A menu that must never be reached: it shows itself and leaves the loader
# after one second, so a wrong choice ends the run with its topic printed.
wrong_turn() {
    printf '<Menu><Topic Text="Wrong turn: %s" Delay="1"/>' "$1"
    printf '<Entry Key="q" Default=""><Chainload/></Entry></Menu>'
}

# ---------------------------------------------------------------------------
# Scenarios. Each gets its own directory and writes its documents there.

# No document beside the image: the report of the failed open, then back to
# the firmware.
scenario_missing_document() {
    local dir=$1
    make_loader_esp "$dir/esp.img" || { fail "cannot make the ESP"; return; }
    boot "$dir" console "$dir/esp.img"
    check_run "$BOOT_STATUS" "$dir/console.txt" "$STARTUP_LINE" "$OPEN_ERROR_REPORT"
}

# A text document cut off inside its main action.
scenario_truncated_text() {
    local dir=$1
    printf '<Boot><Menu>' >"$dir/document.xml"
    make_loader_esp "$dir/esp.img" "$dir/document.xml" || { fail "cannot make the ESP"; return; }
    boot "$dir" console "$dir/esp.img"
    check_run "$BOOT_STATUS" "$dir/console.txt" "$STARTUP_LINE" "$BAD_CONFIGURATION_REPORT"
}

# Well-formed, but refused by the rules of the menu: "Upper" is the key Up,
# so the two entries share a key. Nothing of the menu is printed.
scenario_refused_menu() {
    local dir=$1
    cat >"$dir/document.xml" <<'EOF'
<Boot>
  <Menu>
    <Topic Text="This menu is refused before it is shown"/>
    <Entry Key="Up" Text="Up"><Chainload/></Entry>
    <Entry Key="Upper" Text="Upper"><Chainload/></Entry>
  </Menu>
</Boot>
EOF
    make_loader_esp "$dir/esp.img" "$dir/document.xml" || { fail "cannot make the ESP"; return; }
    boot "$dir" console "$dir/esp.img"
    check_run "$BOOT_STATUS" "$dir/console.txt" "$STARTUP_LINE" "$BAD_CONFIGURATION_REPORT"
}

# The keyed menu document of menu_keys, in binary form and cut in half.
scenario_truncated_bxml() {
    local dir=$1 size
    keyed_menu_document >"$dir/document.xml"
    to_bxml "$dir/document.xml" "$dir/whole.bxml" || return
    size=$(stat -c %s "$dir/whole.bxml")
    head -c $((size / 2)) "$dir/whole.bxml" >"$dir/document.bxml"
    make_loader_esp "$dir/esp.img" "$dir/document.bxml" || { fail "cannot make the ESP"; return; }
    boot "$dir" console "$dir/esp.img"
    check_run "$BOOT_STATUS" "$dir/console.txt" "$STARTUP_LINE" "$BAD_CONFIGURATION_REPORT"
}

# A menu without a delay, a nested menu behind the Down key, Chainload
# entries, and wrong turns on every other key.
keyed_menu_document() {
    cat <<EOF
<?xml version="1.0" encoding="utf-8"?>
<!-- Entries in another order than their keys -->
<Boot>
  <Menu>
    <Topic Text="Test menu: choose an entry"/>
    <Entry Key="2" Text="2 - wrong turn">$(wrong_turn 2)</Entry>
    <Entry Key="x">$(wrong_turn x)</Entry>
    <Entry Key="1" Text="1 - wrong turn">$(wrong_turn 1)</Entry>
    <Entry Key="Esc" Text="Esc - wrong turn">$(wrong_turn Esc)</Entry>
    <Entry Key="Down" Text="Down - more choices">
      <Menu>
        <Topic Text="More choices"/>
        <Entry Key="d" Text="d - wrong turn">$(wrong_turn d)</Entry>
        <Entry Key="c" Text="c - leave the loader"><Chainload/></Entry>
        <Entry Key="C" Text="C - wrong turn">$(wrong_turn C)</Entry>
      </Menu>
    </Entry>
  </Menu>
</Boot>
EOF
}

# What the loader prints for it when Down and then c are typed: named keys
# before characters, characters by code, nothing for an entry without Text.
KEYED_MENU_LINES=(
    "$STARTUP_LINE"
    "Test menu: choose an entry"
    "Down - more choices"
    "Esc - wrong turn"
    "1 - wrong turn"
    "2 - wrong turn"
    "More choices"
    "C - wrong turn"
    "c - leave the loader"
    "d - wrong turn"
)
# Typed: a key of no entry (ignored), then Down as the serial terminal sends
# it; in the nested menu, again an unknown key, then c.
KEYED_MENU_KEYS=(
    "2 - wrong turn" 'z\033[B'
    "d - wrong turn" 'zc'
)

# The keyed menu, once as text and once in binary form: the keys lead through
# the nested menu to a Chainload, both forms print the same console.
scenario_menu_keys() {
    local dir=$1
    keyed_menu_document >"$dir/document.xml"
    make_loader_esp "$dir/esp.img" "$dir/document.xml" || { fail "cannot make the ESP"; return; }
    boot "$dir" text "$dir/esp.img" "${KEYED_MENU_KEYS[@]}"
    check_run "$BOOT_STATUS" "$dir/text.txt" "${KEYED_MENU_LINES[@]}"

    to_bxml "$dir/document.xml" "$dir/document.bxml" || return
    make_loader_esp "$dir/esp.img" "$dir/document.bxml" || { fail "cannot make the ESP"; return; }
    boot "$dir" bxml "$dir/esp.img" "${KEYED_MENU_KEYS[@]}"
    check_run "$BOOT_STATUS" "$dir/bxml.txt" "${KEYED_MENU_LINES[@]}"
    if ! cmp -s "$dir/text.txt" "$dir/bxml.txt"; then
        fail "the text and binary forms give different consoles: $(diff "$dir/text.txt" "$dir/bxml.txt" | head -n 4 | paste -s -d ' ')"
    fi
}

# A menu with a delay whose default entry is a nested menu with a delay of
# its own, whose default leaves the loader. No key is typed.
timed_menu_document() {
    cat <<EOF
<Boot>
  <Menu>
    <Topic Text="Timed menu: the default runs in 2 s" Delay="2"/>
    <Entry Key="1" Text="1 - wrong turn">$(wrong_turn 1)</Entry>
    <Entry Key="2" Text="2 - default: a nested timed menu" Default="">
      <Menu>
        <Topic Text="Nested timed menu" Delay="1"/>
        <Entry Key="a" Text="a - wrong turn">$(wrong_turn a)</Entry>
        <Entry Key="b" Text="b - default: leave the loader" Default=""><Chainload/></Entry>
      </Menu>
    </Entry>
  </Menu>
</Boot>
EOF
}
TIMED_MENU_LINES=(
    "$STARTUP_LINE"
    "Timed menu: the default runs in 2 s"
    "1 - wrong turn"
    "2 - default: a nested timed menu"
    "Nested timed menu"
    "a - wrong turn"
    "b - default: leave the loader"
)

scenario_menu_timeout() {
    local dir=$1
    timed_menu_document >"$dir/document.xml"
    make_loader_esp "$dir/esp.img" "$dir/document.xml" || { fail "cannot make the ESP"; return; }
    boot "$dir" text "$dir/esp.img"
    check_run "$BOOT_STATUS" "$dir/text.txt" "${TIMED_MENU_LINES[@]}"

    to_bxml "$dir/document.xml" "$dir/document.bxml" || return
    make_loader_esp "$dir/esp.img" "$dir/document.bxml" || { fail "cannot make the ESP"; return; }
    boot "$dir" bxml "$dir/esp.img"
    check_run "$BOOT_STATUS" "$dir/bxml.txt" "${TIMED_MENU_LINES[@]}"
    if ! cmp -s "$dir/text.txt" "$dir/bxml.txt"; then
        fail "the text and binary forms give different consoles: $(diff "$dir/text.txt" "$dir/bxml.txt" | head -n 4 | paste -s -d ' ')"
    fi
}

# check_file IMAGE PATH EXPECTED: PATH on the FAT volume IMAGE holds exactly
# the bytes of the host file EXPECTED, read back by mtools.
check_file() {
    local image=$1 path=$2 expected=$3
    if ! mdir -i "$image" "::$path" >/dev/null 2>&1; then
        fail "$path is missing"
    elif ! mtype -i "$image" "::$path" | cmp -s - "$expected"; then
        fail "$path does not hold the expected $(stat -c %s "$expected") bytes (has $(mtype -i "$image" "::$path" | wc -c))"
    fi
}

# check_absent IMAGE PATH: no file PATH on the FAT volume IMAGE.
check_absent() {
    if mdir -i "$1" "::$2" >/dev/null 2>&1; then
        fail "$2 is still there"
    fi
}

# check_volume IMAGE: the FAT checker finds nothing to repair.
check_volume() {
    local report
    if ! report=$(fsck.fat -n "$1" 2>&1); then
        fail "fsck.fat -n: $(printf '%s\n' "$report" | tail -n 3 | paste -s -d ' ')"
    fi
}

# Two Rename jobs in a row, the second taking the first one's target; the
# last target already exists and is longer than the new contents. The main
# action is a Chainload, so the loader ends right behind the jobs. A second
# boot of the same volume finds the first source gone: the report of the
# failed open, and nothing changed.
scenario_rename() {
    local dir=$1 esp=$1/esp.img
    cat >"$dir/document.xml" <<'EOF'
<Boot>
  <Chainload/>
  <Jobs>
    <Rename FileNameSource="\source.bin" FileNameTarget="\staging\between.bin"/>
    <Rename FileNameSource="\staging\between.bin" FileNameTarget="\renamed.bin"/>
  </Jobs>
</Boot>
EOF
    # Over two of the loader's 32 KiB copy steps, and not a whole number of them.
    head -c 70001 /dev/urandom >"$dir/source.bin"
    head -c 100000 /dev/urandom >"$dir/old-target.bin"
    make_loader_esp "$esp" "$dir/document.xml" || { fail "cannot make the ESP"; return; }
    if ! { mmd -i "$esp" ::/staging &&
           mcopy -i "$esp" "$dir/source.bin" ::/source.bin &&
           mcopy -i "$esp" "$dir/old-target.bin" ::/renamed.bin; }; then
        fail "cannot fill the ESP"
        return
    fi

    boot "$dir" first "$esp"
    check_run "$BOOT_STATUS" "$dir/first.txt" "$STARTUP_LINE"
    check_file "$esp" /renamed.bin "$dir/source.bin"
    check_absent "$esp" /source.bin
    check_absent "$esp" /staging/between.bin
    check_volume "$esp"

    boot "$dir" second "$esp"
    check_run "$BOOT_STATUS" "$dir/second.txt" "$STARTUP_LINE" "$OPEN_ERROR_REPORT"
    check_file "$esp" /renamed.bin "$dir/source.bin"
    check_absent "$esp" /source.bin
    check_volume "$esp"
}

# The sample document shipped for integrators. Its kernel entry opens its
# files when the document is read, so stand-ins lie where it looks; they
# are no kernels, so when the delay runs out the default entry, the kernel,
# is refused as damaged: proof that the default was taken.
scenario_sample_document() {
    local dir=$1 esp=$1/esp.img
    make_sample_esp "$dir" "$esp" || return
    boot "$dir" console "$esp"
    check_run "$BOOT_STATUS" "$dir/console.txt" \
        "$STARTUP_LINE" \
        "Morvane boot menu - the default runs in 5 seconds" \
        "[1] Leave the loader: the firmware goes on to its next boot option" \
        "[2] More choices..." \
        "[L] Linux from this volume" \
        "Loading Linux..." \
        "$KERNEL_CORRUPT_REPORT"
    check_volume "$esp"
}

# make_sample_esp DIR ESP: the sample document with stand-ins for its kernel.
make_sample_esp() {
    printf 'not a kernel\n' >"$1/vmlinuz"
    printf 'not a ramdisk\n' >"$1/initrd.img"
    make_loader_esp "$2" "$SAMPLE_DOCUMENT" || { fail "cannot make the ESP"; return 1; }
    mcopy -i "$2" "$1/vmlinuz" ::/vmlinuz && mcopy -i "$2" "$1/initrd.img" ::/initrd.img || { fail "cannot fill the ESP"; return 1; }
}

# The sample document again, with keys: 2 opens its nested menu before the
# delay runs out, and F10 (as the serial terminal sends it) leaves the loader.
scenario_sample_keys() {
    local dir=$1 esp=$1/esp.img
    make_sample_esp "$dir" "$esp" || return
    boot "$dir" console "$esp" \
        "[2] More choices..." '2' \
        "[Esc] Leave the loader" '\033[21~'
    check_run "$BOOT_STATUS" "$dir/console.txt" \
        "$STARTUP_LINE" \
        "Morvane boot menu - the default runs in 5 seconds" \
        "[1] Leave the loader: the firmware goes on to its next boot option" \
        "[2] More choices..." \
        "[L] Linux from this volume" \
        "More choices - press a key" \
        "[F10] Leave the loader as well" \
        "[Esc] Leave the loader"
}

# ---------------------------------------------------------------------------

scenario_log() {
    local file
    for file in "$1"/*.xml; do
        [ -f "$file" ] && { echo "== document $(basename "$file")"; cat "$file"; }
    done
    for file in "$1"/*.txt; do
        case $file in */first-boot.txt) continue ;; esac
        [ -f "$file" ] && { echo "== console $(basename "$file" .txt)"; cat "$file"; }
    done
    for file in "$1"/*.qemu.err; do
        [ -s "$file" ] && { echo "== QEMU errors $(basename "$file" .qemu.err)"; cat "$file"; }
    done
}

# A passed scenario's disks are of no further use.
scenario_cleanup() {
    [ "$2" != pass ] || rm -f "$1"/*.img "$1/vars.fd"
}

# The longest first, so that the two slots end close together.
run_scenarios document rename menu_keys missing_document truncated_text refused_menu truncated_bxml \
    menu_timeout sample_document sample_keys
