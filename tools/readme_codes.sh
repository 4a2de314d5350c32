#!/bin/bash
# The README's table of the loader's codes, made from what `morvane explain
# --all` prints, so that the table shows the texts a machine really shows.
#
#   tools/readme_codes.sh MORVANE                   prints the table
#   tools/readme_codes.sh MORVANE --check README    exit 1 and a diff when the
#                                                   README's table differs
#   tools/readme_codes.sh MORVANE --update README   puts the table in place
#
# The table lies in the README between the two marker lines below.
set -u
BEGIN_MARK='<!-- codes: made by tools/readme_codes.sh, do not edit by hand -->'
END_MARK='<!-- end of codes -->'

if [ $# -ne 1 ] && [ $# -ne 3 ]; then
    echo "usage: $0 MORVANE [--check|--update README]" >&2
    exit 2
fi

# explain --all gives blocks of three lines ("NAME: code N (0xX)", "console
# text: ...", "usual cause: ...") and an empty line after each.
make_table() {
    local listing
    listing=$("$1" explain --all) || return 2
    printf '| Code | Name | Console text | Usual cause, what to do |\n|---|---|---|---|\n'
    awk '
        function cell(text) { gsub(/\|/, "\\|", text); return text }
        /^[A-Z0-9_]+: code [0-9]+ / { name = $1; sub(/:$/, "", name); code = $3; next }
        /^console text: / { text = substr($0, 15); next }
        /^usual cause: / {
            printf "| %s | %s | %s | %s |\n", code, name, cell(text), cell(substr($0, 14))
            rows++
        }
        END { if (rows == 0) exit 1 }
    ' <<<"$listing" || return 2
}

table=$(make_table "$1") || { echo "$0: $1 explain --all gave no codes" >&2; exit 2; }
if [ $# -eq 1 ]; then
    printf '%s\n' "$table"
    exit 0
fi
readme=$3
if ! grep -qxF "$BEGIN_MARK" "$readme" || ! grep -qxF "$END_MARK" "$readme"; then
    echo "$0: $readme has no marker lines for the table" >&2
    exit 2
fi
between() {
    awk -v b="$BEGIN_MARK" -v e="$END_MARK" '$0 == e { inside = 0 } inside { print } $0 == b { inside = 1 }' "$1"
}
case $2 in
--check)
    if ! diff -u <(between "$readme") <(printf '%s\n' "$table"); then
        echo "$0: the table of $readme is not what $1 explains; run $0 $1 --update $readme" >&2
        exit 1
    fi
    ;;
--update)
    new=$(awk -v b="$BEGIN_MARK" -v e="$END_MARK" -v t="$table" '
        $0 == e { print t; inside = 0 } !inside { print } $0 == b { inside = 1 }' "$readme") || exit 2
    printf '%s\n' "$new" >"$readme"
    ;;
*)
    echo "usage: $0 MORVANE [--check|--update README]" >&2
    exit 2
    ;;
esac
