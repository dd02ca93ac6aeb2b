# shellcheck shell=bash
# Many threads at random, over connections that break: tests/stress.

# Turns off the threads' caches of freed memory, which the heap would count as in use.
readonly stress_heap=glibc.malloc.tcache_count=0

# check_stress PRESET [SECONDS]: checks the memory use only in a build without sanitizers.
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
