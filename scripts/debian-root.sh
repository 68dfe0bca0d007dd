# For the scripts beside it: another Debian in a folder, and commands in it.
# shellcheck shell=bash
#
# A command in a root sees the tree at the same place as outside, and a build
# folder of its own there. Nothing stays mounted when it has ended.

# Installs what of the named packages this machine lacks.
install_here() {
    local missing=()
    for package in "$@"; do
        dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
    done
    if ((${#missing[@]})); then
        echo "installing ${missing[*]}"
        apt-get update -qq
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
            --no-install-recommends "${missing[@]}" >/dev/null
    fi
}

# make_root FOLDER SUITE ARCHITECTURE: the smallest Debian there is, unless it
# is there. Goes to the archive in the way that apt is set up here.
make_root() {
    [[ ! -e $1/root/made ]] || return 0
    install_here bubblewrap debootstrap debian-archive-keyring
    local http_proxy=
    eval "$(apt-config shell http_proxy Acquire::http::Proxy)"
    export http_proxy
    echo "making a Debian $2 of $3 in $1"
    rm -rf "$1"
    mkdir -p "$1"
    debootstrap --variant=minbase --arch="$3" "$2" "$1/root" >"$1/root.log" ||
        { tail -20 "$1/root.log"; return 1; }
    touch "$1/root/made"
}

# in_root FOLDER COMMAND...
in_root() {
    local folder
    folder=$(realpath "$1")
    shift
    mkdir -p "$folder/build"
    bwrap --die-with-parent --cap-add ALL --bind "$folder/root" / \
        --bind "$PWD" "$PWD" --bind "$folder/build" "$PWD/build" \
        --dev /dev --proc /proc --tmpfs /tmp --tmpfs /run \
        --ro-bind "$(realpath /etc/resolv.conf)" /etc/resolv.conf \
        --setenv CCACHE_DIR "$PWD/build/ccache" \
        --chdir "$PWD" "$@"
}

# install_in_root FOLDER PACKAGE...: with nothing to do it takes no time.
install_in_root() {
    local folder=$1
    shift
    in_root "$folder" dpkg -s "$@" >/dev/null 2>&1 && return
    echo "installing $* in $folder"
    in_root "$folder" bash -c 'apt-get update -qq &&
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
            --no-install-recommends "$@"' - "$@" >"$folder/packages.log" 2>&1 ||
        { tail -20 "$folder/packages.log"; return 1; }
}
