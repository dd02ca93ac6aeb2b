# shellcheck shell=bash
# Many threads at random over connections that meet with accidents: tests/stress.

# check_stress PRESET [SECONDS]. How much memory it takes, it looks at without a sanitizer only.
check_stress() {
    build "$1" tavo_stress && step "stress $1" "build/$1/tests/stress/tavo_stress" "${2:-60}"
}

cmd_stress() {
    local preset=${TAVO_STRESS_PRESET:-dev}
    install_missing build test slapd
    build "$preset" tavo_stress && "build/$preset/tests/stress/tavo_stress" "$@"
}
