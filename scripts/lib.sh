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

# require_writable_build: says so in one line when nothing can be built here.
require_writable_build() {
    local folder=$root
    [[ ! -e $root/build ]] || folder=$root/build
    [[ ! -e $root/build/dev ]] || folder=$root/build/dev
    [[ -w $folder ]] || die "cannot write to $folder, where the build goes"
}

# build TARGET...: configures and builds the targets in build/dev ("all": everything).
build() {
    require_writable_build
    say "building in build/dev"
    quietly env -C "$root" cmake --preset dev || die "the build could not be configured"
    quietly env -C "$root" cmake --build --preset dev --parallel "$(nproc)" --target "$@" ||
        die "the build failed"
}
