#!/bin/sh
# shellcheck disable=SC2154  # the fields of each row, which run_matrix reads
# The NTFS matrix: one image per (sector size x cluster size), made by
# mkntfs and filled through ntfs-3g over FUSE. Each row first proves that
# its image holds what it claims (ntfsinfo and ntfsls show the attribute
# list, the compression and sparse flags, the links, ...). Then what
# `morvane fs` lists and copies out must equal what ntfs-3g shows (names,
# kinds, sizes, modification times, SHA-256 of every file, link targets);
# the file over 4 GiB is compared as a stream with ntfscat's. Changes made
# through `morvane fs` are seen by ntfsls and ntfscat, and the image stays
# clean for ntfsfix. Last, an
# NTFS partition of a GPT disk made by sgdisk is read by its number and by
# its unique GUID.
#
#   ntfs_matrix.sh TOOL [CASE...]      (no CASE: every row of the table)
set -u
here=$(cd "$(dirname "$0")" && pwd)
. "$here/matrix_lib.sh"
. "$here/ntfs_content.sh"
matrix=ntfs
matrix_start "$@"
mnt="$work/mnt"
mkdir "$mnt"
# A mount left behind by a failed row would keep the image busy.
trap 'umount "$mnt" 2>/dev/null; rm -rf "$work"' EXIT

# compress: NTFS compresses only on clusters of at most 4 KiB, and ntfs-3g
# leaves a directory marked compressed on 64 KiB clusters uncompressed:
# that row has no compressed files. huge: the file over 4 GiB costs two reads of 4 GiB,
# once is enough.
columns='sector cluster size compress huge'
# name          sector cluster size-MiB compress huge
cases='
ntfs-512-c512   512    512     48       yes      no
ntfs-512-c4k    512    4096    64       yes      yes
ntfs-512-c64k   512    65536   160      no       no
ntfs-4096-c4k   4096   4096    96       yes      no
gpt-partition   512    4096    24       no       no
'

# The size of one file record, as mkntfs chose it.
record_bytes() { ntfsinfo -m "$1" 2>/dev/null | sed -n 's/^[[:space:]]*MFT Record Size: \([0-9]*\).*/\1/p'; }

make_volume() {
    rm -f "$1"
    truncate -s "${size}M" "$1"
    mkntfs -F -f -q -s "$sector" -c "$cluster" -L "$case_name" "$1" >/dev/null 2>&1
}

make_case_image() {
    fs_options="--sector-size $sector"
    [ "$case_name" != gpt-partition ] || { make_gpt_image; return; }
    make_volume "$image" || return 1
    record=$(record_bytes "$image")
    ntfs-3g -o compression "$image" "$mnt" || return 1
    make_content "$mnt" "$cluster" "$record" "$compress" "$huge"
    made=$?
    umount "$mnt" || return 1
    return $made
}

# ---- what each image must hold, by ntfsinfo and ntfsls ----

# inode PATH: ntfsinfo's dump of the file PATH (its attributes and values).
inode() { ntfsinfo -F "$1" "$image" 2>/dev/null; }

has() {
    inode "$1" > "$work/inode"
    grep -q -- "$2" "$work/inode" || fail "the image is not as claimed: $1 shows no '$2'"
}

lacks() {
    inode "$1" > "$work/inode"
    if grep -q -- "$2" "$work/inode"; then fail "the image is not as claimed: $1 shows '$2'"; fi
}

# The unnamed $DATA of PATH is resident (yes) or not (no).
data_resident() {
    inode "$1" | awk '/^Dumping attribute/ { data = ($3 == "$DATA") }
                      data && /Attribute name:/ { data = 0 }
                      data && /Resident:/ { print $2; exit }' > "$work/resident"
    [ "$(cat "$work/resident")" = "$(printf '%s' "$2" | sed 's/yes/Yes/; s/no/No/')" ] ||
        fail "the image is not as claimed: the data of $1 is not resident=$2"
}

# How many index blocks of directory PATH point to further blocks: the
# flags of the index header (byte 0x24 of each block; fixups touch only
# the last two bytes of each sector) have bit 0 set in a block that is
# not a leaf.
inner_index_blocks() {
    number=$(inode "$1" | sed -n 's/^Dumping Inode \([0-9]*\).*/\1/p')
    block=$(ntfsinfo -m "$image" 2>/dev/null | sed -n 's/^[[:space:]]*Index Block Size: \([0-9]*\).*/\1/p')
    ntfscat -a 0xA0 -n '$I30' -i "$number" "$image" 2>/dev/null |
        od -An -v -tu1 -w"$block" | awk '$1 == 73 && $2 == 78 && $3 == 68 && $4 == 88 && $37 % 2 == 1' | wc -l
}

check_shape() {
    ntfsinfo -m "$image" 2>/dev/null > "$work/volume"
    grep -q "Sector Size: $sector\$" "$work/volume" || fail "the sectors are not of $sector bytes"
    grep -q "Cluster Size: $cluster\$" "$work/volume" || fail "the clusters are not of $cluster bytes"
    if [ "$(record_bytes "$image")" -eq 1024 ]; then
        data_resident /sizes/600.bin yes
        data_resident /sizes/1024.bin no
    else
        data_resident /sizes/3000.bin yes
        data_resident /sizes/4000.bin no
    fi
    has /frag/fragmented.bin 'Dumping attribute $ATTRIBUTE_LIST'
    has /frag/fragmented.bin 'SPARSE_FILE'
    has /frag/links/linked.bin 'Dumping attribute $ATTRIBUTE_LIST'
    has /frag/links/linked.bin 'Number of Hard Links:.* 41 '
    lacks /frag/links/linked.bin 'SPARSE_FILE'
    runs=$(ntfsinfo -v -F /frag/fragmented.bin "$image" 2>/dev/null | sed -n 's/^Total runs: [0-9]* (fragments: \([0-9]*\)).*/\1/p')
    [ "${runs:-0}" -ge 100 ] || fail "the image is not as claimed: fragmented.bin lies in ${runs:-no} fragments"
    has /sparse/holes.bin 'SPARSE_FILE'
    has /names/linked.txt 'Number of Hard Links:.* 3 '
    has /names/link 'Reparse tag:.*0xa000000c'
    has '/names/directory link' 'Reparse tag:.*0xa000000c'
    has '/names/directory link' 'MFT Record Flags:.*DIRECTORY'
    has /names/streamed.txt "Attribute name:.*'side'"
    has /names/hidden.txt 'File attributes:.*HIDDEN'
    has '/names/A long Win32 name.text' 'Namespace:.*DOS'
    [ "$(ntfsls -p /names "$image" 2>/dev/null | grep -c -i '^twin\.txt$')" -eq 2 ] ||
        fail "the image is not as claimed: /names has no case twins"
    ntfsls -p /names "$image" 2>/dev/null | grep -q '😀' || fail "the image is not as claimed: no name beyond the BMP"
    [ "$(ntfsls -p /many "$image" 2>/dev/null | grep -c -v -x -e . -e ..)" -eq 3000 ] ||
        fail "the image is not as claimed: /many has not 3000 entries"
    [ "$(inner_index_blocks /deep)" -gt 0 ] || fail "the image is not as claimed: the index of /deep has two levels only"
    if [ "$compress" = yes ]; then
        has /packed/text.txt 'File attributes:.*COMPRESSED'
        has /packed/text.txt 'Compression unit:.* 4 '
        lacks /sizes/300000.bin 'COMPRESSED'
    fi
    if [ "$huge" = yes ]; then
        has /huge.bin 'ata [sS]ize:.*(0x1[0-9a-f]\{8\})'
        has /huge.bin 'SPARSE_FILE'
    fi
}

# ---- reading against ntfs-3g ----

# ntfs-3g hides nothing but its own system files; a copy keeps links as
# links and every time.
copy_out_theirs() {
    ntfs-3g -o ro "$image" "$mnt" || return 1
    (cd "$mnt" && find . -mindepth 1 -maxdepth 1 ! -name huge.bin -exec cp -a {} "$1/" \;)
    copied=$?
    umount "$mnt"
    return $copied
}

copy_out_ours() {
    fs ls / | sed 's#/$##' | grep -v -x huge.bin > "$work/names"
    : > "$work/cp.err"
    while IFS= read -r name; do
        fs cp-out -r "/$name" "$1/$name" 2>>"$work/cp.err"
    done < "$work/names"
    [ ! -s "$work/cp.err" ] || fail "cp-out failed: $(head -5 "$work/cp.err")"
}

comparable() { grep -v -e ' huge.bin$'; }

# The file over 4 GiB: its size as ntfs-3g shows it, and all of its bytes
# as ntfscat reads them (four times as fast as through FUSE), both sides
# read into one comparison, never stored.
check_huge_file() {
    [ "$huge" = yes ] || return 0
    ntfs-3g -o ro "$image" "$mnt" || { fail "ntfs-3g could not mount the image"; return; }
    bytes=$(stat -c %s "$mnt/huge.bin")
    umount "$mnt"
    fs ls -l /huge.bin | grep -q "^- *$bytes " || fail "huge.bin is not listed with its size $bytes"
    mkfifo "$work/theirs"
    ntfscat "$image" /huge.bin > "$work/theirs" 2>/dev/null &
    fs cat /huge.bin | cmp -s - "$work/theirs" || fail "huge.bin reads otherwise than ntfscat reads it"
    wait
    rm -f "$work/theirs"
}

# stat tells size and time, or a link's target, as ntfs-3g does.
check_stat() {
    ntfs-3g -o ro "$image" "$mnt" || { fail "ntfs-3g could not mount the image"; return; }
    for path in /hello.txt /sizes/600.bin /sizes/700.bin "/names/Ünïcödé 名前.txt" /names/link \
                /packed/text.txt /sparse/holes.bin; do
        [ -e "$mnt$path" ] || [ -L "$mnt$path" ] || continue
        fs stat "$path" > "$work/stat" 2>&1 || { fail "stat $path: $(head -3 "$work/stat")"; continue; }
        if [ -L "$mnt$path" ]; then
            grep -q "^target: *$(readlink "$mnt$path")\$" "$work/stat" || fail "stat $path: the target is not $(readlink "$mnt$path")"
            continue
        fi
        expected=$(date -u -d "@$(stat -c %Y "$mnt$path")" '+%Y-%m-%d %H:%M:%S')
        grep -q "^size: *$(stat -c %s "$mnt$path")\$" "$work/stat" || fail "stat $path: size is not $(stat -c %s "$mnt$path")"
        grep -q "^modified: *$expected" "$work/stat" || fail "stat $path: modified is not $expected"
    done
    umount "$mnt"
}

# ntfsfix -n: the volume needs nothing done.
ntfsfix_clean() {
    ntfsfix -n "$image" > "$work/fix" 2>&1 || fail "ntfsfix -n after $1: $(tail -5 "$work/fix")"
    if grep -q -i -e 'error' -e 'corrupt' -e 'fixing' "$work/fix"; then fail "ntfsfix -n after $1: $(tail -5 "$work/fix")"; fi
}

# mkdir, cp-in, mv (a rename and into a directory) and rm through `morvane
# fs`; ntfsls and ntfscat see each result, and ntfsfix finds nothing to do.
check_changes() {
    printf 'new\n' > "$work/new"
    fs mkdir /made 2>"$work/err" || fail "mkdir /made: $(head -3 "$work/err")"
    fs cp-in "$work/new" /made/new.txt 2>"$work/err" || fail "cp-in /made/new.txt: $(head -3 "$work/err")"
    fs mv /hello.txt /moved.txt 2>"$work/err" || fail "mv within /: $(head -3 "$work/err")"
    fs mv /moved.txt /made 2>"$work/err" || fail "mv into /made: $(head -3 "$work/err")"
    fs rm "/many/entry 0001" "/names/empty dir" 2>"$work/err" || fail "rm: $(head -3 "$work/err")"
    [ "$(ntfscat "$image" /made/new.txt)" = new ] || fail "ntfscat does not read /made/new.txt"
    [ "$(ntfscat "$image" /made/moved.txt)" = hello ] || fail "ntfscat does not read /made/moved.txt"
    ntfsls "$image" -p / | grep -q -x hello.txt && fail "/hello.txt is still listed"
    ntfsls "$image" -p /many | grep -q -x "entry 0001" && fail "/many/entry 0001 is still listed"
    ntfsls "$image" -p /names | grep -q -x "empty dir" && fail "/names/empty dir is still listed"
    ntfsfix_clean "changes"
    rm -f "$work/new"
}

# ---- a GPT disk with an NTFS partition ----

# mkntfs makes the volume alone (told where it will start), dd puts it in
# the second partition of a disk that sgdisk lays out.
make_gpt_image() {
    "$here/make_gpt_disk.sh" "$image" "$size" 4:01234567-89AB-CDEF-0123-456789ABCDEF \
        16:A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061 > "$work/layout" || return 1
    first=$(sed -n 's/^2 \([0-9]*\) \([0-9]*\)$/\1/p' "$work/layout")
    last=$(sed -n 's/^2 \([0-9]*\) \([0-9]*\)$/\2/p' "$work/layout")
    volume="$work/partition.img"
    rm -f "$volume"
    truncate -s $(((last - first + 1) * 512)) "$volume"
    mkntfs -F -f -q -p "$first" -c "$cluster" -L partition "$volume" >/dev/null 2>&1 || return 1
    ntfs-3g "$volume" "$mnt" || return 1
    printf 'in the second partition\n' > "$mnt/which.txt"
    head -c 100000 /dev/urandom > "$mnt/random.bin"
    umount "$mnt" || return 1
    dd if="$volume" of="$image" bs=512 seek="$first" conv=notrunc,sparse status=none
}

check_gpt_partition() {
    [ "$(ntfscat "$volume" /which.txt 2>/dev/null)" = "in the second partition" ] ||
        fail "the image is not as claimed: the partition holds no which.txt"
    disk=$image
    image="$disk:2"
    [ "$(fs cat /which.txt)" = "in the second partition" ] || fail "cat /which.txt of partition 2"
    fs cat /random.bin | cmp -s - "$(ntfscat "$volume" /random.bin > "$work/random"; echo "$work/random")" ||
        fail "random.bin of partition 2 reads otherwise than ntfscat's"
    check_info NTFS "$cluster" read-write \
        $(($(ntfsinfo -m "$volume" 2>/dev/null | sed -n 's/^[[:space:]]*Free Clusters: \([0-9]*\).*/\1/p') * cluster))
    image="$disk:A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061"
    [ "$(fs cat /which.txt)" = "in the second partition" ] || fail "partition 2 by its GUID"
    # parts: the entry as the layout made it, and the driver that takes it.
    "$tool" fs "$disk" parts > "$work/parts" 2>&1 || fail "parts: $(cat "$work/parts")"
    sed -n '/^partition: *2$/,/^mounted by:/p' "$work/parts" > "$work/part2"
    grep -qx "unique GUID: *A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061" "$work/part2" &&
        grep -qx "first sector: *$first" "$work/part2" && grep -qx "last sector: *$last" "$work/part2" &&
        grep -qx "mounted by: *NTFS" "$work/part2" || fail "parts, partition 2: $(cat "$work/parts")"
    sed -n '/^partition: *1$/,/^mounted by:/p' "$work/parts" | grep -qx "mounted by: *-" ||
        fail "parts, partition 1: $(cat "$work/parts")"
    image="$disk:1"
    if fs ls / > /dev/null 2>&1; then fail "partition 1, which holds no file system, was mounted"; fi
    image=$disk
    rm -f "$volume" "$work/random"
}

check_case() {
    [ "$case_name" != gpt-partition ] || { check_gpt_partition; return; }
    ntfsfix_clean "making the image"
    check_shape
    check_info NTFS "$cluster" read-write \
        $(($(ntfsinfo -m "$image" 2>/dev/null | sed -n 's/^[[:space:]]*Free Clusters: \([0-9]*\).*/\1/p') * cluster))
    check_reading
    check_huge_file
    check_stat
    check_changes
}

run_matrix
