# shellcheck shell=bash
# The packages that the commands need, by purpose, under Debian's names.

declare -A packages=(
    [build]="g++ cmake ninja-build pkg-config qt6-base-dev libldap-dev libssl-dev rapidjson-dev libcli11-dev"
    [test]="libgtest-dev libgmock-dev ccache"
    [slapd]="slapd"
    [samba]="samba-ad-dc samba-dsdb-modules samba-ad-provision python3"
    [ds389]="389-ds-base-libs"
    [openssl_libldap]="gcc make libc6-dev dpkg-dev libssl-dev libsasl2-dev"
    [roots]="debootstrap git"
    [coverage]="gcovr python3"
    [fuzz]="clang libclang-rt-dev"
    [mutate]="git python3"
    [bench]="python3 openssl strace valgrind libbenchmark-dev ldap-utils"
    [bench_peers]="python3-ldap python3-ldap3 python3-bonsai libnet-ldap-perl php-cli php-ldap golang-go golang-github-go-ldap-ldap-dev"
    [lint]="clang clang-format clang-tidy shellcheck git python3"
)

# install_missing PURPOSE...: installs those packages of the purposes that are missing; otherwise touches nothing.
install_missing() {
    local purpose wanted="" missing
    for purpose in "$@"; do
        wanted+=" ${packages[$purpose]}"
    done
    if ! command -v apt-get >/dev/null; then
        explain_packages "$wanted"
        return
    fi
    # shellcheck disable=SC2086 # the list is words
    missing=$(comm -23 <(printf '%s\n' $wanted | sort -u) <(installed_packages $wanted | sort -u))
    [ -n "$missing" ] || return 0
    # shellcheck disable=SC2086
    step "install packages" apt_install $missing
}

installed_packages() {
    dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null | sed -n 's/ installed$//p'
}

# Without apt nothing can be installed, so it says what is needed; configuring shows whether it is there.
explain_packages() {
    local wanted
    wanted=$(echo "$1" | tr -s ' \n' ' ')
    echo "There is no apt here: see that you have the equivalents of Debian's$wanted" >&2
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Installs packages without touching the machine's services. The test servers' packages bring services of their own,
# which must not be started now (a policy forbids it while apt runs, unless the machine has one) or at the next boot.
apt_install() (
    policy=/usr/sbin/policy-rc.d
    services_before=$(ls /etc/init.d)
    if [ ! -e "$policy" ]; then
        trap 'as_root rm -f "$policy"' EXIT
        trap 'exit 130' INT TERM
        printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" >/dev/null && as_root chmod 755 "$policy" || exit
    fi
    if [[ " $* " == *" slapd "* ]]; then
        echo "slapd slapd/no_configuration boolean true" | as_root debconf-set-selections || exit
    fi
    as_root apt-get -o DPkg::Lock::Timeout=300 -qq update || exit
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0 -y \
        --no-install-recommends install "$@" || exit
    for service in $(comm -13 <(echo "$services_before") <(ls /etc/init.d)); do
        as_root update-rc.d "$service" disable || exit
    done
)
