# shellcheck shell=bash
# Shared by the scripts: run from the top of the tree, build a preset, run its tests, in few lines.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# quietly LOG COMMAND...: what the command prints is shown only when it fails.
quietly() {
    local log=build/log/$1 status=0
    shift
    mkdir -p build/log
    "$@" >"$log" 2>&1 </dev/null || status=$?
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
    local make=(cmake --build --preset "$preset" ${1:+--target "$@"})
    if [[ -t 1 ]]; then
        "${make[@]}"
    else
        quietly "build-$preset" "${make[@]}"
    fi
}

# Where the release run's tests note the errors that they produce; scripts/produced looks at it.
produced_file() { echo "$PWD/build/release/produced"; }

# run_tests PRESET [CTEST_ARGUMENT...]: on a terminal one line that moves, else failures and summary.
run_tests() {
    local preset=$1
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
            sed -E '/^ *(Start +[0-9]+:|[0-9]+\/[0-9]+ Test +#[0-9]+: .* Passed )/d'
    fi
}
