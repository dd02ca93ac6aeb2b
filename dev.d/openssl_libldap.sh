# shellcheck shell=bash
# The second TLS backend. Debian 12 builds libldap with GnuTLS, most other systems build it with OpenSSL, and the two
# report a failed handshake differently. So the tests with real servers run a second time against the distribution's
# source of the installed version, built with OpenSSL. Both builds have the same binary interface.

readonly openssl_libldap=$PWD/build/openssl-libldap

system_libldap_is_on_openssl() {
    ldd "$(pkg-config --variable=libdir ldap)/libldap.so" | grep -q libssl
}

# Apt with folders of its own, which asks the machine's repositories for sources. Leaves apt's own state as it is.
private_apt_get() {
    apt-get -o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts="$openssl_libldap/apt/sources" \
        -o Dir::State::lists="$openssl_libldap/apt/lists" -o Dir::Cache="$openssl_libldap/apt/cache" \
        -o APT::Sandbox::User="$(id -un)" -qq "$@"
}

# fetch_libldap_source VERSION: fetches into the folder `source`.
fetch_libldap_source() (
    rm -rf "$openssl_libldap" && mkdir -p "$openssl_libldap"/{source,apt/{sources,lists/partial,cache/archives/partial}} || exit
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
        [ ! -e "$file" ] ||
            sed -E 's/^deb[[:space:]]/deb-src /; s/^Types:.*/Types: deb-src/' "$file" \
                >"$openssl_libldap/apt/sources/${file##*/}" || exit
    done
    # Fails if any repository has no sources; what matters is whether the one source is found.
    private_apt_get update
    cd "$openssl_libldap/source" && private_apt_get source "openldap=$1"
)

# Installs into the folder `prefix`, without clients, server and manual pages.
compile_libldap() (
    cd "$openssl_libldap"/source/openldap-*/ || exit
    CFLAGS="-O2 -g -w" ./configure --prefix="$openssl_libldap/prefix" --sysconfdir="$openssl_libldap/prefix/etc" \
        --disable-slapd --disable-static --enable-shared --with-tls=openssl --with-cyrus-sasl --without-systemd \
        --disable-dependency-tracking || exit
    for folder in include libraries/liblutil libraries/liblber libraries/libldap; do
        make -C "$folder" depend && make -C "$folder" -j"$(nproc)" || exit
    done
    for folder in include libraries/liblber libraries/libldap; do
        make -C "$folder" install STRIP= || exit
    done
)

# Builds once for each installed version.
build_openssl_libldap() {
    local version
    version=$(dpkg-query -W -f '${source:Version}' libldap-dev) || return
    [ "$(cat "$openssl_libldap/version" 2>/dev/null)" != "$version" ] || return 0
    fetch_libldap_source "$version" && compile_libldap &&
        rm -rf "$openssl_libldap/source" "$openssl_libldap/apt" && echo "$version" >"$openssl_libldap/version"
}

# Only the test programs use the other library: the fixtures keep it from their servers. Each session loads the
# system's certificate authorities again, so slowly in OpenSSL that tests with thousands of sessions need more time.
check_openssl_libldap() {
    if system_libldap_is_on_openssl; then
        echo "ok   the system's own libldap is on OpenSSL: every other run tests that backend"
        return
    fi
    install_missing build test slapd samba ds389 openssl_libldap
    prepare_ds389 || return
    step "openssl-libldap" build_openssl_libldap && build dev || return
    step "tests on openssl-libldap" env LD_LIBRARY_PATH="$openssl_libldap/prefix/lib" TAVO_TEST_TLS_BACKEND=OpenSSL \
        TAVO_TEST_DEADLINE=300 ctest --test-dir build/dev --parallel $(($(nproc) * 2)) --no-tests=error --output-on-failure -L '^directory$'
}
