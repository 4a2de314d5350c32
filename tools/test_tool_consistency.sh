#!/bin/sh
# The tool as a whole: explain against the loader's table of codes, one
# version everywhere, help and usage errors per subcommand, and a variable
# file without boot entries.
set -u
tool="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# explain ARG NAME TEXT: the name and the loader's console text of a code,
# however the code is written.
explain() {
    "$tool" explain "$1" > "$work/out" 2>&1 || fail "explain $1 exited with $?: $(cat "$work/out")"
    grep -q "^$2: code " "$work/out" || fail "explain $1: no name $2: $(cat "$work/out")"
    grep -qF "console text: $3" "$work/out" || fail "explain $1: text: $(cat "$work/out")"
    grep -q "^usual cause: ." "$work/out" || fail "explain $1: no cause: $(cat "$work/out")"
}
explain 262161 FILE_NOT_FOUND "'El archivo especificado no existe.'"
explain 0x40011 FILE_NOT_FOUND "'El archivo especificado no existe.'"
explain file_not_found FILE_NOT_FOUND "'El archivo especificado no existe.'"
explain 0X1480002 KERNEL_CORRUPT "'El kernel está dañado.'"
explain 21495812 VIDEO_NOT_DETECTED "'NO fue posible detectar el modo de salida gráfica.'"
explain 1101838 DISK_NOT_FOUND "'No se pudo encontrar.'"
explain 0x7000B RESIZER_CORRUPT_FAT "'FAT corrupta'"
explain 21495817 BAD_CONFIGURATION "none"
explain 0x12F0008 UEFI_ENTRY_NOT_FOUND "none"
for unknown in 0 0x40012 262162 4294967297 FILE_NOT_FOUNDS 12abc -1; do
    "$tool" explain "$unknown" > "$work/out" 2> "$work/err"
    [ $? -eq 1 ] || fail "explain $unknown must exit with 1"
    [ -s "$work/out" ] && fail "explain $unknown printed a result: $(cat "$work/out")"
    grep -q "'$unknown' is no code" "$work/err" || fail "explain $unknown: $(cat "$work/err")"
done

# One version line everywhere.
"$tool" --version > "$work/version" || fail "--version exited with $?"
grep -qx 'morvane [0-9][0-9.]*' "$work/version" || fail "version line: $(cat "$work/version")"
for command in conf boot vars fs explain; do
    "$tool" $command --version > "$work/out" 2>&1 || fail "$command --version exited with $?"
    cmp -s "$work/out" "$work/version" || fail "$command --version: $(cat "$work/out")"
    # help COMMAND is COMMAND --help, and names the command.
    "$tool" help $command > "$work/help" 2>&1 || fail "help $command exited with $?"
    "$tool" $command --help > "$work/out" 2>&1
    cmp -s "$work/help" "$work/out" || fail "help $command differs from $command --help"
    grep -q "^Usage: morvane $command " "$work/help" || fail "help $command: $(head -1 "$work/help")"
done
"$tool" help nothing > "$work/out" 2>&1
[ $? -eq 2 ] || fail "help of an unknown command must exit with 2"

# A usage error shows the subcommand's own usage, not the tool's.
usage_error() {
    command="$1"
    shift
    "$tool" "$command" "$@" > "$work/out" 2> "$work/err"
    [ $? -eq 2 ] || fail "$command $*: must exit with 2"
    grep -q "^Usage: morvane $command " "$work/err" || fail "$command $*: no usage line: $(cat "$work/err")"
    grep -q "COMMAND \[ARGUMENTS\]" "$work/err" && fail "$command $*: the tool's usage instead"
    [ -s "$work/out" ] && fail "$command $*: usage error on stdout"
}
usage_error conf frobnicate x
usage_error boot --frobnicate
usage_error boot --esp "$work" --keys '{Nope}'
usage_error vars
usage_error fs image.img
usage_error explain

# Host files that cannot be opened name their cause.
"$tool" boot --esp "$work/missing" > /dev/null 2> "$work/err"
grep -q "No such file or directory" "$work/err" || fail "boot, missing ESP: $(cat "$work/err")"
: > "$work/file"
"$tool" boot --esp "$work/file" > /dev/null 2> "$work/err"
grep -q "Not a directory" "$work/err" || fail "boot, ESP that is a file: $(cat "$work/err")"

# A firmware's fresh variable file holds no boot entries, and says so.
vars=/usr/share/OVMF/OVMF_VARS_4M.fd
if [ -f "$vars" ]; then
    "$tool" vars "$vars" > "$work/out" 2>&1 || fail "vars exited with $?"
    grep -qx "no boot entries" "$work/out" || fail "empty variable file: $(cat "$work/out")"
fi

if [ "$failures" -eq 0 ]; then echo "tool consistency: all checks passed"; fi
[ "$failures" -eq 0 ]
