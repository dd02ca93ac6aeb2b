# shellcheck shell=bash
# The benchmarks: what is measured is declared in benchmarks/bench.py.

cmd_bench() {
    install_missing build slapd bench
    build bench && python3 -B benchmarks/bench.py "$@"
}
