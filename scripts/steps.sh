# Sourced by the scripts that take minutes, so that each step says what it does and how long the script has run.
# Scripts that call each other share one clock.
export ZEVRANT_STEPS_SINCE=${ZEVRANT_STEPS_SINCE:-$(date +%s)}

# step TEXT: announces what comes next.
step() {
    local seconds=$(($(date +%s) - ZEVRANT_STEPS_SINCE))
    printf '== %d:%02d  %s\n' $((seconds / 60)) $((seconds % 60)) "$1"
}

# buildTargets FOLDER [TARGET...]: with the build's own counter on a terminal, and without a word elsewhere unless
# something fails.
buildTargets() {
    local folder=$1 quiet=()
    shift
    [ -t 1 ] || quiet=(-- --quiet)
    cmake --build "$folder" --parallel "$(nproc)" ${1:+--target "$@"} "${quiet[@]}"
}
