# shellcheck shell=bash
# Steps: commands that are silent when they succeed, and show the reason and the log when they fail.

readonly logs=$PWD/build/logs

# seconds_since NANOSECONDS: the seconds from then to now, with one decimal.
seconds_since() {
    local tenths=$((($(date +%s%N) - $1) / 100000000))
    echo "$((tenths / 10)).$((tenths % 10))"
}

# step NAME COMMAND...: runs COMMAND with its output in the step's log, and prints one line with the outcome.
# COMMAND has no standard input, so that nothing can wait for an answer. `set -e` has no effect inside a function
# called this way: a function used as a step chains its commands with &&.
step() {
    local name=$1 log status=0 started
    shift
    log=$logs/${name//[^A-Za-z0-9._-]/-}.log
    started=$(date +%s%N)
    mkdir -p "$logs"
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if [ "$status" -eq 0 ]; then
        printf '%-4s %-28s %7s s\n' ok "$name" "$(seconds_since "$started")"
        return 0
    fi
    printf '%-4s %-28s %7s s   exit status %d, log: %s\n' FAIL "$name" "$(seconds_since "$started")" "$status" "$log"
    # Of a test run, only what failed.
    grep -vE '^ *Start +[0-9]+: |Test +#[0-9]+: .* Passed ' "$log" | tail -n 60 | cut -c -200 | sed 's/^/     | /'
    return "$status"
}

# build PRESET [TARGET...]: configures the preset if it is new or the presets have changed, and builds.
build() {
    local preset=$1 targets=()
    shift
    [ $# -eq 0 ] || targets=(--target "$@")
    if [ ! build/"$preset"/build.ninja -nt CMakePresets.json ]; then
        step "configure $preset" cmake --preset "$preset" || return
    fi
    step "build $preset" cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
}
