# What the tool's shell tests share: a scratch folder $work, removed at the
# end, failures counted, and a command's exit status and output checked.

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# expect STATUS DESCRIPTION COMMAND...: runs the command, keeps its output
# in $work/out and $work/err, and checks the exit status.
expect() {
    want=$1
    what=$2
    shift 2
    "$@" > "$work/out" 2> "$work/err"
    got=$?
    [ "$got" -eq "$want" ] || fail "$what: status $got, expected $want ($(head -3 "$work/err"))"
}
out_has() { grep -qF -- "$2" "$work/out" || fail "$1: no '$2' in: $(head -5 "$work/out")"; }
err_has() { grep -qF -- "$2" "$work/err" || fail "$1: no '$2' on stderr: $(head -3 "$work/err")"; }
out_is() { [ "$(cat "$work/out")" = "$2" ] || fail "$1: printed '$(head -5 "$work/out")', expected '$2'"; }
