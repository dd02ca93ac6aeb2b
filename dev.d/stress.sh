# shellcheck shell=bash
# Many threads at random over connections that meet with accidents: tests/stress.

# run_stress PRESET [SECONDS [SEED]]
run_stress() {
    local preset=$1
    shift
    LSAN_OPTIONS="suppressions=$PWD/tests/support/lsan.supp:print_suppressions=0" \
        ASAN_OPTIONS="fast_unwind_on_malloc=0:malloc_context_size=10" "build/$preset/tests/stress/tavo_stress" "$@"
}

check_stress() {
    build "$1" tavo_stress && step "stress $1" run_stress "$1" 60
}

cmd_stress() {
    local preset=${TAVO_STRESS_PRESET:-dev}
    install_missing build test slapd
    build "$preset" tavo_stress && run_stress "$preset" "$@"
}
