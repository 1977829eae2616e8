# What the tests of the scripts share. To be sourced by run_test.sh.
# shellcheck shell=bash disable=SC2154

fail() {
    trap - ERR
    printf 'FAIL %s: %s\n' "${test:-}" "$1" >&2
    exit 1
}

# run COMMAND [ARG...]: sets $output, $errors and $status.
# shellcheck disable=SC2034 # they are for the tests
run() {
    local folder
    folder=$(mktemp -d)
    status=0
    "$@" >"$folder/output" 2>"$folder/errors" || status=$?
    output=$(<"$folder/output")
    errors=$(<"$folder/errors")
    rm -r "$folder"
}

# expect_equal ACTUAL EXPECTED WHAT
expect_equal() {
    [[ $1 == "$2" ]] || fail "$3: expected \"$2\", got \"$1\""
}

# expect_contains TEXT PART WHAT
expect_contains() {
    [[ $1 == *"$2"* ]] || fail "$3: expected \"$2\" in \"$1\""
}

# expect_one_line TEXT WHAT
expect_one_line() {
    [[ -n $1 && $1 != *$'\n'* ]] || fail "$2: expected one line, got \"$1\""
}

# wait_until CONDITION: evaluates it until it holds, for 10 seconds at most.
wait_until() {
    local deadline=$((SECONDS + 10))
    until eval "$1"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.02
    done
}

# make_command FOLDER NAME: a shell script, whose text comes from the standard input.
make_command() {
    mkdir -p "$1"
    {
        echo '#!/bin/sh'
        cat
    } >"$1/$2"
    chmod +x "$1/$2"
}

# path_without NAME...: prints a PATH on which these commands are not found, but all others are.
path_without() {
    local folder name
    folder=$(mktemp -d "$work/path.XXXXXX")
    local IFS=:
    for path in $PATH; do
        # Of two commands with one name the first is linked, as on the PATH.
        ln -s "$path"/* "$folder" 2>/dev/null || true
    done
    for name in "$@"; do rm -f "$folder/$name"; done
    echo "$folder"
}
