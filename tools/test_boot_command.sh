#!/bin/sh
# The boot subcommand: the loader on a simulated machine, driven by keys,
# against the sample document and a synthetic kernel.
set -u
tool="$1"
examples="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

mkdir -p "$work/esp/EFI/BOOT"
cp "$examples/morvane.xml" "$work/esp/EFI/BOOT/BOOTX64.xml"
echo "first" > "$work/esp/EFI/BOOT/first-boot.txt"

# Keys after two seconds: "2" opens the nested menu, F10 leaves.
"$tool" boot --esp "$work/esp" --keys '{+2}2{F10}' > "$work/out" 2>&1 || fail "boot exited with $?"
grep -q '^More choices' "$work/out" || fail "the nested menu did not show: $(cat "$work/out")"
grep -q '^ended: returned 1; the firmware goes on' "$work/out" || fail "no ending line: $(cat "$work/out")"
grep -q 'simulated time 2.0 s' "$work/out" || fail "the keys did not come at 2 s: $(cat "$work/out")"
[ -f "$work/esp/EFI/BOOT/first-boot.done" ] || fail "the rename job did not run"

# The second boot finds the rename's source gone and reports it.
"$tool" boot --esp "$work/esp" > "$work/out" 2>&1
grep -q "^Runtime exception 'Error durante la apertura del archivo.', code 262151" "$work/out" || fail "second boot: $(cat "$work/out")"

# No keys and no time-out: the run ends waiting.
mkdir -p "$work/wait/EFI/BOOT"
printf '<R><Menu><Entry Key="a" Text="only"><Chainload/></Entry></Menu></R>' > "$work/wait/EFI/BOOT/BOOTX64.xml"
"$tool" boot --esp "$work/wait" > "$work/out" 2>&1
grep -q '^ended: waiting for a key that never comes' "$work/out" || fail "waiting: $(cat "$work/out")"

# Usage errors exit with 2.
"$tool" boot --esp "$work/esp" --keys '{Nope}' > "$work/out" 2>&1
[ $? -eq 2 ] || fail "an unknown key name must exit with 2"
"$tool" boot --esp "$work/missing" > "$work/out" 2>&1
[ $? -eq 2 ] || fail "a missing ESP folder must exit with 2"

if [ "$failures" -eq 0 ]; then echo "boot command: all checks passed"; fi
[ "$failures" -eq 0 ]
