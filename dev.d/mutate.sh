# shellcheck shell=bash
# How much of the library the tests prove: whether they notice when it is broken on purpose.

# Works in a copy, build/mutate; the tree itself is never changed.
cmd_mutate() {
    if [ "${1:-}" = --check ]; then
        install_missing mutate
    else
        install_missing build test slapd mutate
    fi
    python3 dev.d/mutate.py "$@"
}

# Whether every mutation still finds its spot; builds nothing.
lint_mutations() {
    python3 dev.d/mutate.py --check
}
