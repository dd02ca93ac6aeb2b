# shellcheck shell=bash
# The demonstration: the tool, run against a throw-away server with a sample organisation.

# Shows a command as a user would type it, and runs it.
show() {
    printf '\n$ %s\n' "$*"
    "$@"
}

# Shows the first lines of a listing, and sets `listed` to the number of its records.
show_listing() {
    local all
    printf '\n$ %s\n' "$*"
    all=$("$@") || return
    head -n 16 <<<"$all"
    echo "..."
    listed=$(($(wc -l <<<"$all") - 1))
}

stop_demo_server() {
    trap - EXIT
    kill "$demo_server" 2>/dev/null || true
    wait "$demo_server" 2>/dev/null || true
}

cmd_demo() {
    install_missing build slapd
    build demo || return

    local url dn people logins groups listed fetched_users
    # The server stops when its standard input closes, so that it never outlives this shell.
    coproc SERVER { exec build/demo/tests/support/tavo_sample_server; }
    demo_server=$SERVER_PID
    trap stop_demo_server EXIT
    if ! read -r url dn TAVO_DEMO_PASSWORD people logins groups <&"${SERVER[0]}"; then
        echo "the sample directory's server has not started" >&2
        return 1
    fi
    export TAVO_DEMO_PASSWORD
    echo "A throw-away OpenLDAP server is up on $url: $people people, $logins of them with a login, $groups groups."

    local PATH=$PWD/build/demo/tools/tavo_ldap:$PATH
    local connection=(--url "$url" --admin-dn "$dn" --password-env TAVO_DEMO_PASSWORD)
    show tavo-ldap test "${connection[@]}" || return
    show tavo-ldap vendor "${connection[@]}" || return
    show_listing tavo-ldap users "${connection[@]}" --page-size 100 || return
    fetched_users=$listed
    show_listing tavo-ldap groups "${connection[@]}" --page-size 20 || return

    stop_demo_server
    printf '\nFetched %s users and %s groups, page by page. The server is stopped.\n' "$fetched_users" "$listed"
    [ "$fetched_users/$listed" = "$logins/$groups" ]
}
