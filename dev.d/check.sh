# shellcheck shell=bash
# What a change must pass besides ./dev test. Each line of the list is a command; all of them run, even after a failure.

readonly check_steps=(
    "check_demo"
    "check_release"
    "sanitize asan"
    "sanitize tsan"
    "check_stress asan"
    "check_stress tsan"
    "check_stress dev 30"
    "check_every_byte"
    "check_openssl_libldap"
    "check_fuzz"
    "check_bench"
    "cmd_lint"
)

# The first command that README.md shows.
check_demo() {
    step "demo" ./dev demo
}

# The command line that README.md gives to users.
build_release() {
    rm -rf build/release && cmake --preset release && cmake --build --preset release
}

# Compiler warnings are no errors there, so that a newer compiler doesn't stop a user; here they are. Built anew, so
# that the compiler's cache repeats the warnings of files that have not changed.
check_release() {
    local prefix status=0
    step "build release" build_release && step "release without warnings" no_warnings "$logs/build-release.log" || return
    prefix=$(mktemp -d) || return
    step "install release" cmake --install build/release --prefix "$prefix" || status=1
    rm -rf "$prefix"
    return "$status"
}

no_warnings() {
    ! grep 'warning:' "$1"
}

# The package layer tests the installed library, which the sanitizers' builds are not meant for.
sanitize() {
    local preset=$1
    build "$preset" && run_tests "$preset" -LE '^package$'
}

# ./dev test breaks off a conversation with Samba at some places; this does so at every byte of a small one.
check_every_byte() {
    build dev directory_active_directory_faults &&
        TAVO_TEST_STRIDE=1 TAVO_TEST_DEADLINE=1200 step "every byte from Samba" \
            build/dev/tests/directory/directory_active_directory_faults --gtest_filter='*MayBreakOffAfterAnyByte'
}

# Runs with a fixed seed: a fault that nobody has found yet must not fail an unrelated change by chance.
check_fuzz() {
    local fuzz_seed=1
    # shellcheck disable=SC2119 # all targets, for the usual time
    cmd_fuzz
}

# Judges no time, which depends on what else the machine does, but that every client reads everything, and that an entry
# takes no more instructions than it did.
check_bench() {
    local status=0
    step "arithmetic of bench" bench_tests || status=1
    step "bench --quick" ./dev bench --quick || return
    step "bench --check" ./dev bench --check || status=1
    return "$status"
}

cmd_check() {
    local line failed=0
    install_missing build test slapd samba ds389 fuzz bench lint
    prepare_ds389 || return
    for line in "${check_steps[@]}"; do
        # shellcheck disable=SC2086 # a command and its arguments
        $line || failed=$((failed + 1))
    done
    echo "$((${#check_steps[@]} - failed)) of ${#check_steps[@]} checks good"
    [ "$failed" -eq 0 ]
}
