#!/bin/sh
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The NTFS write matrix: one image per cluster size, made by mkntfs and
# given a small starting tree through ntfs-3g, then changed step by step
# through `morvane fs`: an empty file, one kept in its record, one just too
# large for it, a multi-megabyte one, a file kept in its record grown out of
# it, a directory whose index grows to three levels and shrinks again,
# renames within and across directories, renames over existing names, the
# file's own in another case among them (refused with FILE_EXISTS, the image
# byte-identical), hard
# links made and removed, a file written into so many holes that its runs
# need an attribute list, a volume filled until a copy is refused, and last
# the removal of everything made, after which the free clusters and the
# records in use must be as they began.
#
# The same steps change a host copy of the tree. After every step
# `ntfsfix -n` must find nothing, and what an ntfs-3g read-only mount shows
# and what `morvane fs cp-out` copies out must both equal that copy: names,
# kinds, sizes and SHA-256 of every file (times aside: the host copy's are
# its own).
#
#   ntfs_write_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
matrix=ntfs-write
matrix_start "$@"
. "$here/mirror_lib.sh"
mnt="$work/mnt"
mkdir "$mnt"
# A mount left behind by a failed step would keep the image busy.
trap 'umount "$mnt" 2>/dev/null; rm -rf "$work"' EXIT

columns='cluster size'
# name        cluster size-MiB
cases='
ntfs-c512     512     32
ntfs-c4k      4096    48
ntfs-c64k     65536   96
ntfs-4gib     65536   4200
'

# What ntfs-3g writes before our driver touches the volume: a file in the
# root and one in a directory, which the renames aim at.
start_tree() {
    mkdir "$1/old"
    printf 'hello\n' > "$1/hello.txt"
    printf 'a\n' > "$1/old/a.txt"
}

make_case_image() {
    rm -rf "$mirror"
    mkdir "$mirror"
    start_tree "$mirror"
    truncate -s "${size}M" "$image"
    mkntfs -F -f -q -s 512 -c "$cluster" -L "$case_name" "$image" >/dev/null 2>&1 || return 1
    ntfs-3g "$image" "$mnt" || return 1
    cp -r "$mirror/." "$mnt/"
    copied=$?
    umount "$mnt" || return 1
    return $copied
}

# ---- what ntfsinfo tells ----

volume_value() { ntfsinfo -m "$image" 2>/dev/null | sed -n "s/^[[:space:]]*$1: \([0-9]*\).*/\1/p" | head -1; }

inode() { ntfsinfo -F "$1" "$image" 2>/dev/null; }

inode_number() { inode "$1" | sed -n 's/^Dumping Inode \([0-9]*\).*/\1/p'; }

# The unnamed $DATA of PATH is resident (Yes) or not (No).
data_resident() {
    found=$(inode "$1" | awk '/^Dumping attribute/ { data = ($3 == "$DATA") }
                              data && /Attribute name:/ { data = 0 }
                              data && /Resident:/ { print $2; exit }')
    [ "$found" = "$2" ] || fail "after $3, the data of $1 is not resident=$2 but ${found:-missing}"
}

# set_bits: how many bits are set in the bytes read on standard input.
set_bits() {
    od -An -v -tu1 | awk '{ for (i = 1; i <= NF; i++) for (b = $i; b > 0; b = int(b / 2)) n += b % 2 }
                         END { print n + 0 }'
}

# Records of the MFT in use, by its $BITMAP.
records_in_use() { ntfscat -i 0 -a 0xB0 "$image" 2>/dev/null | set_bits; }

# Records past the first sixteen that hold extents of the MFT's own
# attributes: the MFT keeps them when the files that made it grow are gone.
mft_extension_records() {
    ntfsinfo -i 0 "$image" 2>/dev/null |
        sed -n 's/^Dumping attribute .* from mft record \([0-9]*\).*/\1/p' | sort -un | awk '$1 >= 16' | wc -l
}

# Index blocks of directory PATH in use, by the bitmap of its $I30 index.
index_blocks_in_use() { ntfscat -i "$(inode_number "$1")" -a 0xB0 -n '$I30' "$image" 2>/dev/null | set_bits; }

# Index blocks of directory PATH that point to further blocks: bit 0 of the
# flags of the index header (byte 0x24 of each block, which fixups leave
# alone) is set in a block that is not a leaf.
inner_index_blocks() {
    bytes=$(volume_value 'Index Block Size')
    ntfscat -a 0xA0 -n '$I30' -i "$(inode_number "$1")" "$image" 2>/dev/null |
        od -An -v -tu1 -w"$bytes" | awk '$1 == 73 && $2 == 78 && $3 == 68 && $4 == 88 && $37 % 2 == 1' | wc -l
}

# Clusters that the volume's own files hold: what $MFT, the root directory
# and $Secure have outside their records. Files come and go; these may
# grow and keep what they grew by.
metadata_clusters() {
    for number in 0 5 9; do ntfsinfo -i "$number" "$image" 2>/dev/null; done |
        awk -v cluster="$cluster" '/^Dumping attribute/ { outside = 0 }
            /Resident:[[:space:]]*No/ { outside = 1 }
            outside && /^[[:space:]]*Allocated size:/ { total += $3 / cluster; outside = 0 }
            END { print total + 0 }'
}

links_of() { inode "$1" | sed -n 's/^Number of Hard Links:[[:space:]]*\([0-9]*\).*/\1/p'; }

# ---- judging ----

# settled STEP: ntfsfix finds nothing to do, and ntfs-3g and our driver
# both read the volume as the host copy holds it.
settled() {
    ntfsfix -n "$image" > "$work/fix" 2>&1 || fail "ntfsfix -n after $1: $(tail -5 "$work/fix")"
    if grep -q -i -e 'error' -e 'corrupt' -e 'fixing' -e 'inconsisten' "$work/fix"; then
        fail "ntfsfix -n after $1: $(tail -5 "$work/fix")"
    fi
    timeless_manifest "$mirror" > "$work/expected.manifest"
    if ntfs-3g -o ro "$image" "$mnt" 2>"$work/err"; then
        timeless_manifest "$mnt" > "$work/theirs.manifest"
        umount "$mnt"
        same "after $1, ntfs-3g and the host copy" "$work/expected.manifest" "$work/theirs.manifest"
    else
        fail "ntfs-3g could not mount the volume after $1: $(head -3 "$work/err")"
    fi
    rm -rf "$work/ours"
    mkdir "$work/ours"
    : > "$work/cp.err"
    fs ls / 2>>"$work/cp.err" | sed 's#/$##' | while IFS= read -r name; do
        fs cp-out -r "/$name" "$work/ours/$name" 2>>"$work/cp.err"
    done
    [ ! -s "$work/cp.err" ] || fail "cp-out after $1: $(head -3 "$work/cp.err")"
    timeless_manifest "$work/ours" > "$work/ours.manifest"
    same "after $1, our driver and the host copy" "$work/expected.manifest" "$work/ours.manifest"
    rm -rf "$work/ours"
}

# writable_for_ntfs3g STEP: ntfs-3g mounts a copy of the volume read-write,
# which it refuses while the log asks for a replay, and writes to it.
writable_for_ntfs3g() {
    cp --sparse=always "$image" "$work/rw.img"
    if ntfs-3g "$work/rw.img" "$mnt" 2>"$work/err"; then
        echo written > "$mnt/by-ntfs-3g.txt" || fail "ntfs-3g could not write after $1"
        umount "$mnt"
    else
        fail "ntfs-3g could not mount the volume read-write after $1: $(head -3 "$work/err")"
    fi
    rm -f "$work/rw.img"
}

# ---- the steps ----

# Sizes either side of what a record keeps: empty, a few hundred bytes
# (in the record), just over a record (outside it), several megabytes;
# then the file kept in its record grown past it by a copy over it.
sized_files() {
    record=$(volume_value 'MFT Record Size')
    make_dirs /new
    settled "mkdir"
    put "$(host_file empty 0)" /new/empty
    settled "an empty file"
    put "$(host_file resident 300)" /new/resident.bin
    settled "a file of 300 bytes"
    data_resident /new/resident.bin Yes "a file of 300 bytes"
    put "$(host_file outside $((record + 24)))" /new/outside.bin
    settled "a file just over a record"
    data_resident /new/outside.bin No "a file just over a record"
    put "$(host_file big 5000000)" /new/big.bin
    settled "a file of 5 MB"
    put "$(host_file grown $((2 * record + 100)))" /new/resident.bin
    settled "a file grown out of its record"
    data_resident /new/resident.bin No "a file grown out of its record"
}

# Four hundred long names in one directory: more index blocks than the
# index root can point to, so that it takes a level between them. Then all
# but a few removed, and its index must give blocks back.
wide_directory() {
    make_dirs /wide
    names=
    for number in $(seq -w 1 400); do names="$names /wide/$(printf 'entry-%s-%0100d' "$number" 0)"; done
    # shellcheck disable=SC2086
    make_dirs $names
    for number in 1 2 3 4 5; do put "$work/resident" "/wide/file-$number-$(printf '%080d' 0)"; done
    settled "405 entries in one directory"
    inode /wide | grep -q 'Dumping attribute \$INDEX_ALLOCATION' || fail "/wide has no \$INDEX_ALLOCATION"
    [ "$(inner_index_blocks /wide)" -gt 0 ] || fail "the index of /wide has fewer than three levels"
    grown=$(index_blocks_in_use /wide)
    listed=$(fs ls /wide 2>/dev/null | wc -l)
    [ "$listed" -eq 405 ] || fail "ls /wide lists $listed entries, not 405"
    doomed=$(cd "$mirror" && find wide -mindepth 1 -maxdepth 1 -name 'entry-*' ! -name 'entry-0[0-9][0-4]-*' -printf '/%p ')
    # shellcheck disable=SC2086
    remove $doomed
    settled "removing most entries of a directory"
    shrunk=$(index_blocks_in_use /wide)
    [ "$shrunk" -lt "$grown" ] || fail "the index of /wide holds $shrunk blocks after removals, as many as before ($grown)"
}

# Renames within a directory and across, of a file and of a directory;
# renames over existing names, also a change of case alone, are refused
# with FILE_EXISTS and leave every byte as it was.
renames() {
    move /new/outside.bin "/new/renamed outside.bin"
    settled "a rename within a directory"
    move "/new/renamed outside.bin" "/new/$(printf 'long-%0250d' 0)"
    settled "a rename to a name of 255 characters"
    move /new/big.bin /wide
    settled "a move into another directory"
    move /new/empty /wide/moved-empty
    settled "a move and rename into another directory"
    make_dirs /new/inner
    put "$work/resident" /new/inner/kept.bin
    move /new/inner /wide
    settled "a move of a directory into another"
    keep_image
    code=0x40013
    attempt mv /hello.txt /old/a.txt
    attempt mv /wide/big.bin /new/resident.bin
    attempt mv /new /hello.txt
    attempt mv /wide/inner /new/resident.bin
    # The name in another case is the file's own, and taken all the same.
    attempt mv /new/resident.bin /new/Resident.BIN
    image_unchanged "a rename over an existing name"
}

# A file linked under three names in two directories, then unlinked one
# name at a time: the record must count its names, and the last removal
# free it.
hard_links() {
    make_dirs /links
    put "$(host_file linked 5000)" /links/one
    link /links/one /links/two
    link /links/two /new/three
    settled "two hard links made"
    [ "$(links_of /new/three)" = 3 ] || fail "a file of three names counts $(links_of /new/three) links"
    remove /links/one
    settled "a hard link removed"
    [ "$(links_of /links/two)" = 2 ] || fail "after one name went, $(links_of /links/two) links are counted, not 2"
    remove /links/two /new/three /links
    settled "the last hard links removed"
}

# Small files side by side, every other one removed, and then a file of
# the size of the holes copied in: its run list no longer fits its record,
# and the record takes an attribute list and extension records.
fragmented_file() {
    record=$(volume_value 'MFT Record Size')
    piece=$cluster
    [ "$piece" -gt $((record / 2)) ] || piece=$((2 * record))
    head -c "$piece" /dev/urandom > "$work/piece"
    make_dirs /frag
    for number in $(seq -w 1 700); do
        fs cp-in "$work/piece" "/frag/p$number" 2>"$work/err" || fail "cp-in /frag/p$number: $(cat "$work/err")"
        cp "$work/piece" "$mirror/frag/p$number"
    done
    odd=$(cd "$mirror" && find frag -name 'p*[13579]' -printf '/%p ')
    # shellcheck disable=SC2086
    remove $odd
    put "$(host_file fragmented $((350 * piece)))" /frag/fragmented.bin
    settled "a file written into 350 holes"
    inode /frag/fragmented.bin | grep -q 'Dumping attribute \$ATTRIBUTE_LIST' ||
        fail "a file of 350 runs has no attribute list"
    paths=$(cd "$mirror" && find frag -depth -printf '/%p ')
    # shellcheck disable=SC2086
    remove $paths
    settled "removing a file with an attribute list"
}

# One file over nearly every free cluster, the rest by files of two
# clusters until a copy is refused; then one removed and a copy made again.
fill_volume() {
    make_dirs /full
    free=$(volume_value 'Free Clusters')
    put "$(host_file filler $(((free - 48) * cluster)))" /full/filler.bin
    settled "a file over most of the volume"
    count=0
    head -c $((2 * cluster)) /dev/urandom > "$work/chaff"
    : > "$work/err"
    while [ $count -lt 200 ]; do
        count=$((count + 1))
        chaff=$(printf '/full/c%03d' $count)
        fs cp-in "$work/chaff" "$chaff" 2>"$work/err" || break
        cp "$work/chaff" "$mirror$chaff"
    done
    [ $count -gt 4 ] || fail "the volume took only $count small files: $(cat "$work/err")"
    grep -q -e 'FILE_DISK_FULL' -e 'fewer bytes' "$work/err" || fail "the copy onto a full volume: $(cat "$work/err")"
    # A refused copy may leave a name behind: what the volume shows is
    # then taken for the mirror's, and judged by ntfsfix and ntfs-3g alike.
    if fs stat "$chaff" >/dev/null 2>&1; then fs cp-out "$chaff" "$mirror$chaff" 2>/dev/null; fi
    settled "a copy refused on a full volume"
    remove /full/c001
    put "$(host_file one-cluster "$cluster")" /full/again
    settled "a copy after a removal on a full volume"
}

# Everything our driver made, removed: the records in use and the free
# clusters must be as they began, but for what the volume's own files grew
# by (the MFT keeps the records it added and the extension records that
# name them, the root its index blocks).
remove_everything() {
    keep_image
    if fs rm /wide > "$work/out" 2>&1; then fail "rm of a directory that holds entries was not refused"; fi
    image_unchanged "a refused rm"
    for top in wide new full; do
        paths=$(cd "$mirror" && find "$top" -depth -printf '/%p ')
        # shellcheck disable=SC2086
        remove $paths
        settled "removing /$top"
    done
    records=$(($(records_in_use) - $(mft_extension_records) + extensions_at_start))
    [ "$records" -eq "$records_at_start" ] ||
        fail "after removing everything, $records records are in use beside the MFT's own, $records_at_start at the start"
    free=$(volume_value 'Free Clusters')
    grown=$(($(metadata_clusters) - metadata_at_start))
    [ $((free + grown)) -eq "$free_at_start" ] ||
        fail "after removing everything, $free clusters are free and the volume's files grew by $grown; $free_at_start were free at the start"
}

# A file written across 4 GiB, whose sizes no longer fit 32 bits: most of
# it zeros from a sparse host file (the volume stores them all the same),
# its last MiB random. Judged without reading 4 GiB back: the sizes that
# ntfsinfo and both mounts tell, the tail that ntfs-3g reads by a seek, and
# ntfsfix; then its removal gives every cluster back.
beyond_4gib() {
    free_at_start=$(volume_value 'Free Clusters')
    head -c 1048576 /dev/urandom > "$work/tail"
    truncate -s 4G "$work/huge"
    cat "$work/tail" >> "$work/huge"
    size=$((4 * 1024 * 1024 * 1024 + 1048576))
    fs cp-in "$work/huge" /huge.bin 2>"$work/err" || fail "cp-in of 4 GiB + 1 MiB: $(cat "$work/err")"
    rm -f "$work/huge"
    ntfsfix -n "$image" > "$work/fix" 2>&1 || fail "ntfsfix -n after a file across 4 GiB: $(tail -5 "$work/fix")"
    inode /huge.bin | grep -q "Data size:[[:space:]]*$size " || fail "ntfsinfo tells another data size than $size"
    fs stat /huge.bin > "$work/out" 2>&1
    grep -q "$size" "$work/out" || fail "our stat of a file across 4 GiB: $(head -5 "$work/out")"
    if ntfs-3g -o ro "$image" "$mnt" 2>"$work/err"; then
        [ "$(stat -c %s "$mnt/huge.bin")" = "$size" ] || fail "ntfs-3g tells another size than $size"
        tail -c 1048576 "$mnt/huge.bin" | cmp -s - "$work/tail" || fail "ntfs-3g reads another last MiB"
        umount "$mnt"
    else
        fail "ntfs-3g could not mount the volume with a file across 4 GiB: $(head -3 "$work/err")"
    fi
    fs rm /huge.bin 2>"$work/err" || fail "rm of a file across 4 GiB: $(cat "$work/err")"
    [ "$(volume_value 'Free Clusters')" -eq "$free_at_start" ] || fail "the removal of a file across 4 GiB kept clusters"
}

check_case() {
    [ "$(volume_value 'Cluster Size')" = "$cluster" ] || fail "the clusters are not of $cluster bytes"
    if [ "$case_name" = ntfs-4gib ]; then
        beyond_4gib
        return
    fi
    settled "making the image"
    records_at_start=$(records_in_use)
    extensions_at_start=$(mft_extension_records)
    free_at_start=$(volume_value 'Free Clusters')
    metadata_at_start=$(metadata_clusters)
    sized_files
    writable_for_ntfs3g "the first files"
    wide_directory
    renames
    hard_links
    fragmented_file
    fill_volume
    remove_everything
}

run_matrix
