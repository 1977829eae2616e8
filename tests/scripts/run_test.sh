#!/usr/bin/env bash
# Runs one test function and says whether it passed.
#
# usage: run_test.sh FILE TEST root|ordinary [KIND OF SANDBOX]
#
# The test gets a checkout of its own, which holds the scripts and an empty build folder, as the
# current directory. Afterwards nothing that it started may still run, and nothing may be left in
# its folder for temporary files.
set -Eeuo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd -P)
file=$1 test=$2 user=$3 kind=${4:-}
readonly here file test user kind
readonly ordinary_id=65534

# shellcheck source=tests/scripts/expect.sh
source "$here/expect.sh"

# Outside /tmp, because a checkout there is a case of its own, and where every user can read it.
make_work_folder() {
    work=$(mktemp -d /var/tmp/orba-scripts-test.XXXXXX)
    temporary=$(mktemp -d /tmp/orba-scripts-test.XXXXXX)
    trap 'rm -rf "$work" "$temporary"' EXIT
    mkdir -p "$work"/{checkout/{build,cloud/node_modules},home,tests}
    chmod 755 "$work" "$temporary"
    cp -r "$here"/../../{scripts,.ci} "$work/checkout"
    cp "$here"/* "$work/tests"
    # npm packages that are up to date
    echo '{"lockfileVersion": 3}' | tee "$work/checkout/cloud/package-lock.json" \
        >"$work/checkout/cloud/node_modules/.installed-package-lock.json"
}

# Prints the ids of the processes that the test started, by the mark in their environment.
ids_left() {
    { grep -lzxF "ORBA_TEST_MARK=$work" /proc/[0-9]*/environ 2>/dev/null || true; } |
        tr -cd '0-9\n'
}

# Prints the commands of these processes.
processes_left() {
    local id
    for id in $(ids_left); do
        tr '\0' ' ' 2>/dev/null <"/proc/$id/cmdline" || true
    done
}

end_what_is_left() {
    local id
    for id in $(ids_left); do kill -KILL "$id" 2>/dev/null || true; done
}

expect_nothing_left() {
    expect_equal "$(processes_left)" "" "what still runs"
    expect_equal "$(ls -A "$temporary")" "" "what is left in TMPDIR"
}

# The test itself, as the right user.
run_here() {
    work=$1 temporary=$2
    # shellcheck source=/dev/null
    source "$work/tests/$(basename -- "$file")"
    trap end_what_is_left EXIT
    cd "$work/checkout"
    (
        trap 'fail "$BASH_COMMAND (${BASH_SOURCE[0]##*/}:$LINENO)"' ERR
        export ORBA_TEST_MARK=$work
        "$test"
    )
    expect_nothing_left
    echo "PASS $test"
}

main() {
    local become=() environment
    if [[ -n ${ORBA_TEST_INSIDE:-} ]]; then
        run_here "$ORBA_TEST_INSIDE" "$TMPDIR"
        return
    fi
    case $user in
        root) ((EUID == 0)) || fail "only root can run this test" ;;
        ordinary) ((EUID != 0)) || become=(
            setpriv --reuid "$ordinary_id" --regid "$ordinary_id" --clear-groups
        ) ;;
        *) fail "there is no user $user" ;;
    esac
    make_work_folder
    ((${#become[@]} == 0)) || chown -R "$ordinary_id:$ordinary_id" "$work" "$temporary"
    environment=(-u ORBA_SANDBOX_KIND -u ORBA_SANDBOX_WRITABLE -u ORBA_SANDBOX
        "HOME=$work/home" "TMPDIR=$temporary" "ORBA_TEST_INSIDE=$work")
    [[ -z $kind ]] || environment+=("ORBA_SANDBOX=$kind")
    cd /
    "${become[@]}" env "${environment[@]}" bash "$work/tests/run_test.sh" "$@"
}

main "$@"
