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

lint_shell() {
    git ls-files -- dev .ci/run '*.sh' ':!dev.d/*' | xargs shellcheck --external-sources
}

# The program that the README shows is one that is built and tested.
lint_readme() {
    sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d' | diff - examples/fetch_users.cpp
}

cmd_lint() {
    local failures=0
    install_missing build test lint
    step "format" lint_format || failures=1
    step "shellcheck" lint_shell || failures=1
    step "readme" lint_readme || failures=1
    build clang || failures=1
    build dev || return
    step "clang-tidy" lint_tidy || failures=1
    return "$failures"
}

cmd_format() {
    install_missing lint
    sources | xargs "$(versioned clang-format)" -i
}
