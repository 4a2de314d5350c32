#!/bin/sh
# Refuses a linked image that the firmware would run wrongly:
#  - a dynamic relocation other than R_X86_64_RELATIVE (the image relocates
#    itself and silently ignores every other kind);
#  - an import (the firmware links nothing);
#  - a subsystem other than 10 (EFI application);
#  - a memory or string function that calls itself (the compiler turns
#    byte loops into calls of these very functions);
#  - an access below the stack pointer (the firmware's interrupt handlers
#    may use the stack below %rsp: there is no red zone).
set -eu
so="$1"
efi="$2"
fail() { echo "check_image: $*" >&2; rm -f "$efi"; exit 1; }

bad_relocations=$(readelf -rW "$so" | awk '/^[0-9a-f]+ / && $3 != "R_X86_64_RELATIVE"' || true)
[ -z "$bad_relocations" ] || fail "dynamic relocations other than R_X86_64_RELATIVE:
$bad_relocations"

headers=$(objdump -p "$efi")
echo "$headers" | grep -q '^Subsystem[[:space:]]*0000000a' || fail "subsystem is not 10 (EFI application)"
import_directory=$(echo "$headers" | awk '/^Entry 1 /{print $3 $4}')
echo "${import_directory:-0}" | grep -q '^0*$' || fail "the image has an import directory"
if echo "$headers" | grep -q 'The Import Tables'; then fail "the image has import tables"; fi

for function in memset memcpy memmove memcmp strlen; do
  if objdump -d --no-show-raw-insn "$so" | awk -v f="<$function>:" '$2 == f {inside=1; next} /^$/ {inside=0} inside' |
     grep -qE "(call|jmp)[[:space:]]+[0-9a-f]+ <$function>"; then
    fail "$function calls itself"
  fi
done

# An lea only computes an address (an array indexed from a biased base, for
# example) and touches no memory; every other operand below %rsp does.
red_zone=$(objdump -d --no-show-raw-insn "$so" | grep -E -- '-0x[0-9a-f]+\(%rsp[,)]' | grep -vE '[[:space:]]lea[[:space:]]' || true)
[ -z "$red_zone" ] || fail "accesses below the stack pointer (red zone):
$red_zone"
exit 0
