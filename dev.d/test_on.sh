# shellcheck shell=bash
# The tests on a bare Debian release: of the committed tree, in a root of its own that is made anew each time, or brought
# up to date.

declare -A debian_releases=([debian12]=bookworm [debian13]=trixie)

# The mirror from which this machine's apt gets Debian, unless another is given.
debian_mirror() {
    local mirror
    # shellcheck disable=SC2016 # expanded by apt-get
    mirror=${TAVO_DEBIAN_MIRROR:-$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' |
        grep -m 1 -E '/debian/?$')}
    [ -n "$mirror" ] || echo "this machine's apt knows no mirror of Debian: set TAVO_DEBIAN_MIRROR" >&2
    echo "$mirror"
}

# How this machine's apt reaches its mirrors, such as through a proxy; the root needs the same settings.
apt_transport() {
    apt-config dump | grep -E '^Acquire::(http|https|ftp|Retries|Check-)'
}

# make_root RELEASE FOLDER: installs the release's minimal system, and the committed tree in /src.
make_root() {
    local mirror proxy
    mirror=$(debian_mirror) && [ -n "$mirror" ] || return
    proxy=$(apt-config dump --format '%v' Acquire::http::Proxy)
    rm -f "$2.commit" && as_root rm -rf --one-file-system "$2" && mkdir -p "$2" &&
        as_root env ${proxy:+http_proxy="$proxy"} debootstrap --variant=minbase "$1" "$2" "$mirror" || return
    apt_transport | as_root tee "$2/etc/apt/apt.conf.d/90transport" >/dev/null
    as_root cp /etc/resolv.conf /etc/hosts "$2/etc/" && as_root mkdir "$2/src" &&
        git archive HEAD | as_root tar -x -C "$2/src" && git rev-parse HEAD >"$2.commit"
}

# update_root RELEASE FOLDER: brings the committed tree into a root that has an earlier one, and all that was built of it.
# A file that has changed gets the present time, not that of its commit, or the build might think it had it already.
update_root() {
    local former
    [ -e "$2.commit" ] || { echo "there is no root yet: ./dev test-on makes it" && return 1; }
    former=$(cat "$2.commit")
    git diff -z --name-only --no-renames --diff-filter=D "$former" HEAD | (cd "$2/src" && as_root xargs -0 -r rm -f) &&
        git diff -z --name-only --no-renames --diff-filter=d "$former" HEAD | xargs -0 -r git archive HEAD -- |
        as_root tar -x -i -m -C "$2/src" && git rev-parse HEAD >"$2.commit"
}

# in_root FOLDER COMMAND...: runs as root, with mounts and processes of its own. The kernel removes both when the
# command ends, and kills the command when this shell ends. The network is the machine's.
in_root() {
    local root=$1
    shift
    # shellcheck disable=SC2016 # expanded by the inner shell
    as_root setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --kill-child bash -c '
        mount --rbind /dev "$0/dev" && mount -t proc proc "$0/proc" &&
            exec chroot "$0" /usr/bin/env --ignore-environment HOME=/root TERM="$TERM" \
                PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"' "$root" "$@"
}

# test_in_root COMMAND RELEASE [TEST ARGUMENTS]: COMMAND gets the release and its folder ready for the tests.
test_in_root() {
    local prepare=$1 name=${2:-} release root
    release=${debian_releases[${name:-none}]:-}
    if [ -z "$release" ]; then
        echo "usage: ./dev test-on RELEASE [TEST ARGUMENTS], with one of ${!debian_releases[*]}" >&2
        return 2
    fi
    shift 2
    root=$PWD/build/roots/$name
    install_missing roots
    step "root $name" "$prepare" "$release" "$root" || return
    echo "From here on, what is said of build/logs is in build/roots/$name/src:"
    in_root "$root" /src/dev test "$@"
}

cmd_test_on() { test_in_root make_root "$@"; }

cmd_retest_on() { test_in_root update_root "$@"; }
