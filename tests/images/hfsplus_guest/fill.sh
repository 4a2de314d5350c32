# shellcheck shell=sh
# The trees the guest makes on a mounted HFS+ volume, one function per
# tree: tree_NAME DIR. A name may end in a number, its argument (frag3000
# is tree_frag with 3000). Sourced by the guest's /init, which sets
# allocation_block.

# A name's trailing number is cut off into $count; what precedes it names
# the function.
tree_dispatch() {
    count=${1##*[!0-9]}
    "tree_${1%"$count"}" "$2" "$count"
}

# Files and folders every row holds: times inside the driver's range, a
# name beyond ASCII (which the Linux driver stores decomposed), a dot
# name, and files on both sides of each block size that rows use.
tree_common() {
    mkdir -p "$1/dir/nested deeper" "$1/empty dir" "$1/sizes" || return 1
    printf 'hello\n' > "$1/hello.txt"
    : > "$1/empty"
    printf 'dot\n' > "$1/.hidden"
    head -c 70000 /dev/urandom > "$1/dir/random.bin"
    printf 'ü ñ\n' > "$1/dir/nested deeper/Ünïcödé näme.txt"
    for size in 1 511 512 513 4095 4096 4097 65535 65536 65537 300000; do
        head -c $size /dev/urandom > "$1/sizes/$size.bin" || return 1
    done
    touch -d '1999-12-31 23:59:58' "$1/hello.txt"
    touch -d '2037-01-02 03:04:05' "$1/dir/random.bin"
    touch -d '1980-06-15 12:00:00' "$1/dir/nested deeper/Ünïcödé näme.txt"
    touch -d '2001-09-09 01:46:40' "$1/empty dir"
}

# Hard links (across folders, so the inode lives in the private folder and
# each link is a file record of its own) and symbolic links: relative,
# absolute, dangling, to a folder, and one longer than a 512-byte block.
tree_links() {
    mkdir -p "$1/links" || return 1
    printf 'shared by three names\n' > "$1/links/linked.txt"
    ln "$1/links/linked.txt" "$1/links/second.txt" || return 1
    ln "$1/links/linked.txt" "$1/dir/third.txt" || return 1
    head -c 20000 /dev/urandom > "$1/links/big.bin"
    ln "$1/links/big.bin" "$1/big link.bin" || return 1
    touch -d '2010-10-10 10:10:10' "$1/links/big.bin"
    ln -s ../hello.txt "$1/links/relative link" || return 1
    ln -s /etc/passwd "$1/links/absolute" || return 1
    ln -s nowhere/target "$1/links/dangling" || return 1
    ln -s "dir/nested deeper" "$1/folder link" || return 1
    ln -s "$(printf '%0600d' 0)/far" "$1/links/long target" || return 1
}

# Two files spread over one-block holes: a row of one-block files, every
# other one deleted, then the two files written whole. The driver takes
# the first free blocks it finds, one hole per extent: a.bin gets $2
# extents, far past the eight of its catalog record; b.bin a quarter of
# that, its last block partly used.
tree_frag() {
    mkdir -p "$1/frag/holes" || return 1
    block=$allocation_block
    files=$(($2 * 2 + $2 / 4 * 2 + 2))
    one_block=$(printf "%0${block}d" 0)
    number=1
    while [ $number -le $files ]; do
        printf '%s' "$one_block" > "$1/frag/holes/$number" || return 1
        number=$((number + 1))
    done
    sync
    (cd "$1/frag/holes" && seq 1 2 $files | xargs rm) || return 1
    head -c $(($2 * block)) /dev/urandom > "$1/frag/a.bin" || return 1
    head -c $(($2 / 4 * block + 100)) /dev/urandom > "$1/frag/b.bin"
}

# A folder of 2,000 entries and one nested folder: the catalog needs index
# nodes above its leaves.
tree_many() {
    mkdir -p "$1/many/sub" || return 1
    (cd "$1/many" && seq 1 2000 | sed 's/^/entry /' | while read -r name; do : > "$name"; done) || return 1
    printf 'last\n' > "$1/many/entry 2000"
    printf 'below\n' > "$1/many/sub/below.txt"
}

# Names as stored: decomposed by hand, precomposed (which the driver
# decomposes), Greek and Han, and 255 characters long.
tree_names() {
    mkdir -p "$1/names" || return 1
    printf 'nfd\n' > "$1/names/$(printf 'cafe\314\201')"
    printf 'nfc\n' > "$1/names/$(printf 'r\303\251sum\303\251.txt')"
    printf 'greek\n' > "$1/names/αβγ.txt"
    printf 'han\n' > "$1/names/名前.txt"
    printf 'long\n' > "$1/names/$(printf '%0255d' 0)"
}

# Names that differ only in case: on HFSX they are three entries.
tree_case() {
    mkdir -p "$1/case/DIR" "$1/case/dir" || return 1
    printf 'lower\n' > "$1/case/name.txt"
    printf 'upper\n' > "$1/case/NAME.TXT"
    printf 'mixed\n' > "$1/case/Name.txt"
    printf 'in upper\n' > "$1/case/DIR/x"
    printf 'in lower\n' > "$1/case/dir/x"
}

# Extended attributes, small enough to be stored inline in the attributes
# tree, on files and a folder.
tree_xattrs() {
    xattr "$1/hello.txt" user.comment 'a short comment' || return 1
    xattr "$1/dir/random.bin" user.origin "$(printf '%01000d' 7)" || return 1
    xattr "$1/dir" user.folder 'on a folder' || return 1
}

# The manifest of DIR, one line per entry, sorted bytewise.
manifest() {
    (cd "$1" && find . -mindepth 1 | while IFS= read -r path; do
        name=${path#./}
        if [ -L "$path" ]; then
            echo "l $name $(readlink "$path")"
        elif [ -d "$path" ]; then
            echo "d $name"
        else
            echo "f $name $(stat -c '%s %Y' "$path") $(sha256sum < "$path" | cut -d ' ' -f 1)"
        fi
    done) | LC_ALL=C sort
}
