# Shared by the scripts beside it; sourced, not run.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

jobs=$(nproc)

# say TEXT: a line that stands out between the output of compilers and tests.
say() {
    if [[ -t 1 ]]; then
        printf '\e[1m==> %s\e[0m\n' "$*"
    else
        printf '==> %s\n' "$*"
    fi
}

# die TEXT: the reason on standard error, status 1.
die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# build PRESET [TARGET...]: configures and builds; without targets, everything.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" >/dev/null || cmake --preset "$preset"
    cmake --build --preset "$preset" --parallel "$jobs" ${@:+--target "$@"}
}

# source_files: every C++ file of the tree, one a line.
source_files() {
    find src tests tools bench fuzz -name '*.cpp' -o -name '*.h' | sort
}
