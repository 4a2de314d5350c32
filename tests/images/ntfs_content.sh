# Content of the NTFS images of ntfs_matrix.sh, sourced by it. Everything is
# written through ntfs-3g over FUSE (setfattr for what only its extended
# attributes reach); nothing of ours touches the images.

# reparse_symlink TARGET: the value of system.ntfs_reparse_data for a
# relative symbolic link to TARGET, as Windows stores one: tag 0xA000000C,
# the substitute and print names (both TARGET in UTF-16), flags 1.
reparse_symlink() {
    python3 -c '
import struct, sys
name = sys.argv[1].encode("utf-16-le")
body = struct.pack("<HHHHI", 0, len(name), len(name), len(name), 1) + name + name
print("0x" + (struct.pack("<IHH", 0xA000000C, len(body), 0) + body).hex())
' "$1"
}

# Files either side of the largest value kept in a record of 1 KiB and of
# 4 KiB, and around one cluster.
sized_files() {
    mkdir "$1/sizes"
    for size in 0 1 600 700 1024 3000 4000 $(($2 - 1)) "$2" $(($2 + 1)) 300000; do
        head -c "$size" /dev/urandom > "$1/sizes/$size.bin"
    done
}

# Text that LZNT1 shrinks, random bytes that it cannot, and a mix of the
# two by 4 KiB, all in a directory marked compressed before they are
# written.
compressed_files() {
    mkdir "$1/packed"
    setfattr -h -v 0x00000800 -n system.ntfs_attrib_be "$1/packed"
    seq 1 40000 | sed 's/$/ lines of text that repeat a great deal/' > "$1/packed/text.txt"
    head -c 150000 /dev/urandom > "$1/packed/random.bin"
    for i in 1 2 3 4 5 6 7 8 9 10 11 12; do
        head -c 4096 /dev/urandom
        printf '%04096d' "$i"
    done > "$1/packed/mixed.bin"
    head -c 10 /dev/urandom > "$1/packed/tiny.bin"
}

# Holes: data at a few places of a 3 MiB file, the rest never written.
sparse_files() {
    mkdir "$1/sparse"
    for at in 0 700000 2000000; do
        printf 'data at %d\n' "$at" | dd of="$1/sparse/holes.bin" bs=1 seek="$at" conv=notrunc status=none
    done
    truncate -s 3145728 "$1/sparse/holes.bin"
    truncate -s 1000000 "$1/sparse/all-hole.bin"
}

# Over 4 GiB, sparse, with data at both ends.
huge_file() {
    printf 'start of the huge file\n' > "$1/huge.bin"
    printf 'end of the huge file\n' |
        dd of="$1/huge.bin" bs=1 seek=$((4 * 1024 * 1024 * 1024 + 70000)) conv=notrunc status=none
}

# Names: case twins (POSIX names that differ only in case), characters
# beyond ASCII and beyond the BMP, a Win32 name with its DOS short name,
# hard links within and across directories, a named stream beside the
# data, a hidden file, relative symbolic links as reparse points (to a
# directory too, and with the separator Windows writes), an empty
# directory.
named_files() {
    mkdir "$1/names" "$1/names/other" "$1/names/empty dir"
    printf 'upper\n' > "$1/names/Twin.txt"
    printf 'lower case twin\n' > "$1/names/twin.txt"
    printf 'unicode\n' > "$1/names/Ünïcödé 名前.txt"
    printf 'beyond the BMP\n' > "$1/names/smile 😀 𝄞.txt"
    printf 'long name\n' > "$1/names/A long Win32 name.text"
    setfattr -h -n system.ntfs_dos_name -v "ALONGW~1.TEX" "$1/names/A long Win32 name.text"
    printf 'linked\n' > "$1/names/linked.txt"
    ln "$1/names/linked.txt" "$1/names/second link.txt"
    ln "$1/names/linked.txt" "$1/names/other/third link.txt"
    printf 'main stream\n' > "$1/names/streamed.txt"
    setfattr -n user.side -v "the side stream, not the data" "$1/names/streamed.txt"
    printf 'hidden\n' > "$1/names/hidden.txt"
    setfattr -h -v 0x00000002 -n system.ntfs_attrib_be "$1/names/hidden.txt"
    : > "$1/names/link"
    setfattr -h -n system.ntfs_reparse_data -v "$(reparse_symlink linked.txt)" "$1/names/link"
    mkdir "$1/names/directory link"
    setfattr -h -n system.ntfs_reparse_data -v "$(reparse_symlink other)" "$1/names/directory link"
    : > "$1/names/link into other"
    setfattr -h -n system.ntfs_reparse_data -v "$(reparse_symlink 'other\third link.txt')" "$1/names/link into other"
}

# Many entries: 3,000 short names, and 1,200 names of 200 characters, whose
# index needs three levels.
wide_directories() {
    mkdir "$1/many" "$1/deep"
    (cd "$1/many" && seq -w 1 3000 | sed 's/^/entry /' | xargs -d '\n' touch)
    printf 'last\n' > "$1/many/entry 3000"
    (cd "$1/deep" && seq -w 1 1200 | sed 's/^/n/; :a; s/^.\{1,199\}$/&x/; ta' | xargs touch)
}

# Times from before 1970 to past 2038, set last: writes into a directory
# change its time.
set_times() {
    touch -d '1999-12-31 23:59:58' "$1/sizes/1.bin"
    touch -d '1965-03-04 05:06:07' "$1/sizes/600.bin"
    touch -d '2099-12-31 23:59:59' "$1/sizes/700.bin"
    touch -d '2040-01-02 03:04:05' "$1/names/Ünïcödé 名前.txt"
    for dir in sizes names names/other "names/empty dir" sparse many deep frag frag/links; do
        touch -d '2011-11-11 11:11:11' "$1/$dir"
    done
    [ ! -d "$1/packed" ] || touch -d '2012-12-12 12:12:12' "$1/packed"
}

# fragment MOUNT CLUSTER COUNT: a file of COUNT one-cluster pieces, each
# behind a hole of one cluster and written after a small file that takes
# clusters in between; half of those files are deleted afterwards. Its
# runs, two per piece, are more than one record maps, so they spill into
# further records through an attribute list. Then a file of 40 hard links
# of long names, whose names spill out of its record in the same way
# while its data, without holes, stays behind.
fragment() {
    mkdir "$1/frag" "$1/frag/links"
    python3 -c '
import os, sys
folder, cluster, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
# A spacer of less than 1 KiB would stay in its record.
spacer_size = -(-1024 // cluster) * cluster
target = os.path.join(folder, "fragmented.bin")
open(target, "wb").close()
for i in range(count):
    with open(target, "r+b") as grown:
        grown.seek(2 * i * cluster)
        grown.write(os.urandom(cluster))
    with open(os.path.join(folder, "f%d" % i), "wb") as spacer:
        spacer.write(os.urandom(spacer_size))
for i in range(0, count, 2):
    os.remove(os.path.join(folder, "f%d" % i))
' "$1/frag" "$2" "$3"
    head -c 20000 /dev/urandom > "$1/frag/links/linked.bin"
    for i in $(seq -w 1 40); do
        ln "$1/frag/links/linked.bin" "$1/frag/links/link $i $(printf '%0100d' 0)"
    done
}

# make_content MOUNT CLUSTER RECORD COMPRESSION HUGE: the whole tree on a
# mounted volume; COMPRESSION and HUGE are yes or no.
make_content() {
    printf 'hello\n' > "$1/hello.txt"
    sized_files "$1" "$2"
    [ "$4" != yes ] || compressed_files "$1"
    sparse_files "$1"
    [ "$5" != yes ] || huge_file "$1"
    named_files "$1"
    wide_directories "$1"
    fragment "$1" "$2" $(($3 / 2))
    set_times "$1"
}
