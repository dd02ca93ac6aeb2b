# shellcheck shell=bash
# How tests are named.

readonly longest_test_name=60

# A test's name and its suite's are in UpperCamelCase, and the name is short enough to be read in a list.
lint_test_names() {
    local faults
    faults=$(all_tests | grep -E "^[a-z]|\.[a-z]|\.\w{$((longest_test_name + 1)),}$") || return 0
    echo "These begin in lower case or are longer than $longest_test_name characters:"
    echo "$faults"
    return 1
}
