# shellcheck shell=bash
# 389 Directory Server. Installing its package would add an account, a service and some thirty packages for
# administration, so it is only unpacked; the libraries that it needs are in a package of their own.

readonly ds389=$PWD/build/unpacked

# fetch_ds389 VERSION: updates the package lists first if they don't know the version.
fetch_ds389() {
    apt-get download "389-ds-base=$1" || { as_root apt-get -qq update && apt-get download "389-ds-base=$1"; }
}

unpack_ds389() (
    rm -rf "$ds389" && mkdir -p "$ds389" && cd "$ds389" || exit
    fetch_ds389 "$1" && dpkg -x 389-ds-base_*.deb . && rm 389-ds-base_*.deb && echo "$1" >version
)

# Unpacks once for each version of its libraries, unless the server is installed.
prepare_ds389() {
    local version
    if [ -e /usr/sbin/ns-slapd ] || ! command -v apt-get >/dev/null; then
        return
    fi
    version=$(dpkg-query -W -f '${Version}' 389-ds-base-libs) || return
    [ "$(cat "$ds389/version" 2>/dev/null)" = "$version" ] || step "unpack 389-ds-base" unpack_ds389 "$version"
}
