#!/usr/bin/env bash
# Runs the test_... functions of a file, and test_KIND_... and test_USER_... for that kind or user only.
#
# usage: run_tests.sh FILE root|ordinary [bwrap|proot]      in the environment, TEST=NAME: only that one
#
# Each test gets a checkout of its own, which holds the scripts and an empty build folder, as the current
# directory. After it nothing that it started may still run, and nothing may be left in its folder for
# temporary files.
# shellcheck disable=SC2034,SC2154 # variables for and from the tests
set -Eeuo pipefail
here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
file=$1 user=$2 kind=${3:-}
ordinary_id=65534

fail() {
    trap - ERR
    printf 'FAIL %s: %s\n' "$test" "$1" >&2
    exit 1
}

# run COMMAND [ARG...]: sets $output, $errors and $status.
run() {
    status=0
    "$@" >"$work/output" 2>"$work/errors" || status=$?
    output=$(<"$work/output")
    errors=$(<"$work/errors")
}

# expect_equal ACTUAL EXPECTED WHAT
expect_equal() {
    [[ $1 == "$2" ]] || fail "$3: expected \"$2\", got \"$1\""
}

# expect_contains TEXT PART WHAT
expect_contains() {
    [[ $1 == *"$2"* ]] || fail "$3: expected \"$2\" in \"$1\""
}

# expect_refusal STATUS PART...: no output, and one line that holds the parts.
expect_refusal() {
    expect_equal "$status/$output" "$1/" "status and output"
    [[ -n $errors && $errors != *$'\n'* ]] || fail "expected one line, got \"$errors\""
    for part in "${@:2}"; do expect_contains "$errors" "$part" "complaint"; done
}

# wait_until CONDITION: evaluates it until it holds, for 20 seconds at most.
wait_until() {
    local deadline=$((SECONDS + 20))
    until eval "$1"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.02
    done
}

# make_command FOLDER NAME: a shell script, whose text comes from the standard input.
make_command() {
    mkdir -p "$1"
    (echo '#!/bin/sh' && cat) >"$1/$2"
    chmod +x "$1/$2"
}

# bare_path: prints a PATH with what every machine has, and npm, node and a compiler.
bare_path() {
    local name
    mkdir "$work/path"
    for name in bash sh env sed grep cat cp cmp cut mkdir rm ln ls tail head dirname basename touch mktemp \
        chmod realpath wc tr true printf sleep openssl cc node npm; do
        ln -s "$(type -P "$name")" "$work/path"
    done
    echo "$work/path"
}

# Prints the ids of the processes that the test started, by the mark in their environment.
ids_left() {
    { grep -lzxF "ORBA_TEST_MARK=$work" /proc/[0-9]*/environ 2>/dev/null || true; } | tr -cd '0-9\n'
}

# Prints the commands of these processes.
processes_left() {
    local id
    for id in $(ids_left); do tr '\0' ' ' 2>/dev/null <"/proc/$id/cmdline" || true; done
}

# The test named $test, as the right user.
run_here() {
    trap 'ids_left | xargs -r kill -KILL 2>/dev/null || true' EXIT
    cd "$work/checkout"
    (
        trap 'fail "$BASH_COMMAND (${BASH_SOURCE[0]##*/}:$LINENO)"' ERR
        export ORBA_TEST_MARK=$work
        # shellcheck source=/dev/null
        source "$work/tests/$(basename -- "$file")"
        "$test"
    )
    expect_equal "$(processes_left)" "" "what still runs"
    expect_equal "$(ls -A "$TMPDIR" && compgen -G 'build/proot.*')" "" "temporary files that are left"
}

# Not in /tmp, because a checkout there is a case of its own, and where every user can read it.
run_test() {
    local become=() environment
    work=$(mktemp -d /var/tmp/orba-scripts-test.XXXXXX)
    temporary=$(mktemp -d /tmp/orba-scripts-test.XXXXXX)
    trap 'rm -rf "$work" "$temporary"' EXIT
    mkdir -p "$work"/{checkout/{build,cloud/node_modules},home,tests}
    chmod 755 "$work" "$temporary"
    cp -r "$here"/../../{scripts,.ci} "$work/checkout"
    cp "$here"/* "$work/tests"
    # Compiled once for all tests
    cp "$here/../../build/sandbox-init" "$work/checkout/build" 2>/dev/null || true
    # npm packages that are up to date
    echo '{"lockfileVersion": 3}' | tee "$work/checkout/cloud/package-lock.json" \
        >"$work/checkout/cloud/node_modules/.installed-package-lock.json"
    if [[ $user == ordinary && $EUID == 0 ]]; then
        chown -R "$ordinary_id:$ordinary_id" "$work" "$temporary"
        become=(setpriv --reuid "$ordinary_id" --regid "$ordinary_id" --clear-groups)
    fi
    environment=(-u ORBA_SANDBOX_KIND -u ORBA_SANDBOX_WRITABLE -u ORBA_SANDBOX -u ORBA_BUILT
        "HOME=$work/home" "TMPDIR=$temporary" "ORBA_TEST_INSIDE=$work" "test=$test")
    [[ -z $kind ]] || environment+=("ORBA_SANDBOX=$kind")
    cd /
    # Ended before ctest would, so that the folders are removed.
    timeout --kill-after=5 100 "${become[@]}" env "${environment[@]}" \
        bash "$work/tests/run_tests.sh" "$file" "$user" "$kind"
}

main() {
    local functions failed=0
    if [[ -n ${ORBA_TEST_INSIDE:-} ]]; then
        work=$ORBA_TEST_INSIDE
        run_here
        return
    fi
    mapfile -t functions < <(sed -nE 's/^(test_\w+)\(\) .*/\1/p' "$file")
    for test in "${functions[@]}"; do
        [[ -z ${TEST:-} || $TEST == "$test" ]] || continue
        [[ ! $test =~ ^test_(bwrap|proot|ordinary)_ || " $kind $user " == *" ${BASH_REMATCH[1]} "* ]] || continue
        if (run_test); then echo "PASS $test"; else failed=1; fi
    done
    return "$failed"
}

main
