# shellcheck shell=bash
# The benchmarks. What is measured is declared in benchmarks/sections.py.

# The tests of the arithmetic behind the figures and of the command line.
bench_tests() {
    install_missing bench
    python3 -B -m unittest discover --start-directory benchmarks --pattern '*_test.py'
}

cmd_bench() {
    case ${1:-} in
        -h | --help | --docs | --record) # measure nothing
            python3 -B benchmarks/bench.py "$@"
            return
            ;;
    esac
    install_missing build slapd bench
    build bench || return
    case ${1:-} in
        --micro)
            shift
            build/bench/benchmarks/tavo_bench_micro "$@"
            return
            ;;
        --peers)
            shift
            install_missing bench_peers
            ;;
    esac
    python3 -B benchmarks/bench.py "$@"
}
