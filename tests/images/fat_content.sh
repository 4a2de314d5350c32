# Content of the FAT images of fat_matrix.sh, sourced by it. Everything here
# is made by host tools and written with mtools; nothing of ours touches the
# images.

# make_tree DIR CLUSTER_BYTES WIDE: the host tree that mcopy puts on every
# image. Sizes around the cluster size, names that need long entries, short
# names whose case lives in the entry's case flags, a deep tree, and times
# across the whole FAT range. With WIDE = yes, a directory of 2,000 entries.
make_tree() {
    dir=$1
    cluster=$2
    wide=$3
    mkdir -p "$dir/case" "$dir/sizes"
    printf 'Hello, volume\n' > "$dir/hello.txt"
    printf 'unicode one\n' > "$dir/Ünïcödé 名前.txt"
    printf 'unicode two\n' > "$dir/Ελληνικά και Русский.md"
    printf 'long\n' > "$dir/A rather long file name that runs well past the eight dot three form.text"
    printf 'lower\n' > "$dir/case/lower.txt"
    printf 'upper\n' > "$dir/case/UPPER.TXT"
    printf 'mixed\n' > "$dir/case/Mixed.Txt"
    printf 'base lower\n' > "$dir/case/basename.TXT"
    printf 'ext lower\n' > "$dir/case/EXTENSION.txt"
    deep="$dir/deep"
    for level in 01 02 03 04 05 06 07 08 09 10 11 12; do deep="$deep/level $level"; done
    mkdir -p "$deep"
    printf 'at the bottom\n' > "$deep/leaf.txt"
    : > "$dir/sizes/empty.bin"
    head -c "$cluster" /dev/urandom > "$dir/sizes/one-cluster.bin"
    head -c $((cluster - 1)) /dev/urandom > "$dir/sizes/cluster-minus-one.bin"
    head -c $((cluster + 1)) /dev/urandom > "$dir/sizes/cluster-plus-one.bin"
    head -c 300000 /dev/urandom > "$dir/sizes/big.bin"
    touch -d '1980-01-01 00:00:00' "$dir/hello.txt"
    touch -d '1999-12-31 23:59:58' "$dir/case/lower.txt"
    touch -d '2038-01-19 03:14:08' "$dir/sizes/big.bin"
    touch -d '2099-12-31 23:59:58' "$deep/leaf.txt"
    touch -d '2010-06-15 12:30:45' "$dir/Ünïcödé 名前.txt"
    [ "$wide" = yes ] || return 0
    mkdir -p "$dir/wide"
    # Long names with distinct short forms, and plain short names: mtools
    # would take minutes for 2,000 names that share one short stem.
    for i in $(seq -w 1 1000); do
        printf '%s' "$i" > "$dir/wide/$i long entry name.txt"
        printf '%s' "$i" > "$dir/wide/S$i.TXT"
    done
}

# On FAT32, mtools allocates behind the FSInfo sector's next-free hint and
# would never reuse the holes: the hint is set to "unknown" (0xFFFFFFFF at
# byte 492 of the FSInfo sector, whose number is at byte 48 of the boot
# sector), as the published format allows.
forget_next_free() {
    [ "$(dd if="$1" bs=1 skip=82 count=5 status=none)" = "FAT32" ] || return 0
    sector_bytes=$(od -An -tu2 -j11 -N2 "$1" | tr -d ' ')
    fsinfo=$(od -An -tu2 -j48 -N2 "$1" | tr -d ' ')
    printf '\377\377\377\377' | dd of="$1" bs=1 seek=$((fsinfo * sector_bytes + 492)) conv=notrunc status=none
}

# add_fragmented_file IMAGE CLUSTER_BYTES: a file whose clusters are not one
# run, made by freeing every other cluster of a row of fillers before
# copying it. Fails when mtools placed it in one run after all.
add_fragmented_file() {
    image=$1
    cluster=$2
    scratch=$(mktemp -d)
    head -c "$cluster" /dev/urandom > "$scratch/filler"
    mmd -i "$image" ::/frag
    for i in 1 2 3 4 5 6 7 8; do mcopy -i "$image" "$scratch/filler" "::/frag/filler$i"; done
    mdel -i "$image" ::/frag/filler2 ::/frag/filler4 ::/frag/filler6
    forget_next_free "$image"
    head -c $((cluster * 5 + 100)) /dev/urandom > "$scratch/fragmented.bin"
    mcopy -i "$image" "$scratch/fragmented.bin" ::/frag/fragmented.bin
    rm -rf "$scratch"
    runs=$(mshowfat -i "$image" ::/frag/fragmented.bin | tr -cd '<' | wc -c)
    [ "$runs" -gt 1 ]
}

# make_image IMAGE FAT SECTOR CLUSTER_SECTORS SIZE_KIB TREE
make_image() {
    rm -f "$1"
    mkfs.fat -C -F "$2" -S "$3" -s "$4" -n MATRIX "$1" "$5" >/dev/null &&
        mcopy -s -m -i "$1" "$6"/* ::/ &&
        mattrib -i "$1" +h +s ::/sizes/empty.bin >/dev/null
}
