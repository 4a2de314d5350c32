# shellcheck shell=bash
# Download and partial unpacking of one Debian package, for the scripts that
# bring the real kernel and busybox into the end-to-end runs. Sourced.

# refresh_package_lists: apt-get update, as root or through sudo.
refresh_package_lists() {
    local sudo=
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "refreshing the package lists (apt-get update)" >&2
    $sudo apt-get update -qq >&2
}

# unpack_package PACKAGE DIR MEMBER...: downloads PACKAGE's candidate version
# with apt-get download and unpacks the named members of its file system
# tree (tar patterns such as './boot/vmlinuz-*') below DIR. Sets
# PACKAGE_VERSION. The .deb itself is not kept.
unpack_package() {
    local package=$1 dir=$2
    shift 2
    local download deb
    download=$(mktemp -d) || return 1
    # apt fetches as its own unprivileged user when it can write here.
    chmod a+rwx "$download"
    if ! (cd "$download" && apt-get download -q "$package" >&2); then
        refresh_package_lists
        if ! (cd "$download" && apt-get download -q "$package" >&2); then
            echo "cannot download $package" >&2
            rm -rf "$download"
            return 1
        fi
    fi
    deb=$(ls "$download"/*.deb 2>/dev/null | head -n 1)
    if [ -z "$deb" ]; then
        echo "apt-get download left no .deb of $package" >&2
        rm -rf "$download"
        return 1
    fi
    PACKAGE_VERSION=$(dpkg-deb -f "$deb" Version)
    rm -rf "$dir"
    mkdir -p "$dir" || return 1
    if ! dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$dir" --wildcards "$@"; then
        echo "cannot unpack $* from $deb" >&2
        rm -rf "$download"
        return 1
    fi
    rm -rf "$download"
}
