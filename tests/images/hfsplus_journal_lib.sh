# shellcheck shell=sh disable=SC2154
# What the HFS+ matrices share to put a pending transaction into a
# journaled volume's journal, sourced after matrix_start: the script sets
# build_dir (where hfs_journal_writer was built) and image. The
# transaction gives /hello.txt a new modification time in its catalog
# record (a node of the catalog) and rewrites the volume header's sector,
# with attribute bits of the caller's choice.

# be IMAGE OFFSET BYTES: the big-endian number there.
be() {
    od -An -v -tu1 -j "$2" -N "$3" "$1" | awk '{ for (i = 1; i <= NF; i++) v = v * 256 + $i } END { printf "%.0f\n", v }'
}

# The allocation block size, from the volume header 1,024 bytes in.
block_size() { be "$image" $((1024 + 40)) 4; }

# The time the transaction gives hello.txt. A journal carries metadata
# only, so file data stays where it is.
journaled_time='2020-02-02 02:02:02'
# Seconds from 1904 to 1970, the epoch of HFS+ dates.
mac_epoch=2082844800

# hex_bytes NUMBER BYTES: the number big-endian, as printf escapes.
hex_bytes() {
    for shift in $(seq $((8 * ($2 - 1))) -8 0); do printf '\\%03o' $(($1 >> shift & 255)); done
}

# put_number FILE OFFSET NUMBER BYTES: writes the number big-endian there.
put_number() {
    # shellcheck disable=SC2059
    printf "$(hex_bytes "$3" "$4")" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

# The catalog's file record of /hello.txt: its key (keyLength 24, parent 2,
# the name's length and UTF-16BE characters) followed by recordType 2.
# Sets catalog (the catalog file's bytes, one extent), node_size and
# record (the record's offset in that file).
find_hello_record() {
    block=$(block_size)
    [ "$(be "$image" $((1024 + 272 + 16 + 12)) 4)" -eq 0 ] || { echo "the catalog has more than one extent"; return 1; }
    catalog_start=$(( $(be "$image" $((1024 + 272 + 16)) 4) * block ))
    catalog="$work/catalog.bin"
    dd if="$image" of="$catalog" bs="$block" skip=$((catalog_start / block)) \
        count="$(be "$image" $((1024 + 272 + 20)) 4)" status=none
    node_size=$(be "$catalog" 32 2)
    key=$(LC_ALL=C grep -obUaP '\x00\x18\x00\x00\x00\x02\x00\x09\x00h\x00e\x00l\x00l\x00o\x00\.\x00t\x00x\x00t\x00\x02' "$catalog" | cut -d : -f 1)
    [ "$(echo "$key" | wc -w)" -eq 1 ] || { echo "no single catalog record of /hello.txt"; return 1; }
    record=$((key + 26))
}

# add_transaction BITS: the transaction, written by hfs_journal_writer
# (ours, from the published journal format): the catalog node and the
# volume header's sector, each as it will be, the header's attributes
# ORed with BITS. The software lock (bit 15, 0x8000) makes a driver that
# reads the header through the journal serve the volume read-only; 0
# leaves the volume writable.
add_transaction() {
    writer="$build_dir/hfs_journal_writer"
    [ -x "$writer" ] || { echo "no $writer"; return 1; }
    find_hello_record || return 1
    node=$((record / node_size))
    dd if="$catalog" of="$work/node.bin" bs="$node_size" skip="$node" count=1 status=none
    at=$((record - node * node_size))
    put_number "$work/node.bin" $((at + 16)) $(($(date -u -d "$journaled_time" +%s) + mac_epoch)) 4
    dd if="$image" of="$work/header.bin" bs=512 skip=2 count=1 status=none
    put_number "$work/header.bin" 4 $(($(be "$image" 1028 4) | $1)) 4
    "$writer" "$image" $(((catalog_start + node * node_size) / 512)):"$work/node.bin" 2:"$work/header.bin" || return 1
    rm -f "$work/node.bin" "$work/header.bin"
}
