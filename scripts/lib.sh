# What the scripts share. To be sourced by a bash script with `set -euo pipefail`.
# shellcheck shell=bash

# The checkout that this file belongs to, without symbolic links.
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
readonly root

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

# setup: installs what is missing; silent when nothing is.
setup() {
    "$root/scripts/setup" || exit
}

# setup_for check|bench: the same, with what the scripts of that kind need.
setup_for() {
    "$root/scripts/setup" "--$1" || exit
}

# require_writable_build [PRESET]: says so in one line when nothing can be built here.
require_writable_build() {
    local folder=$root
    [[ ! -e $root/build ]] || folder=$root/build
    [[ ! -e $root/build/${1:-} ]] || folder=$root/build/${1:-}
    [[ -w $folder ]] || die "cannot write to ${folder%/}, where the build goes"
}

# configure PRESET [CMAKE ARGUMENT...]
configure() {
    quietly env -C "$root" cmake --preset "$@" || die "the build could not be configured"
}

# build PRESET TARGET...: configures and builds the targets in build/PRESET ("all": everything).
build() {
    require_writable_build "$1"
    say "building in build/$1"
    configure "$1"
    quietly env -C "$root" cmake --build --preset "$1" --parallel "$(nproc)" --target "${@:2}" ||
        die "the build failed"
}
