#!/bin/sh
# The firmware image's guard must refuse what the firmware would run wrongly,
# and accept the image the build made. Usage: image_checks_test.sh BUILD_DIR
set -eu
build="$1"
here="$(cd "$(dirname "$0")" && pwd)"
check="$here/../../platform/efi/check_image.sh"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
passed=0
failed=0
expect() {  # expect accept|refuse NAME SO
  cp "$build/morvane.efi" "$work/candidate.efi"
  if "$check" "$3" "$work/candidate.efi" 2>"$work/why"; then outcome=accept; else outcome=refuse; fi
  if [ "$outcome" = "$1" ]; then passed=$((passed + 1)); else
    failed=$((failed + 1)); echo "FAIL: $2: expected $1, got $outcome"; cat "$work/why"; fi
}

# A leaf function that keeps its locals below the stack pointer.
printf 'int leaf(int i) { volatile int a[8]; for (int j = 0; j < 8; ++j) a[j] = i + j; return a[i & 7]; }\n' > "$work/red_zone.c"
gcc -O2 -fpic -shared -nostdlib -o "$work/red_zone.so" "$work/red_zone.c"
expect refuse "red-zone access" "$work/red_zone.so"

# A symbol relocation, which the image's self-relocation would ignore.
printf 'extern int elsewhere; int *p = &elsewhere;\n' > "$work/symbol_reloc.c"
gcc -O2 -fpic -mno-red-zone -shared -nostdlib -o "$work/symbol_reloc.so" "$work/symbol_reloc.c"
expect refuse "symbol relocation" "$work/symbol_reloc.so"

# A memset whose byte loop the compiler turned into a call of memset.
printf 'typedef unsigned long size_t; void *memset(void *d, int v, size_t n) { unsigned char *p = d; while (n--) *p++ = (unsigned char)v; return d; }\n' > "$work/memset.c"
gcc -O2 -fpic -mno-red-zone -shared -nostdlib -Wl,-Bsymbolic -o "$work/memset.so" "$work/memset.c"
expect refuse "self-calling memset" "$work/memset.so"

expect accept "the built image" "$build/morvane.so"

headers=$(objdump -p "$build/morvane.efi")
if echo "$headers" | grep -q '^Subsystem[[:space:]]*0000000a[[:space:]]*(EFI application)' &&
   echo "$headers" | grep -q '^Magic[[:space:]]*020b[[:space:]]*(PE32+)' &&
   echo "$headers" | grep -q '^Entry 1 0000000000000000 00000000 Import Directory'; then
  passed=$((passed + 1))
else
  failed=$((failed + 1)); echo "FAIL: morvane.efi is not a PE32+ EFI application without imports"
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
