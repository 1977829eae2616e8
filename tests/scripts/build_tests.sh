# Tests of scripts/test, scripts/check, .ci/run and what the scripts share, with tools that only take notes.
# shellcheck shell=bash disable=SC2001,SC2016,SC2065,SC2154,SC2164,SC2265

# make_tools [CTEST COMMAND...]
make_tools() {
    local name
    for name in setup sandbox fuzz; do make_command scripts "$name" <<<"echo \"$name \$*\" >>$work/calls"; done
    make_command "$work/bin" cmake <<<"echo \"cmake \$*\" >>$work/calls; echo built"
    make_command "$work/bin" ctest <<<"echo \"ctest \$*\" >>$work/calls; ${*:-echo '100% tests passed, of 3'}"
    PATH=$work/bin:$PATH
}

test_Test_ConfiguresBuildsAndRunsCtest() {
    make_tools 'echo tested; exit 8'
    run env -C / "$PWD/scripts/test" -R 'Some|Other' -V
    expect_equal "$status/$output/$errors" "8/tested/scripts/test: building in build/dev" "status and output"
    expect_equal "$(<"$work/calls")" "setup --test
sandbox true
cmake --preset dev
cmake --build --preset dev --parallel $(nproc) --target all
ctest --preset dev -R Some|Other -V" "calls"
    run scripts/test
    expect_equal "$(tail -n 1 "$work/calls")" 'ctest --preset dev -LE slow|matrix' "by default"
    make_command scripts sandbox <<<"exit 125"
    run scripts/test
    expect_contains "$errors" "bubblewrap cannot be used here" "without namespaces"
}

test_WhatFails_IsShownAndNothingElseRuns() {
    local name
    make_tools
    make_command "$work/bin" cmake <<<"[ \$1 = --preset ] || { echo 'error: no'; exit 2; }"
    run scripts/test
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" $'\nerror: no\nscripts/test: the build failed' "the compiler's output"
    make_command "$work/bin" cmake <<<"echo 'CMake Error'; exit 1"
    run scripts/test
    expect_contains "$errors" $'\nCMake Error\nscripts/test: the build could not be configured' "cmake's output"
    make_command scripts setup <<<"echo 'setup: no' >&2; exit 1"
    for name in test check demo; do
        run "scripts/$name"
        expect_equal "$status/$output/$errors" "1//setup: no" "status and complaint of scripts/$name"
    done
    [[ $(<"$work/calls") != *ctest* ]] || fail "called: $(<"$work/calls")"
}

test_FolderNotWritable_IsSaidInOneLine() {
    local folder
    make_tools
    mkdir build/dev
    for folder in "$PWD/build/dev" "$PWD/build" "$PWD"; do
        chmod a-w "$folder"
        run scripts/test
        chmod u+w "$folder"
        expect_refusal 1 "cannot write to $folder, where the build goes"
        rm -rf "build${folder#"$PWD/build"}"
    done
}

test_BuildFolderInUse_IsWaitedFor() {
    local first
    make_tools "touch $work/testing; until [ -e $work/go ]; do sleep 0.02; done; echo tested"
    scripts/test >/dev/null 2>&1 &
    first=$!
    wait_until '[[ -e $work/testing ]]'
    scripts/check abi >"$work/table" &
    wait_until 'grep -qs waiting build/check/abi.log'
    expect_equal "$(<build/check/abi.log)" \
        "scripts/check: waiting for scripts/test (process $first), which uses build/dev" "the second"
    ORBA_BUILT=$PWD/build/dev run scripts/demo
    expect_equal "$(tail -n 1 "$work/calls")" "sandbox $PWD/scripts/demo --inside" "within a test of the folder"
    touch "$work/go"
    wait
    expect_contains "$(<"$work/table")" "abi        held" "the second, at its end"
}

test_Help_IsShownAndNothingRuns() {
    local script
    make_command "$work/bin" node <<<"touch $work/called"
    make_command "$work/bin" cmake <<<"touch $work/called"
    for script in scripts/*; do
        [[ $script != *.* ]] || continue
        PATH=$work/bin:$PATH run "$script" --help
        expect_equal "$status/$errors" 0/ "status and complaints"
        expect_contains "$output" "usage: $script" "help"
    done
    [[ ! -e $work/called ]] || fail "something ran"
}

test_Check_RunsItsSectionsInTurnAndFillsTheTable() {
    make_tools "echo 'test 1 passed'; echo '100% tests passed, of 3'; echo time"
    make_command scripts fuzz <<<"echo 'target executions'; echo \"fuzz \$*\" >>$work/calls"
    run scripts/check abi fuzz
    expect_equal "$status/$errors" 0/ "status and complaints"
    expect_equal "$(sed 's/[0-9]* s\b/N s/' <<<"$output")" "== abi
100% tests passed, of 3
   held after N s; build/check/abi.log
== fuzz
target executions
   held after N s; build/check/fuzz.log

section    result   time
abi        held        N s
fuzz       held        N s" "output"
    expect_equal "$(<build/check/abi.log)" "scripts/check: building in build/dev
test 1 passed
100% tests passed, of 3
time" "the section's log"
    expect_equal "$(<"$work/calls")" "setup --check
cmake --preset check
cmake --build --preset check --parallel $(nproc) --target all
ctest --preset check -L abi
fuzz --seconds 30" "calls"
}

test_Check_SectionFails_IsShownAndTheNextOneRuns() {
    make_tools "echo 'test 1 FAILED'; exit 8"
    run scripts/check abi fuzz
    expect_equal "$status" 1 "status"
    expect_contains "$output" "test 1 FAILED" "the failed section's log"
    expect_contains "$output" "abi        FAILED" "the table"
    expect_contains "$output" "fuzz       held" "the table"
    make_command "$work/bin" cmake <<<"echo 'error: no'; exit 1"
    run scripts/check abi
    expect_contains "$output" "error: no" "the log of a build that failed"
}

test_Ci_RunsTestsAndChecks_ClosesWithWhatTheTestsEndedWith() {
    local statuses tested=$'\n100% tests passed, of 1\n\nTime'
    for statuses in 0:0:0 8:0:8 0:1:1; do
        IFS=: read -r first second expected <<<"$statuses"
        make_command scripts test <<<"printf '%s\n' 'test 1$tested'; exit $first"
        make_command scripts check <<<"echo checked; exit $second"
        run bash .ci/run <&-
        expect_equal "$status/$output" "$expected/test 1$tested"$'\nchecked'"$tested" "status and output"
    done
}
