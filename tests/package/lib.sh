# What the package tests share. To be sourced with `set -euo pipefail`.
# shellcheck shell=bash

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
readonly here

fail() {
    echo "FAIL $1" >&2
    exit 1
}

# need COMMAND PACKAGE: fails with what to install when the command is missing.
need() {
    command -v "$1" >/dev/null || fail "$1 is missing: as root, apt-get install $2"
}

# begin FOLDER: makes the folder anew for what the test writes, and goes there. What a program of the
# test might take from the caller's environment is kept away.
begin() {
    unset CMAKE_PREFIX_PATH CMAKE_GENERATOR PKG_CONFIG_PATH LD_LIBRARY_PATH LIBRARY_PATH CPATH DESTDIR
    export CMAKE_BUILD_PARALLEL_LEVEL=2
    rm -rf -- "$1"
    mkdir -p -- "$1"
    cd -- "$1" || exit
    echo '{ "serial_number": "ORBA-0123456789" }' >profile.json
    export ORBA_HOST_PROFILE=$PWD/profile.json
}

# quietly COMMAND [ARG...]: shows what the command prints only when it fails, and ends the test then.
quietly() {
    local output
    output=$("$@" 2>&1) || fail "$*"$'\n'"$output"
}

# expect_output NAME PROGRAM [ARG...]: the consumer runs and prints what it should.
expect_output() {
    local name=$1 output
    shift
    output=$("$@" 2>&1) || fail "$name: $* ended with status $?: $output"
    diff -u "$here/consumer/expected.txt" - <<<"$output" || fail "$name: other output than expected"
    echo "ok   $name"
}

# cmake_consumer NAME CMAKE-ARGUMENT...: builds the consumer in the folder NAME with find_package().
cmake_consumer() {
    local name=$1
    shift
    quietly cmake -S "$here/consumer" -B "$name" -G Ninja "$@"
    quietly cmake --build "$name"
}

# pkg_config_consumer NAME COMPILER FOLDER-OF-THE-PC-FILE [FLAG...]: the same with pkg-config.
pkg_config_consumer() {
    local name=$1 compiler=$2 flags
    local -x PKG_CONFIG_PATH=$3
    shift 3
    flags=$(pkg-config --cflags --libs orbaoauth2client) || fail "$name: pkg-config"
    read -ra flags <<<"$flags"
    quietly "$compiler" -std=c++17 "$here/consumer/consumer.cpp" -o "$name" "${flags[@]}" "$@"
}
