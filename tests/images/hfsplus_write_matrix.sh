#!/bin/sh
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The HFS+ write matrix: one volume per row, made by mkfs.hfsplus (plain,
# journaled, HFSX, small blocks, and inside a GPT partition made by
# sgdisk), or filled by the Linux hfsplus driver in the QEMU guest and
# given a pending journal transaction; then changed step by step through
# `morvane fs`: empty and multi-megabyte files, names that differ in case
# alone (two entries on HFSX, refused elsewhere), a folder filled until the
# catalog grows index levels and emptied until it shrinks, renames and
# moves (over a taken name, and of a folder that holds entries, refused),
# hard links made and removed, a volume filled until a copy is refused, a
# copy after one removal, a file written into so many
# holes that its extents spill into the overflow tree, and last the removal
# of everything, after which the free blocks are as they began but for
# what the volume's own trees grew by. On the journal row the first write
# replays the pending transaction, and both its change and the new file
# must show.
#
# The same steps change a host copy of the tree. After every step
# fsck.hfsplus -fn must find nothing, and what sleuthkit's fls and icat
# read (where they can walk the volume: not past the Linux driver's hard
# links) and what `morvane fs cp-out` copies out must both equal that
# copy: names, kinds, sizes and SHA-256 of every file. Twice a row, with
# the volume full of what the steps made and at its end, the volume is
# kept; after the last row one boot of the guest mounts every kept volume
# with the Linux driver, whose reading must equal the host copy too.
#
#   hfsplus_write_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
#
# The guest's volumes and kernel are looked for beside TOOL (the build folder).
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
matrix=hfsplus-write
matrix_start "$@"
. "$here/mirror_lib.sh"
build_dir=$(cd "$(dirname "$tool")" && pwd)
. "$here/hfsplus_journal_lib.sh"
kept="$work/kept"
mkdir "$kept"

# mkfs: mkfs.hfsplus options, ':' standing for a space ("-" for none), or
# guest (the guest's journaled volume). layout: volume (the image is the
# volume), gpt (partition 1 of a GPT disk), pending (a transaction waits
# in the journal).
columns='mkfs block size layout'
# name           mkfs    block size-MiB layout
cases='
plain            -       4096  32       volume
journaled        -J      4096  128      volume
hfsx             -s      4096  32       volume
small-blocks     -       512   32       volume
gpt              -       4096  32       gpt
journal-pending  guest   4096  128      pending
'
# mkfs.hfsplus gives a volume under 128 MiB a journal of 512 KiB, smaller
# than the driver takes; from 128 MiB on the journal is of 8 MiB.

# Where the driver answers otherwise than a user might guess, the matrix
# holds it to its own rules: a file that finds no blocks to grow by is
# refused with FILE_WRITE; a flush with no block free stores the block
# count as the next allocation, which fsck.hfsplus calls a minor repair;
# a change by name first stamps its folder's access date (and so the
# volume headers), so that a refused one leaves the tree as it was, not
# every byte; and only empty folders move to another folder.

# ---- the volume, wherever it lies ----

# For a GPT row `morvane fs` is given partition 1 of the disk; the
# independent tools are given the partition's bytes (volume_file) or its
# offset.
fs() {
    # shellcheck disable=SC2086
    "$tool" fs $fs_options "$image$suffix" "$@"
}

volume_file() {
    if [ "$layout" = gpt ]; then
        dd if="$image" of="$work/partition.img" bs=512 skip="$first_sector" count="$sectors" status=none
        echo "$work/partition.img"
    else
        echo "$image"
    fi
}

# header OFFSET BYTES: a big-endian field of the volume header.
header() { be "$image" $((first_sector * 512 + 1024 + $1)) "$2"; }

free_blocks() { header 48 4; }
volume_block() { header 40 4; }

# tree_header FORK FIELD BYTES: a field of the header record of the B-tree
# whose fork data lies at FORK in the volume header (extents 192, catalog
# 272, attributes 352), in the first node of its first extent: treeDepth
# at 14, leafRecords at 20, behind the 14-byte node descriptor.
tree_header() {
    start=$(header $(($1 + 16)) 4)
    if [ "$start" -eq 0 ]; then echo 0; else
        be "$image" $((first_sector * 512 + start * $(volume_block) + 14 + $2)) "$3"
    fi
}

catalog_depth() { tree_header 272 0 2; }
overflow_records() { tree_header 192 6 4; }

# Blocks that the volume's own trees hold (totalBlocks of the extents,
# catalog and attributes forks): they grow with what they keep and keep
# what they grew by.
tree_blocks() { echo $(($(header $((192 + 12)) 4) + $(header $((272 + 12)) 4) + $(header $((352 + 12)) 4))); }

# ---- making the volumes ----

guest_images=
guest_volume() {
    if [ -z "$guest_images" ]; then
        guest_images=$("$here/hfsplus_guest/make_images.sh" "$build_dir" | tail -n 1)
        [ -f "$guest_images/complete" ] || { echo "the guest made no volumes" >&2; guest_images=; return 1; }
    fi
    cp --sparse=always "$guest_images/journaled.img" "$image" || return 1
    tar -x --warning=no-timestamp -f "$guest_images/journaled.tar" -C "$mirror"
}

# The GPT disk: its partition made by sgdisk, the volume by mkfs.hfsplus
# on the partition's bytes, put back in place. What lies outside the
# partition is summed, to be found unchanged at the end.
make_gpt_volume() {
    "$here/make_gpt_disk.sh" "$image" $((size + 2)) "$size:5A1E4E3D-0C2B-4A19-8F6E-7D5C4B3A2918" > "$work/layout" ||
        return 1
    read -r _ first_sector last_sector < "$work/layout"
    sectors=$((last_sector - first_sector + 1))
    suffix=:1
    truncate -s $((sectors * 512)) "$work/partition.img"
    # shellcheck disable=SC2086
    mkfs.hfsplus -v "$case_name" -b "$block" $options "$work/partition.img" > "$work/mkfs.log" 2>&1 || return 1
    dd if="$work/partition.img" of="$image" bs=512 seek="$first_sector" conv=notrunc status=none
    outside_sum=$(outside_partition | sha256sum)
}

outside_partition() {
    head -c $((first_sector * 512)) "$image"
    tail -c +$(((last_sector + 1) * 512 + 1)) "$image"
}

make_case_image() {
    rm -rf "$mirror"
    mkdir "$mirror"
    first_sector=0
    suffix=
    options=
    [ "$mkfs" = - ] || options=$(echo "$mkfs" | tr : ' ')
    case $layout in
        gpt) make_gpt_volume || return 1 ;;
        pending) guest_volume || return 1
                 add_transaction 0 > "$work/err" 2>&1 || { cat "$work/err"; return 1; } ;;
        *) truncate -s "${size}M" "$image"
           # shellcheck disable=SC2086
           mkfs.hfsplus -v "$case_name" -b "$block" $options "$image" > "$work/mkfs.log" 2>&1 ||
               { cat "$work/mkfs.log"; return 1; } ;;
    esac
    # mkfs.hfsplus leaves the root of an HFSX volume without the flag that
    # says it counts its folders, which fsck.hfsplus asks for on HFSX: it
    # puts it in before our driver sees the volume.
    [ "$mkfs" != -s ] || fsck.hfsplus -fy "$image" > /dev/null 2>&1
}

# ---- judging ----

# Names are compared composed: the volume keeps them decomposed, as our
# driver shows them, and the host copy holds them as the Linux driver
# composed them.
composed() { python3 -c 'import sys, unicodedata; sys.stdout.write(unicodedata.normalize("NFC", sys.stdin.read()))'; }

# fsck.hfsplus -fn finds nothing; on a full volume, nothing but the next
# allocation at the block count.
fsck_clean() {
    fsck.hfsplus -fn "$(volume_file)" > "$work/fsck" 2>&1 && return 0
    grep -v -e '^\*\*' -e 'Executing fsck' -e 'The volume name is' "$work/fsck" > "$work/fsck.found"
    if [ "$(free_blocks)" -eq 0 ] && grep -q '^(2, 0)$' "$work/fsck.found"; then
        explained 'Volume header needs minor repair' '(2, 0)'
    fi
    [ -s "$work/fsck.found" ] || return 0
    fail "fsck.hfsplus -fn after $1: $(head -8 "$work/fsck.found")"
}

# explained TEXT...: lines of fsck.hfsplus's findings that hold a TEXT are
# taken as told.
explained() {
    for text in "$@"; do
        grep -v -F -e "$text" "$work/fsck.found" > "$work/fsck.left"
        mv "$work/fsck.left" "$work/fsck.found"
    done
}

# refused_settled WHAT: the refused changes left the tree as it was.
refused_settled() { settled "$1"; }

# The journal's files in the root: the Linux driver shows them, our
# driver hides them.
without_hidden() { grep -v -E '^[dfl] (\.journal|\.journal_info_block)( |$)'; }

# What fls lists, read by icat into DIR: the volume's own files ($...),
# the journal's and the private folder's entries left out.
copy_fls_tree() {
    fls -f hfs -r -p -o "$first_sector" "$image" > "$work/fls" 2>"$work/fls.err" || return 1
    tab=$(printf '\t')
    while IFS="$tab" read -r kind_inode path; do
        kind=${kind_inode%% *}
        inode=${kind_inode##* }
        inode=${inode%:}
        case $path in \$*|.journal|.journal_info_block|^^^^HFS+\ Private\ Data*) continue ;; esac
        case $kind in
            d/d) mkdir -p "$1/$path" ;;
            r/r) icat -f hfs -o "$first_sector" "$image" "$inode" > "$1/$path" || return 1 ;;
            *) fail "fls shows $path as $kind" ;;
        esac
    done < "$work/fls"
}

# settled STEP: fsck.hfsplus finds nothing, and sleuthkit (where it can
# walk the volume) and our driver read it as the host copy holds it.
settled() {
    fsck_clean "$1"
    timeless_manifest "$mirror" | without_hidden | composed > "$work/expected.manifest"
    if [ "$layout" != pending ]; then
        rm -rf "$work/theirs" && mkdir "$work/theirs"
        if copy_fls_tree "$work/theirs"; then
            timeless_manifest "$work/theirs" | composed > "$work/theirs.manifest"
            same "after $1, sleuthkit and the host copy" "$work/expected.manifest" "$work/theirs.manifest"
        else
            fail "sleuthkit could not read the volume after $1: $(head -3 "$work/fls.err")"
        fi
        rm -rf "$work/theirs"
    fi
    rm -rf "$work/ours" && mkdir "$work/ours"
    : > "$work/cp.err"
    fs ls / 2>>"$work/cp.err" | sed 's#/$##' > "$work/names"
    while IFS= read -r name; do
        fs cp-out -r "/$name" "$work/ours/$name" 2>>"$work/cp.err"
    done < "$work/names"
    [ ! -s "$work/cp.err" ] || fail "cp-out after $1: $(head -3 "$work/cp.err")"
    timeless_manifest "$work/ours" | composed > "$work/ours.manifest"
    same "after $1, our driver and the host copy" "$work/expected.manifest" "$work/ours.manifest"
    rm -rf "$work/ours"
}

# keep WHEN: the volume and the host copy's manifest, for the guest.
keep() {
    cp --sparse=always "$(volume_file)" "$kept/$case_name-$1.img"
    timeless_manifest "$mirror" | without_hidden | composed > "$kept/$case_name-$1.expected"
}

# ---- the steps ----

# An empty file, one of a few bytes, and multi-megabyte ones; the small
# file then replaced by a larger copy.
sized_files() {
    make_dirs /new
    settled "mkdir"
    put "$(host_file empty 0)" /new/empty
    settled "an empty file"
    put "$(host_file small 300)" /new/small.bin
    settled "a file of 300 bytes"
    put "$(host_file big 5000000)" /new/big.bin
    settled "a file of 5 MB"
    put "$(host_file bigger 3000000)" /new/small.bin
    settled "a file of 300 bytes copied over by 3 MB"
}

# Names that differ in case alone: two folders and two files on HFSX; on
# HFS+ the second name is the first's, and refused.
case_names() {
    if [ "$mkfs" = -s ]; then
        make_dirs /DOCS /docs
        put "$work/small" /DOCS/readme
        put "$work/empty" /docs/README
        put "$work/small" /docs/readme
        settled "names that differ in case alone"
        listed=$(fs ls /docs | tr '\n' ' ')
        [ "$listed" = "README readme " ] || fail "ls /docs lists '$listed', not 'README readme '"
    else
        make_dirs /DOCS
        put "$work/small" /DOCS/readme
        code=0x4000A
        attempt mkdir /docs
        code=0x40013
        attempt mv /new/empty /DOCS/README
        refused_settled "a name taken in another case"
        settled "a name taken in another case refused"
    fi
}

# Four hundred folders of long names in one folder: the catalog grows
# index levels above its leaves. Then all but five removed, and it must
# lose levels again.
wide_directory() {
    before=$(catalog_depth)
    make_dirs /wide
    names=
    for number in $(seq -w 1 400); do names="$names /wide/$(printf 'entry-%s-%0200d' "$number" 0)"; done
    # shellcheck disable=SC2086
    make_dirs $names
    put "$work/small" "/wide/file-$(printf '%0200d' 0)"
    settled "401 entries in one folder"
    grown=$(catalog_depth)
    [ "$grown" -ge 3 ] || fail "the catalog is $grown levels deep after 401 entries, not 3"
    listed=$(fs ls /wide 2>/dev/null | wc -l)
    [ "$listed" -eq 401 ] || fail "ls /wide lists $listed entries, not 401"
    doomed=$(cd "$mirror" && find wide -mindepth 1 -maxdepth 1 -name 'entry-*' ! -name 'entry-00[1-5]-*' -printf '/%p ')
    # shellcheck disable=SC2086
    remove $doomed
    settled "removing most entries of a folder"
    shrunk=$(catalog_depth)
    [ "$shrunk" -lt "$grown" ] || fail "the catalog is still $shrunk levels deep after the removals"
    depths="$before -> $grown -> $shrunk"
}

# Renames within a folder and across, of a file and of a folder; a rename
# over a taken name is refused and leaves every byte as it was.
renames() {
    move /new/big.bin "/new/renamed big.bin"
    settled "a rename within a folder"
    move "/new/renamed big.bin" "/new/$(printf 'long-%0250d' 0)"
    settled "a rename to a name of 255 characters"
    move /new/small.bin /wide
    settled "a move into another folder"
    move /new/empty /wide/moved-empty
    settled "a move and rename into another folder"
    make_dirs /new/inner
    put "$work/small" /new/inner/kept.bin
    code=0x40009
    attempt mv /new/inner /wide
    settled "a folder that holds entries refused a move into another"
    make_dirs /new/bare
    move /new/bare /wide
    settled "a move of an empty folder into another"
    code=0x40013
    attempt mv /wide/small.bin /wide/moved-empty
    attempt mv /wide/bare /wide/small.bin
    refused_settled "a rename over a taken name"
}

# links_of PATH: the link count that istat tells of the file that fls
# listed at PATH in the last step.
links_of() {
    inode=$(awk -F '\t' -v path="${1#/}" '$2 == path { split($1, kind, " "); sub(":", "", kind[2]); print kind[2] }' "$work/fls")
    istat -f hfs -o "$first_sector" "$image" "$inode" 2>/dev/null | sed -n 's/^Link count:[[:space:]]*//p'
}

# A file linked under three names in two folders; the names go one at a
# time in unlink_all.
link_all() {
    make_dirs /hard
    put "$(host_file linked 5000)" /hard/one
    link /hard/one /hard/two
    link /hard/two /new/three
    settled "two hard links made"
    [ "$layout" = pending ] || [ "$(links_of /new/three)" = 3 ] ||
        fail "a file of three names counts $(links_of /new/three) links"
}

unlink_all() {
    remove /hard/one
    settled "a hard link removed"
    [ "$layout" = pending ] || [ "$(links_of /hard/two)" = 2 ] ||
        fail "after one name went, $(links_of /hard/two) links are counted, not 2"
    fs cat /new/three 2>/dev/null | cmp -s - "$work/linked" || fail "a hard link reads otherwise after one name went"
    remove /hard/two /new/three /hard
    settled "the last hard links removed"
}

# One file over most of the free blocks, then files of one block until a
# copy is refused as the volume is full; one removed, and a copy made
# again. The steps with the large file in place are read back once: its
# bytes are many. Then every other small file removed and a file of the holes'
# size copied in: its extents past the eighth go to the overflow tree.
# The large file goes last, so that what the guest reads stays small.
fill_and_fragment() {
    block=$(volume_block)
    make_dirs /full
    put "$(host_file filler $(($(free_blocks) * block - 120 * block)))" /full/filler.bin
    fsck_clean "a file over most of the volume"
    head -c "$block" /dev/urandom > "$work/piece"
    count=0
    : > "$work/err"
    while [ $count -lt 1000 ]; do
        count=$((count + 1))
        piece=$(printf '/full/p%04d' $count)
        fs cp-in "$work/piece" "$piece" 2>"$work/err" || break
        cp "$work/piece" "$mirror$piece"
    done
    [ $count -gt 40 ] || fail "the volume took only $count files of one block: $(cat "$work/err")"
    grep -q FILE_WRITE "$work/err" || fail "the copy onto a full volume: $(cat "$work/err")"
    # A refused copy may leave its name behind, which then is the mirror's.
    if fs stat "$piece" >/dev/null 2>&1; then fs cp-out "$piece" "$mirror$piece" 2>/dev/null; fi
    settled "a copy refused on a full volume"
    remove /full/p0001
    put "$work/piece" /full/again
    fsck_clean "a copy after a removal on a full volume"
    holes=$(cd "$mirror" && find full -name 'p*[13579]' -printf '/%p ')
    # shellcheck disable=SC2086
    remove $holes
    # A few blocks to spare for the catalog's records of the new file.
    put "$(host_file fragmented $((($(echo "$holes" | wc -w) - 8) * block)))" /full/fragmented.bin
    settled "a file written into holes"
    [ "$(overflow_records)" -gt 0 ] || fail "a file written into holes has no extents in the overflow tree"
    remove /full/filler.bin
    settled "the large file removed"
}

# Everything made, removed: the free blocks must be as they began, but for
# what the trees grew by, the overflow tree as empty as it began; the
# catalog's depth is told.
remove_everything() {
    code=0x40008
    attempt rm /wide
    refused_settled "a refused rm"
    for top in wide new full DOCS docs; do
        [ -d "$mirror/$top" ] || continue
        paths=$(cd "$mirror" && find "$top" -depth -printf '/%p ')
        # shellcheck disable=SC2086
        remove $paths
        settled "removing /$top"
    done
    [ "$(overflow_records)" -eq "$overflow_at_start" ] ||
        fail "the overflow tree holds $(overflow_records) records after the removals, $overflow_at_start at the start"
    grown=$(($(tree_blocks) - trees_at_start))
    [ $(($(free_blocks) + grown)) -eq "$free_at_start" ] ||
        fail "after removing everything, $(free_blocks) blocks are free and the trees grew by $grown; $free_at_start were free at the start"
    echo "case $case_name: catalog depth $depths -> $(catalog_depth) at the end, trees grown by $grown blocks"
}

# After everything went, a file and a folder made again: the volume the
# guest reads last.
write_again() {
    make_dirs /after
    put "$(host_file after 70000)" /after/again.bin
    settled "a file after removing everything"
}

# The journal row: the first write replays the transaction, fsck.hfsplus
# (which replays no journal) finds the journal empty and the volume
# sound, and both the replayed time of hello.txt and the new file show.
first_write() {
    put "$(host_file first 12345)" /first.bin
    settled "the first write"
    expected=$(date -u -d "$journaled_time" '+%Y-%m-%d %H:%M:%S')
    fs stat /hello.txt > "$work/stat" 2>&1
    grep -q "^modified: *$expected" "$work/stat" || fail "hello.txt is not of the replayed time: $(grep modified "$work/stat")"
    touch -d "$journaled_time" "$mirror/hello.txt"
}

# ---- the guest's reading ----

# The rows this run makes; the guest boots after the last of them.
last_row() {
    last=
    for name in $(echo "$cases" | awk 'NF { print $1 }'); do
        case_name=$name
        if wanted; then last=$name; fi
    done
    case_name=-
    echo "$last"
}

# Every kept volume mounted by the Linux driver in one boot: its tree must
# equal the host copy's at the time it was kept; on the journal row,
# hello.txt has the replayed time.
guest_reading() {
    set -- "$kept"/*.img
    [ -f "$1" ] || return
    if ! "$here/hfsplus_guest/make_images.sh" --read-back "$build_dir" "$kept/read" "$@" > "$work/guest.log" 2>&1; then
        fail "the guest could not read the volumes: $(tail -5 "$work/guest.log"; cat "$kept/read/read.log" 2>/dev/null)"
    fi
    for volume in "$@"; do
        name=$(basename "$volume" .img)
        [ -f "$kept/read/$name.manifest" ] || { fail "the guest read nothing of $name"; continue; }
        sed -E 's/^(f .* [0-9]+) -?[0-9]+ ([0-9a-f]{64})$/\1 \2/' "$kept/read/$name.manifest" | without_hidden |
            composed > "$work/guest.manifest"
        same "the Linux driver's reading of $name and the host copy" "$kept/$name.expected" "$work/guest.manifest"
        case $name in
            journal-pending-*)
                grep -q "^f hello.txt 6 $(date -u -d "$journaled_time" +%s) " "$kept/read/$name.manifest" ||
                    fail "the Linux driver reads hello.txt of $name without the replayed time" ;;
        esac
    done
    echo "guest: $# volumes read back"
}

# ---- the rows ----

check_case() {
    row_started=$(date +%s)
    [ "$(volume_block)" -eq "$block" ] || fail "the blocks are not of $block bytes"
    if [ "$layout" = pending ]; then
        first_write
    else
        settled "making the image"
    fi
    free_at_start=$(free_blocks)
    trees_at_start=$(tree_blocks)
    overflow_at_start=$(overflow_records)
    depths=$(catalog_depth)
    sized_files
    if [ "$layout" = pending ]; then
        link_all
        keep full
        unlink_all
        remove /new/small.bin /new/big.bin /new/empty /new
        settled "removing what was made"
        [ "$(free_blocks)" -eq "$free_at_start" ] || fail "after removing what was made, $(free_blocks) blocks are free, not $free_at_start"
    else
        case_names
        wide_directory
        renames
        link_all
        fill_and_fragment
        keep full
        unlink_all
        remove_everything
        write_again
    fi
    keep end
    if [ "$layout" = gpt ]; then
        [ "$(outside_partition | sha256sum)" = "$outside_sum" ] || fail "bytes outside the partition changed"
    fi
    echo "case $case_name: $(($(date +%s) - row_started)) s"
    [ "$case_name" != "$final_row" ] || guest_reading
}

final_row=$(last_row)
run_matrix
