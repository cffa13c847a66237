# shellcheck shell=bash
# What the scripts share. Source it; it changes to the top of the tree.

set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
top=$PWD

# say <text>: one line about what happens next.
say() {
    printf '\n== %s\n' "$*"
}

# die <text>: the reason on standard error, and the end.
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# run <command> [argument ...]: shows the command, then runs it.
run() {
    printf '$ %s\n' "$*"
    "$@"
}

# can_be_root: whether as_root has a way to do it.
can_be_root() {
    [[ $(id -u) == 0 ]] || command -v sudo >/dev/null
}

# as_root <command> [argument ...]: runs it as the super-user, through sudo for anybody else.
as_root() {
    if [[ $(id -u) == 0 ]]; then
        "$@"
    else
        sudo "$@"
    fi
}

# run_as_root <command> [argument ...]: shows the command as it is run, then runs it.
run_as_root() {
    printf '$ %s%s\n' "$([[ $(id -u) == 0 ]] || echo 'sudo ')" "$*"
    as_root "$@"
}

# hand_back <directory>: what was made there as root becomes the caller's own.
hand_back() {
    if [[ $(id -u) != 0 && -d $1 ]]; then
        as_root chown -R "$(id -u):$(id -g)" "$1"
    fi
}

# The machine's Debian architecture, empty on another system.
debian_architecture() {
    if command -v dpkg >/dev/null; then
        dpkg --print-architecture
    fi
}

# word_sizes: the presets of all word sizes that this machine can build and run.
word_sizes() {
    case $(uname -m) in
        x86_64)
            # A 32-bit Debian may run on a 64-bit kernel.
            if [[ $(debian_architecture) == i386 ]]; then
                echo i386
            else
                echo release i386
            fi
            ;;
        i?86) echo i386 ;;
        *) echo release ;;
    esac
}

# run_tests <name> <ctest argument ...>: runs the tests as root, and fails for a skip that nobody
# allowed.
run_tests() {
    local report=$top/build/$1-tests.xml code=0
    shift
    as_root rm -f "$report"
    # A reason to skip stands behind what the test says first, and many tests may share a process.
    run_as_root ctest "$@" --output-junit "$report" --test-output-size-passed 1048576 \
        --test-output-size-failed 1048576 || code=$?
    # Not every argument runs tests.
    if [[ -f $report ]]; then
        scripts/check-skips "$report" || code=1
    fi
    return "$code"
}

# configure <preset> [cmake argument ...]: silent unless it fails. A build tree that came along
# with a copied checkout is started afresh.
configure() {
    local preset=$1 tree=build/$1 log
    shift
    local fresh=()
    if [[ -f $tree/CMakeCache.txt ]] &&
        ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$top" "$tree/CMakeCache.txt"; then
        fresh=(--fresh)
    fi
    if [[ -e build && ! -w build ]] || [[ -e $tree && ! -w $tree ]]; then
        die "$top/$tree belongs to another user: remove it, or run this as that user"
    fi
    mkdir -p build
    log=build/configure-$preset.log
    set -- cmake --preset "$preset" "${fresh[@]}" "$@"
    printf '$ %s\n' "$*"
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        die "could not configure $tree"
    fi
}
