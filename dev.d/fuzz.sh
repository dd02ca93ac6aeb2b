# shellcheck shell=bash
# The fuzzers: each target for a while, two at a time. fuzz/README.md says what they check.

readonly fuzzing=$PWD/build/fuzz
readonly fuzz_seconds=20 fuzz_at_a_time=2 fuzz_timeout=20 fuzz_memory_mb=2048

fuzz_targets() {
    sed -nE 's/^tavo_fuzz_target\((\w+).*/\1/p' fuzz/CMakeLists.txt
}

# Starts from the committed inputs. New inputs go to build/fuzz/inputs, those that show a fault to
# build/fuzz/findings. Prints the processor time at the end.
fuzz_target() {
    local target=$1 seconds=$2 inputs=$fuzzing/inputs/$1 TIMEFORMAT='processor seconds: %U'
    mkdir -p "$inputs" "$fuzzing/findings"
    time "$fuzzing/fuzz/$target" "$inputs" "fuzz/corpus/$target" -dict="fuzz/$target.dict" -entropic=0 \
        -max_total_time="$seconds" -timeout="$fuzz_timeout" -rss_limit_mb="$fuzz_memory_mb" -print_final_stats=1 \
        -artifact_prefix="$fuzzing/findings/$target-" -seed="${fuzz_seed:-0}" && echo "fuzzed to the end"
}

# One line of the table, from a target's log.
fuzz_row() {
    awk -v target="$1" '
        /^Done [0-9]+ runs in/ { seconds = $5 }
        /^stat::number_of_executed_units:/ { runs = $2 }
        /^stat::peak_rss_mb:/ { memory = $2 }
        /^processor seconds:/ { processor = $3 }
        /^#[0-9]+.* cov: / { for (i = 1; i < NF; ++i) { if ($i == "cov:") edges = $(i + 1); if ($i == "corp:") corpus = $(i + 1) } }
        END {
            sub(/\/.*/, "", corpus)
            printf "     %-16s %10d runs %5d s %7.1f s processor %6d edges %6d inputs %5d MB\n",
                target, runs, seconds, processor, edges, corpus, memory
        }' "$logs/fuzz-$1.log"
}

fuzz_finding() {
    local file
    file=$(sed -n 's/.*Test unit written to //p' "$logs/fuzz-$1.log" | tail -n 1)
    if [ -n "$file" ]; then
        echo "     the input is in $file; again with: $fuzzing/fuzz/$1 $file"
    else
        echo "     no single input does it; again with: ./dev fuzz $1"
    fi
}

# fuzz_all SECONDS TARGET...: all targets run, even after a finding.
fuzz_all() {
    local seconds=$1 target running=0 status=0
    shift
    for target in "$@"; do
        if [ "$running" -eq "$fuzz_at_a_time" ]; then
            wait -n || true
            running=$((running - 1))
        fi
        rm -f "$logs/fuzz-$target.log"
        step "fuzz $target" fuzz_target "$target" "$seconds" &
        running=$((running + 1))
    done
    wait
    for target in "$@"; do
        fuzz_row "$target"
    done
    for target in "$@"; do
        grep -q '^fuzzed to the end' "$logs/fuzz-$target.log" && continue
        status=1
        fuzz_finding "$target"
    done
    return "$status"
}

# A number is the seconds for each target; every other argument is a target.
# shellcheck disable=SC2120 # ./dev passes its arguments
cmd_fuzz() {
    local argument seconds=$fuzz_seconds targets=() known
    known=$(fuzz_targets)
    for argument in "$@"; do
        if [[ $argument =~ ^[0-9]+$ ]]; then
            seconds=$argument
        elif grep -qxF -- "$argument" <<<"$known"; then
            targets+=("$argument")
        else
            echo "./dev fuzz: there is no target '$argument'; there are:" "$(tr '\n' ' ' <<<"$known")" >&2
            return 2
        fi
    done
    # shellcheck disable=SC2206 # a word each
    [ ${#targets[@]} -gt 0 ] || targets=($known)
    install_missing build fuzz
    build fuzz "${targets[@]/#/fuzz_}" || return
    fuzz_all "$seconds" "${targets[@]}"
}
