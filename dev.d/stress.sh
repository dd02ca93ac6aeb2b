# shellcheck shell=bash
# Many threads at random over connections that meet with accidents: tests/stress.

# Without the caches in which each thread keeps what it has freed: the heap would count that as in use.
readonly stress_heap=glibc.malloc.tcache_count=0

# check_stress PRESET [SECONDS]. How much memory it takes, it looks at without a sanitizer only.
check_stress() {
    build "$1" tavo_stress &&
        GLIBC_TUNABLES=$stress_heap step "stress $1" "build/$1/tests/stress/tavo_stress" "${2:-60}"
}

cmd_stress() {
    local preset=${TAVO_STRESS_PRESET:-dev}
    install_missing build test slapd
    build "$preset" tavo_stress &&
        GLIBC_TUNABLES=$stress_heap "build/$preset/tests/stress/tavo_stress" "$@"
}
