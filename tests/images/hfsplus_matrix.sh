#!/bin/bash
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The HFS+ matrix: one volume per row, made by independent tools only.
# Most are made by mkfs.hfsplus and filled by the Linux hfsplus driver in a
# QEMU guest (hfsplus_guest/make_images.sh, cached in the build folder);
# one by xorriso's HFS+ writer, cut out of its Apple partition map. Each
# row first proves that its volume holds what it claims, from the volume
# header and B-tree header records as the published format lays them out
# (block size, extents overflow records, catalog depth, attribute records,
# HFSX, journal) and from the catalog's raw names. Then what `morvane fs`
# lists, stats and copies out must equal what the Linux driver read back
# in the guest (its tar archive and manifest), or what sleuthkit's fls and
# icat show for the xorriso volume: names, kinds, sizes, modification
# times, SHA-256 of every file, link targets. Every change is refused with
# FILE_UNSUPPORTED (the driver has no write path), and the volume stays
# byte-identical and clean for fsck.hfsplus -fn.
#
#   hfsplus_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
#
# The guest's volumes are looked for beside TOOL (the build folder).
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
matrix=hfsplus
matrix_start "$@"
build_dir=$(cd "$(dirname "$tool")" && pwd)
. "$here/hfsplus_journal_lib.sh"

# source: guest (a volume of the guest, named by volume) or xorriso (made
# here, volume being its block size). sector: what `morvane fs` is told.
# changes: taken (writable), or refused as on a volume the driver serves
# read-only (read-only). claims: what check_shape
# proves the volume holds, comma-separated.
columns='source volume sector changes claims'
# name          source  volume     sector changes     claims
cases='
b512            guest   b512       512    read-only   block=512,overflow=370,overflow-depth=2,links,inode,unclean-alternate
b4096           guest   b4096      512    read-only   block=4096,depth=2,links,inode,attributes=3,nfd,many,unclean-alternate
b4096-4kn       guest   b4096      4096   read-only   block=4096,depth=2,unclean-alternate
b64k            guest   b64k       512    writable    block=65536,overflow=4,links,inode
hfsx            guest   hfsx       512    writable    block=4096,hfsx,nfd
journaled       guest   journaled  512    writable    block=4096,journal,links,inode
journal-pending guest   journaled  512    read-only   block=4096,journal,pending
xorriso         xorriso 2048       512    read-only   block=2048,locked,nfd,beyond-bmp
'

guest_images=
# The guest's volumes, made once per build folder and guest version.
guest_image() {
    if [ -z "$guest_images" ]; then
        guest_images=$("$here/hfsplus_guest/make_images.sh" "$build_dir" | tail -n 1)
        [ -f "$guest_images/complete" ] || { echo "the guest made no volumes" >&2; guest_images=; return 1; }
    fi
    cp --sparse=always "$guest_images/$volume.img" "$image"
}

# ---- the xorriso volume ----

# A tree with what xorriso can carry: names beyond the BMP and decomposed,
# a symbolic link, files of several blocks, set times.
xorriso_tree() {
    mkdir -p "$1/dir/nested" "$1/empty dir"
    printf 'hello\n' > "$1/hello.txt"
    printf 'smile\n' > "$1/smile 😀.txt"
    printf 'beyond\n' > "$1/dir/nested/𝄞 clef"
    printf 'nfd\n' > "$1/dir/$(printf 'cafe\314\201')"
    head -c 100000 /dev/urandom > "$1/dir/random.bin"
    : > "$1/empty"
    ln -s dir/random.bin "$1/link"
    touch -d '1999-12-31 23:59:58' "$1/hello.txt"
    touch -d '2030-05-05 05:05:05' "$1/dir/random.bin"
}

make_xorriso_image() {
    tree="$work/xorriso-tree"
    rm -rf "$tree" && mkdir "$tree" && xorriso_tree "$tree"
    "$here/hfsplus_from_folder.sh" "$tree" "$image" "$volume" XORRISO
}

make_case_image() {
    fs_options="--sector-size $sector"
    case $source in
        guest) guest_image || return 1 ;;
        xorriso) make_xorriso_image || return 1 ;;
    esac
    case $claims in
        *pending*) add_transaction 0x8000 ;;
    esac
}

# In place, the volume is as the guest left it; the journal is not empty
# (its header, little-endian, at the offset that the journal info block
# gives: start at 8, end at 16).
check_pending() {
    find_hello_record || { claimed "$(find_hello_record)"; return; }
    [ "$(be "$image" $((record + 16)) 4)" -ne $(($(date -u -d "$journaled_time" +%s) + mac_epoch)) ] ||
        claimed "the catalog in place holds the journal's time"
    [ $(($(be "$image" 1028 4) >> 15 & 1)) -eq 0 ] || claimed "the header in place is locked"
    [ "$(dd if="$image" bs="$block" skip="$(be "$catalog" $((record + 104)) 4)" count=1 status=none | head -c 6)" = hello ] ||
        claimed "hello.txt in place does not hold hello"
    journal=$(be "$image" $(($(be "$image" $((1024 + 12)) 4) * block + 36)) 8)
    header=$(od -An -v -tx1 -j "$journal" -N 24 "$image" | tr -d ' \n')
    [ "${header:16:16}" != "${header:32:16}" ] || claimed "the journal is empty"
    rm -f "$catalog"
}

# ---- what each volume must hold ----

# The volume header is 1,024 bytes in; its fork data for the extents,
# catalog and attributes files at 192, 272 and 352; each B-tree's header
# node is the first block of its file, the header record behind the
# 14-byte node descriptor: treeDepth at 14, leafRecords at 20.

tree_header() {
    start=$(be "$image" $((1024 + $1 + 16)) 4)
    if [ "$start" -eq 0 ]; then echo 0; else be "$image" $((start * $(block_size) + $2)) "$3"; fi
}

# The catalog file's bytes, from the eight extents of its fork data, one
# byte in hex per line: names are found in them as UTF-16BE.
catalog_bytes() {
    for slot in 0 1 2 3 4 5 6 7; do
        at=$((1024 + 272 + 16 + slot * 8))
        count=$(be "$image" $((at + 4)) 4)
        [ "$count" -eq 0 ] || dd if="$image" bs="$(block_size)" skip="$(be "$image" "$at" 4)" count="$count" status=none
    done | od -An -v -tx1 -w1 | tr -d ' ' | tr '\n' ' '
}

# utf16 TEXT: TEXT as the hex bytes catalog_bytes shows, big-endian.
utf16() { printf '%s' "$1" | iconv -f UTF-8 -t UTF-16BE | od -An -v -tx1 -w1 | tr -d ' ' | tr '\n' ' '; }

claimed() { fail "the image is not as claimed: $*"; }

# The guest's manifest of the row's volume.
guest_manifest() { cat "$guest_images/$volume.manifest"; }

check_claim() {
    name=${1%%=*}
    value=${1#*=}
    case $name in
        block) [ "$(block_size)" -eq "$value" ] || claimed "blocks of $(block_size) bytes, not $value" ;;
        overflow) records=$(tree_header 192 20 4)
                  [ "$records" -ge "$value" ] || claimed "the extents overflow tree holds $records records, not $value" ;;
        overflow-depth) depth=$(tree_header 192 14 2)
                        [ "$depth" -ge "$value" ] || claimed "the extents overflow tree is $depth deep, not $value" ;;
        depth) depth=$(tree_header 272 14 2)
               [ "$depth" -ge "$value" ] || claimed "the catalog tree is $depth deep, not $value" ;;
        attributes) records=$(tree_header 352 20 4)
                    [ "$records" -ge "$value" ] || claimed "the attributes tree holds $records records, not $value" ;;
        hfsx) # The signature "HX", and binary comparison of names (keyCompareType 0xBC).
              [ "$(be "$image" 1024 2)" -eq $((0x4858)) ] || claimed "the signature is not HX"
              [ "$(tree_header 272 51 1)" -eq $((0xBC)) ] || claimed "the catalog does not compare names as binary"
              [ "$(guest_manifest | grep -c -i '^f case/name.txt ')" -eq 3 ] || claimed "no three names differing in case" ;;
        locked) # kHFSVolumeSoftwareLockBit (15): xorriso's volumes are for read-only media.
                [ $(($(be "$image" 1028 4) >> 15 & 1)) -eq 1 ] || claimed "the volume is not locked" ;;
        unclean-alternate) # Linux left the alternate header as it marks a mounted
                # volume (unmounted bit 8 clear, inconsistent bit 11 set): both
                # headers are checked, so the volume is served read-only.
                alternate=$(($(stat -c %s "$image") - 1024 + 4))
                [ $(($(be "$image" $alternate 4) & 0x900)) -eq $((0x800)) ] ||
                    claimed "the alternate header is marked clean" ;;
        journal) # kHFSVolumeJournaledBit (13) of attributes, and a journal info block.
                 [ $(($(be "$image" 1028 4) >> 13 & 1)) -eq 1 ] || claimed "the volume is not journaled"
                 [ "$(be "$image" $((1024 + 12)) 4)" -ne 0 ] || claimed "there is no journal info block" ;;
        links) [ "$(guest_manifest | grep -c '^l ')" -ge 5 ] || claimed "the guest made no symbolic links" ;;
        inode) catalog_bytes > "$work/catalog"
               grep -q "$(utf16 'HFS+ Private Data')" "$work/catalog" || claimed "there is no private folder"
               grep -q "$(utf16 iNode)" "$work/catalog" || claimed "the private folder holds no iNode file" ;;
        nfd) catalog_bytes | grep -q "$(utf16 "$(printf 'e\314\201')")" || claimed "no decomposed name" ;;
        beyond-bmp) catalog_bytes | grep -q "$(utf16 😀)" || claimed "no name beyond the BMP" ;;
        pending) check_pending ;;
        many) [ "$(guest_manifest | grep -c '^f many/entry ')" -eq 2000 ] || claimed "/many has not 2000 entries" ;;
        *) claimed "unknown claim $1" ;;
    esac
}

check_shape() {
    for claim in ${claims//,/ }; do check_claim "$claim"; done
    rm -f "$work/catalog"
}

# ---- reading against the Linux driver or sleuthkit ----

# The guest's archive, checked against the guest's manifest first: the
# copy must be what the Linux driver read.
copy_guest_tree() {
    tar -x --warning=no-timestamp -f "$guest_images/$volume.tar" -C "$1" || return 1
    manifest "$1" > "$work/archive.manifest"
    guest_manifest | diff - "$work/archive.manifest" > "$work/diff" ||
        { fail "the guest's archive is not its manifest: $(head -5 "$work/diff")"; return 1; }
}

# fls lists every entry with its kind, inode and times (modification
# first); icat reads its bytes, a link's being its target.
copy_fls_tree() {
    fls -f hfs -r -p -l "$image" > "$work/fls" 2>&1 || return 1
    while IFS="$(printf '\t')" read -r kind_inode path modified _ _ _ _; do
        kind=${kind_inode%% *}
        inode=${kind_inode##* }
        inode=${inode%:}
        case $path in \$*) continue ;; esac
        case $kind in
            d/d) mkdir -p "$1/$path" ;;
            r/r) icat -f hfs "$image" "$inode" > "$1/$path" || return 1 ;;
            l/l) ln -s "$(icat -f hfs "$image" "$inode")" "$1/$path" || return 1 ;;
            *) fail "fls shows $path as $kind"; continue ;;
        esac
        touch -h -d "${modified% (UTC)}" "$1/$path"
    done < "$work/fls"
    # Folders last: filling them changed their times.
    grep '^d/d' "$work/fls" | while IFS="$(printf '\t')" read -r _ path modified _; do
        touch -d "${modified% (UTC)}" "$1/$path"
    done
}

copy_out_theirs() {
    case $source in
        guest) copy_guest_tree "$1" || return 1 ;;
        xorriso) copy_fls_tree "$1" || return 1 ;;
    esac
    case $claims in
        *pending*) touch -d "$journaled_time" "$1/hello.txt" ;;
    esac
}

copy_out_ours() {
    fs ls / | sed 's#/$##' > "$work/names"
    : > "$work/cp.err"
    while IFS= read -r name; do
        fs cp-out -r "/$name" "$1/$name" 2>>"$work/cp.err"
    done < "$work/names"
    [ ! -s "$work/cp.err" ] || fail "cp-out failed: $(head -5 "$work/cp.err")"
}

# The Linux driver shows the journal's two files in the root; the loader
# hides them, as it hides the private folder. Names are compared composed:
# the volume stores them decomposed, which the loader shows as stored and
# the Linux driver composes.
comparable() {
    grep -v -E '^(f|-( [0-9]+ [0-9-]+ [0-9:]+)?) \.journal(_info_block)?( |$)' | composed
}

composed() { python3 -c 'import sys, unicodedata; sys.stdout.write(unicodedata.normalize("NFC", sys.stdin.read()))'; }
decomposed() { printf '%s' "$1" | python3 -c 'import sys, unicodedata; sys.stdout.write(unicodedata.normalize("NFD", sys.stdin.read()))'; }

# stat tells size and time of files, the inode's for a hard link, and a
# link's target, as the reference copy has them.
check_stat() {
    ref="$work/ref"
    rm -rf "$ref" && mkdir "$ref"
    copy_out_theirs "$ref" > /dev/null 2>&1 || return
    for path in hello.txt dir/random.bin links/second.txt "big link.bin" frag/a.bin frag/b.bin \
                case/NAME.TXT "dir/nested deeper/Ünïcödé näme.txt" "smile 😀.txt" links/absolute link; do
        [ -e "$ref/$path" ] || [ -L "$ref/$path" ] || continue
        fs stat "/$(decomposed "$path")" > "$work/stat" 2>&1 || { fail "stat /$path: $(head -3 "$work/stat")"; continue; }
        if [ -L "$ref/$path" ]; then
            [ "$(sed -n 's/^target: *//p' "$work/stat")" = "$(readlink "$ref/$path")" ] || fail "stat /$path: the target is not $(readlink "$ref/$path")"
            continue
        fi
        expected=$(date -u -d "@$(stat -c %Y "$ref/$path")" '+%Y-%m-%d %H:%M:%S')
        grep -q "^size: *$(stat -c %s "$ref/$path")\$" "$work/stat" || fail "stat /$path: size is not $(stat -c %s "$ref/$path")"
        grep -q "^modified: *$expected" "$work/stat" || fail "stat /$path: modified is not $expected"
    done
    rm -rf "$ref"
}

# Hidden entries can still be reached by name, and never show in a listing.
check_hidden() {
    fs ls -a / > "$work/root" 2>&1
    if grep -q -e 'HFS+ Private Data' -e '^\.journal' "$work/root"; then
        fail "ls / shows a hidden entry: $(grep -e 'HFS+ Private Data' -e '^\.journal' "$work/root")"
    fi
    case $claims in
        *journal*) fs stat /.journal > /dev/null 2>&1 || fail "/.journal cannot be reached by name" ;;
    esac
}

# fsck.hfsplus replays no journal: on a volume whose journal holds a
# transaction it reports that alone, and must find nothing else.
fsck_clean() {
    fsck.hfsplus -fn "$image" > "$work/fsck" 2>&1 && return 0
    case $claims in
        *pending*) grep -q 'Journal need to be replayed' "$work/fsck" &&
                   ! grep -v -e '^\*\*' -e 'Executing fsck' -e 'The volume name is' -e 'Journal need to be replayed' \
                       "$work/fsck" | grep -q . && return 0 ;;
    esac
    fail "fsck.hfsplus -fn $1: $(tail -5 "$work/fsck")"
}

# A read-only volume refuses every change and stays as it was; a writable
# one takes a few, which fsck and sleuthkit must find sound.
check_changes() {
    if [ "$changes" = read-only ]; then
        refuse_every_change 0x4000C /dir "/empty dir" /empty
        fsck_clean "after refused changes"
        return
    fi
    printf 'new\n' > "$work/new"
    for step in "mkdir /made" "cp-in $work/new /made/new.txt" "mv /hello.txt /made/moved.txt" "rm /empty"; do
        # shellcheck disable=SC2086
        fs $step > "$work/out" 2>&1 || fail "$step: $(head -3 "$work/out")"
    done
    # Sleuthkit can't walk the guest's volumes at all (it stops at the hard
    # links that Linux numbers apart): fsck judges them, and the volume must
    # read back through a fresh mount.
    fsck_clean "after changes"
    fs cat /made/new.txt 2>/dev/null | cmp -s - "$work/new" || fail "the copied file reads otherwise after a remount"
}

# `fs info` against the row: the block size it claims, and whether the
# volume takes changes.
check_volume_info() {
    access=read-write
    [ "$changes" = writable ] || access=read-only
    check_info "HFS+" "$(printf '%s\n' "$claims" | sed -n 's/.*block=\([0-9]*\).*/\1/p')" "$access" -
}

check_case() {
    check_shape
    if ! fs ls / > "$work/out" 2>&1; then
        fail "the volume is not mounted: $(head -3 "$work/out")"
        return
    fi
    check_volume_info
    check_reading
    check_stat
    check_hidden
    check_changes
}

run_matrix
