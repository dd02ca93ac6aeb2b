# shellcheck shell=bash
# How much of the library the tests cover. Only ldap/ and support/ are measured.

readonly least_line_coverage=97 least_branch_coverage=90

# To the compiler, a possible throw within an expression is a branch, and so is the clean-up after it; neither is a
# decision of ours. A log statement has eight branches, most of them such clean-ups; its decisions are those of the
# macro, which tests/unit/support/log_test.cpp covers. The lines themselves count like all others.
report_coverage() {
    gcovr --root . --object-directory build/coverage build/coverage -j "$(nproc)" \
        --filter 'ldap/' --filter 'support/' --exclude-throw-branches --exclude-unreachable-branches \
        --exclude-branches-by-pattern '^\s*TAVO_LOG_[A-Z]+\(' \
        --print-summary --html-details build/coverage/index.html --json build/coverage/coverage.json \
        --fail-under-line "$least_line_coverage" --fail-under-branch "$least_branch_coverage"
}

forget_coverage() {
    find build/coverage -name '*.gcda' -delete
}

# The package layer compiles its own copies of the library, which are not measured.
cmd_coverage() {
    local status=0
    install_missing build test slapd samba ds389 coverage
    prepare_ds389 || return
    build coverage && forget_coverage && run_tests coverage -LE '^package$' || return
    step "coverage" report_coverage || status=1
    grep -E '^(lines|branches): ' "$logs/coverage.log" | sed 's/^/     /' || true
    step "coverage reasons" python3 dev.d/coverage.py build/coverage || status=1
    grep '^no test reaches' "$logs/coverage-reasons.log" | sed 's/^/     /' || true
    echo "     build/coverage/index.html shows it line by line"
    return "$status"
}
