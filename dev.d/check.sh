# shellcheck shell=bash
# What a change must pass besides ./dev test. Each line of the list is a command; all run, whatever fails.

readonly check_steps=(
    "sanitize asan"
    "sanitize tsan"
    "check_stress asan"
    "check_stress tsan"
    "check_stress dev 30"
    "check_every_byte"
    "check_openssl_libldap"
    "check_fuzz"
    "cmd_lint"
)

# The package layer tests what is installed, which the sanitizers' builds are not meant for.
sanitize() {
    local preset=$1
    build "$preset" && run_tests "$preset" -LE '^package$'
}

# ./dev test looks at some places of a conversation with Samba; here it breaks off at each of a small one.
check_every_byte() {
    build dev directory_active_directory_faults &&
        TAVO_TEST_STRIDE=1 TAVO_TEST_DEADLINE=1200 step "every byte from Samba" \
            build/dev/tests/directory/directory_active_directory_faults --gtest_filter='*MayBreakOffAfterAnyByte'
}

# Takes the same course each time: what nobody has found yet is not to fail somebody's change by chance.
check_fuzz() {
    local fuzz_seed=1
    cmd_fuzz
}

cmd_check() {
    local line failed=0
    install_missing build test slapd samba ds389 lint
    prepare_ds389 || return
    for line in "${check_steps[@]}"; do
        # shellcheck disable=SC2086 # a command and its arguments
        $line || failed=$((failed + 1))
    done
    echo "$((${#check_steps[@]} - failed)) of ${#check_steps[@]} checks good"
    [ "$failed" -eq 0 ]
}
