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
    diff -u "$here/consumer/${*##*/}.txt" - <<<"$output" || fail "$name: other output than expected"
    echo "ok   $name"
}

# expect_outputs NAME FOLDER: the same of all programs that a consumer's build has made.
expect_outputs() {
    local program
    for program in consumer session17 session20; do
        expect_output "$1, $program" "$2/$program"
    done
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
    local name=$1 compiler=$2 client session warnings=(-Wall -Wextra -Wpedantic -Werror)
    local -x PKG_CONFIG_PATH=$3
    shift 3
    client=$(pkg-config --cflags --libs orbaoauth2client) || fail "$name: pkg-config"
    session=$(pkg-config --cflags --libs orbaoauth2session) || fail "$name: pkg-config"
    read -ra client <<<"$client"
    read -ra session <<<"$session"
    mkdir "$name"
    quietly "$compiler" -std=c++17 "$here/consumer/consumer.cpp" -o "$name/consumer" "${client[@]}" "$@"
    for standard in 17 20; do
        quietly "$compiler" "-std=c++$standard" "${warnings[@]}" "$here/consumer/session.cpp" \
            -o "$name/session$standard" "${session[@]}" "$@"
    done
}
