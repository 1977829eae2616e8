# What the tests of the sources share. To be sourced with `set -euo pipefail`.
# shellcheck shell=bash

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
cd -- "$root" || exit

fail() {
    echo "FAIL $1"
    exit 1
}

# need COMMAND PACKAGE: fails with what to install when the command is missing.
need() {
    command -v "$1" >/dev/null || fail "$1 is missing: as root, apt-get install $2"
}

# need_files NAME...: fails when there is nothing to look at.
need_files() {
    (($# > 0)) || fail "no files found"
    echo "$# files"
}
