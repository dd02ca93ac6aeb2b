# shellcheck shell=bash
# How much of the library the tests prove: whether they notice when it is broken on purpose.

# Works in a copy, build/mutate; the tree itself is never changed.
cmd_mutate() {
    install_missing build test slapd mutate
    python3 dev.d/mutate.py "$@"
}
