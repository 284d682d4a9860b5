# shellcheck shell=bash
# Shared by the scripts: run from the top of the tree, build a preset, run its tests, in few lines,
# of which one comes every few seconds whatever the output is.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# show_progress LOG: every ten seconds what was written last, for as long as the script runs. It waits
# in a read that nothing ever ends, because a process that sleeps would outlive it.
show_progress() {
    local begin=$SECONDS
    until read -rt 10 <> <(:); do
        kill -0 $$ 2>/dev/null || return
        printf '%5d s  %s\n' $((SECONDS - begin)) "$(tail -c 500 "$1" | tail -n 1 | cut -c 1-90)"
    done
}

# quietly LOG COMMAND...: of what the command prints a line now and then, and the end when it fails.
quietly() {
    local log=build/log/$1 status=0 progress
    shift
    mkdir -p build/log
    : >"$log"
    show_progress "$log" &
    progress=$!
    "$@" >"$log" 2>&1 </dev/null || status=$?
    kill $progress 2>/dev/null || true
    wait $progress 2>/dev/null || true
    if ((status)); then
        tail -n 100 "$log"
        echo "failed (whole output: $log): $*"
    fi
    return $status
}

# build PRESET [TARGET...]
build() {
    local preset=$1
    shift
    echo "building $preset"
    quietly "configure-$preset" cmake --preset "$preset"
    sed -n 's/^-- left out/   left out/p' "build/log/configure-$preset"
    local make=(cmake --build --preset "$preset" ${1:+--target "$@"})
    if [[ -t 1 ]]; then
        "${make[@]}"
    else
        quietly "build-$preset" "${make[@]}"
    fi
}

# Where the release run's tests note the errors that they produce; scripts/produced looks at it.
produced_file() { echo "$PWD/build/release/produced"; }

# run_tests PRESET [CTEST_ARGUMENT...]: on a terminal one line that moves, else one in 25 of those that
# passed, the others and the summary.
run_tests() {
    local preset=$1 passed=0 line
    shift
    if [[ $preset == release ]]; then
        rm -f "$(produced_file)"
        QVCL_PRODUCED=$(produced_file)
        export QVCL_PRODUCED
    fi
    if [[ -t 1 ]]; then
        ctest --preset "$preset" --progress "$@"
    else
        ctest --preset "$preset" "$@" </dev/null |
            while IFS= read -r line; do
                if [[ $line =~ ^\ *[0-9]+/[0-9]+\ Test\ +.*\ Passed\  ]]; then
                    ((++passed % 25 == 0)) || continue
                fi
                [[ $line =~ ^\ *Start\ +[0-9]+: ]] || echo "$line"
            done
    fi
}
