# What the scripts share. To be sourced by a bash script with `set -euo pipefail`, whose first comment is
# what --help shows.
# shellcheck shell=bash

# The checkout that this file belongs to, without symbolic links.
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
readonly root

case ${1:-} in
    -h | --help)
        sed -n '1d; /^#/!q; /^# shellcheck/!s/^# \{0,1\}//p' -- "${BASH_SOURCE[1]}"
        exit
        ;;
esac

# say TEXT: one line about what the script is doing, apart from what it prints as its result.
say() {
    printf '%s: %s\n' "scripts/${0##*/}" "$1" >&2
}

# die TEXT: says in one line why the script cannot go on, and ends it with $die_status (1).
die() {
    say "$1"
    exit "${die_status:-1}"
}

# quietly COMMAND [ARG...]: shows what the command prints only when it fails.
quietly() {
    local output status=0
    output=$("$@" 2>&1 </dev/null) || status=$?
    ((status == 0)) || printf '%s\n' "$output" >&2
    return "$status"
}

# setup_for KIND: installs what scripts/setup --KIND does; silent when nothing is missing.
setup_for() {
    "$root/scripts/setup" "--$1" || exit
}

# use_build NAME: makes build/NAME this script's own until it ends. Says which script it waits for, or in
# one line that nothing can be built here.
use_build() {
    local folder=$root lock=$root/build/$1.lock descriptor
    [[ ! -e $root/build ]] || folder=$root/build
    [[ ! -e $root/build/$1 ]] || folder=$root/build/$1
    [[ -w $folder ]] || die "cannot write to ${folder%/}, where the build goes"
    [[ " ${used[*]-} " != *" $1 "* ]] || return 0
    mkdir -p "$root/build"
    exec {descriptor}>>"$lock"
    if ! flock --nonblock "$descriptor"; then
        say "waiting for $(<"$lock"), which uses build/$1"
        flock "$descriptor"
    fi
    echo "scripts/${0##*/} (process $$)" >"$lock"
    used+=("$1")
}

# configure PRESET [CMAKE ARGUMENT...]
configure() {
    quietly env -C "$root" cmake --preset "$@" || die "the build could not be configured"
}

# build PRESET TARGET...: configures with $cmake_arguments and builds the targets in build/PRESET ("all":
# everything). Does nothing within a test of that folder, which ORBA_BUILT names.
build() {
    local folder=$1
    [[ $1 != check ]] || folder=dev # it differs from dev in its tests only
    if [[ ${ORBA_BUILT:-} == "$root/build/$folder" ]]; then return; fi
    use_build "$folder"
    say "building in build/$folder"
    configure "$1" "${cmake_arguments[@]}"
    quietly env -C "$root" cmake --build --preset "$1" --parallel "$(nproc)" --target "${@:2}" ||
        die "the build failed"
}

# compilers: Debian's packages of those from g++ 12 and clang 14 on with which everything is built, one a line.
compilers() (
    # shellcheck source=/dev/null
    source /etc/os-release
    case $ID${VERSION_ID-} in
        debian12) printf '%s\n' g++-12 clang-14 clang-15 clang-16 clang-19 ;;
        debian13) printf '%s\n' g++-12 g++-13 g++-14 clang-17 clang-18 clang-19 ;;
        *) printf '%s\n' g++ clang ;;
    esac
)

used=()
cmake_arguments=()
