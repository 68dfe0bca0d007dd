# For the scripts beside it: other Debians, each in a folder under build/.
# shellcheck shell=bash

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
    install_here bubblewrap
    [[ ! -e $1/made ]] || return 0
    install_here debootstrap debian-archive-keyring
    local http_proxy=
    eval "$(apt-config shell http_proxy Acquire::http::Proxy)"
    export http_proxy
    echo "making a Debian $2 of $3 in $1"
    rm -rf "$1"
    mkdir -p "$1"
    debootstrap --variant=minbase --arch="$3" "$2" "$1" >"$1.log" ||
        { tail -20 "$1.log"; return 1; }
    touch "$1/made"
}

# install_in_root FOLDER PACKAGE...
install_in_root() {
    local folder=$1
    shift
    scripts/in-root "$folder" dpkg -s "$@" >/dev/null 2>&1 && return
    echo "installing $* in $folder"
    # shellcheck disable=SC2016
    scripts/in-root "$folder" bash -c 'apt-get update -qq &&
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
            --no-install-recommends "$@" && apt-get clean' - "$@" \
        >"$folder.log" 2>&1 || { tail -20 "$folder.log"; return 1; }
}
