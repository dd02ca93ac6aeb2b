# shellcheck shell=bash
# What a reader of the code should not have to look for.

# The formatter's output differs between its versions, so the one that the tree was formatted with comes first.
versioned() {
    command -v "$1-14" || command -v "$1"
}

sources() {
    git ls-files --cached --others --exclude-standard -- '*.h' '*.cpp'
}

lint_format() {
    sources | xargs "$(versioned clang-format)" --dry-run -Werror
}

# One file at a time on each processor; the checks and their reach are in .clang-tidy.
lint_tidy() {
    git ls-files -- 'ldap/*.cpp' 'support/*.cpp' 'tools/*.cpp' |
        xargs --max-procs="$(nproc)" --max-args=1 "$(versioned clang-tidy)" --quiet -p build/dev
}

# dev.d is checked as part of dev, which sources it: its files use each other's variables and functions.
lint_shell() {
    git ls-files -- dev .ci/run '*.sh' ':!dev.d/*' | xargs shellcheck --external-sources --check-sourced
}

# The program that the README shows is one that is built and tested.
lint_readme() {
    # shellcheck disable=SC2016 # a fence of Markdown
    sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d' | diff - examples/fetch_users.cpp
}

# The first line of every comment on a deliberate oddity.
by_design_comments() {
    git grep --untracked -oh 'By design:.*' -- ldap support tools | sed -E 's/^By design: ?//'
}

# by_design_rows PAGE: the beginnings of such comments that PAGE has a row for.
by_design_rows() {
    sed -nE 's/^\| "([^"]*)" \|.*/\1/p' "$1"
}

# A comment is known by its beginning alone, so that code may move.
by_design_faults() {
    local comments rows comment row begun
    mapfile -t comments < <(by_design_comments)
    mapfile -t rows < <(by_design_rows docs/by-design.md)
    for row in "${rows[@]}"; do
        begun=0
        for comment in "${comments[@]}"; do
            [[ $comment != "$row"* ]] || begun=$((begun + 1))
        done
        [ "$begun" -eq 1 ] || echo "$begun comments begin like this, and not one: $row"
    done
    for comment in "${comments[@]}"; do
        begun=0
        for row in "${rows[@]}"; do
            [[ $comment != "$row"* ]] || begun=$((begun + 1))
        done
        [ "$begun" -eq 1 ] || echo "$begun rows for this comment, and not one: $comment"
    done
}

lint_by_design() {
    local faults
    faults=$(diff --label docs --label tests/evidence -U0 \
        <(by_design_rows docs/by-design.md) <(by_design_rows tests/evidence/by-design.md)
        by_design_faults)
    echo "$faults"
    [ -z "$faults" ]
}

# SUITE.NAME of every test.
all_tests() {
    git ls-files -z --cached --others --exclude-standard -- 'tests/*.cpp' | xargs -0 cat |
        grep -Pzo 'TEST(_F|_P)?\(\K\w+,\s+\w+(?=\))' | tr -d ' \n' | tr ',\0' '.\n' | sort -u
}

documented_tests() {
    # shellcheck disable=SC2016 # a code span of Markdown
    git grep --untracked -ohP '`\K[A-Z]\w*\.\w+(?=[` ])' -- tests/evidence | sort -u
}

# A row of a table with a column of tests has a test there.
documented_without_test() {
    # shellcheck disable=SC2016 # expanded by awk
    git ls-files -z --cached --others --exclude-standard -- tests/evidence | xargs -0 awk -F '|' '
        !/^\|/ { in_table = 0; next }
        in_table && !/^\|---/ && $(NF - 1) !~ /`[A-Z][A-Za-z0-9]*\.[A-Za-z0-9]+`/ { print FILENAME ": no test: " $0 }
        $(NF - 1) == " test " { in_table = 1 }'
}

# The manual is for users of the library, to whom a test says nothing.
tests_in_manual() {
    git grep --untracked -nwFf <(all_tests) -- docs README.md
}

# names_marked MARK REPORT: the tests that GoogleTest marks so in a report of a run, without their instances.
names_marked() {
    grep -oP "\[ *$1 *\] (\w+/)?\K[A-Z]\w*\.\w+" "$2" | sort -u
}

# Whether REPORT is of a run of all tests of the build, as they are now.
is_of_whole_run() {
    [ -e "$1" ] && [ -z "$(find tests -type f -not -path 'tests/evidence/*' -newer "$1" -print -quit)" ] &&
        [ "$(junit_count dev tests)" = "$(ctest --test-dir build/dev -N | sed -n 's/^Total Tests: //p')" ]
}

documented_but_not_passed() {
    local report=$logs/tests-dev.xml
    ! is_of_whole_run "$report" ||
        comm -23 <(documented_tests) <(comm -23 <(names_marked OK "$report") <(names_marked FAILED "$report"))
}

lint_documents() {
    local faults
    faults=$(comm -23 <(documented_tests) <(all_tests) | sed 's/^/there is no such test: /' &&
        documented_without_test &&
        { tests_in_manual || true; } | sed 's/^/a test in the manual: /' &&
        documented_but_not_passed | sed 's/^/did not pass in the last run of all tests: /') || return
    echo "$faults"
    [ -z "$faults" ]
}

# No include runs against the drawing of modules in ARCHITECTURE.md.
lint_includes() {
    python3 dev.d/lint_includes.py
}

cmd_lint() {
    local failures=0
    install_missing build test lint
    step "format" lint_format || failures=1
    step "shellcheck" lint_shell || failures=1
    step "readme" lint_readme || failures=1
    step "by-design" lint_by_design || failures=1
    step "documents" lint_documents || failures=1
    step "includes" lint_includes || failures=1
    step "test names" lint_test_names || failures=1
    step "mutations" lint_mutations || failures=1
    build clang || failures=1
    build dev || return
    step "clang-tidy" lint_tidy || failures=1
    return "$failures"
}

cmd_format() {
    install_missing lint
    sources | xargs "$(versioned clang-format)" -i
}
