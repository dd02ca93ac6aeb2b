# shellcheck shell=bash
# Runs the tests of a build and counts the results.

# run_tests PRESET [CTEST ARGUMENT...]: runs tests of that build in parallel, with the output of failures in the log.
run_tests() {
    local preset=$1
    shift
    # A test mostly waits for a server, so there may be more tests than processors.
    step "tests $preset" ctest --test-dir "build/$preset" --parallel $(($(nproc) * 2)) --no-tests=error \
        --output-on-failure --test-output-size-passed 1000000 --output-junit "$logs/tests-$preset.xml" "$@"
}

# junit_count PRESET ATTRIBUTE: a number from the head of CTest's report.
junit_count() {
    tr '\n\t' '  ' <"$logs/tests-$1.xml" | grep -o '<testsuite [^>]*>' | grep -o " $2=\"[0-9]*\"" | grep -o '[0-9]*'
}

# A test that was skipped or could not run has proved nothing: it counts as failed.
summarise_tests() {
    local preset=$1 all failed
    all=$(junit_count "$preset" tests)
    failed=$(($(junit_count "$preset" failures) + $(junit_count "$preset" skipped) + $(junit_count "$preset" disabled)))
    echo "$((all - failed)) passed, $failed failed"
    [ "$failed" -eq 0 ]
}

cmd_test() {
    local selection=() servers=(slapd samba ds389) status=0
    case ${1:-} in
        "") ;;
        quick) selection=(-L '^(unit|call|wire)$') servers=() ;;
        *) selection=(-R "$1") ;;
    esac
    install_missing build test "${servers[@]}"
    [ ${#servers[@]} -eq 0 ] || prepare_ds389 || return
    build dev || return
    rm -f "$logs/tests-dev.xml"
    run_tests dev "${selection[@]}" || status=$?
    [ -e "$logs/tests-dev.xml" ] || return "$status"
    summarise_tests dev && return "$status"
}
