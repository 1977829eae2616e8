# Tests of scripts/check, with tools that only take notes.
# shellcheck shell=bash disable=SC2001,SC2016,SC2154,SC2164

# make_tools [CTEST COMMAND...]
make_tools() {
    make_command scripts setup <<<"echo \"setup \$*\" >>$work/calls"
    make_command "$work/bin" cmake <<<"echo \"cmake \$*\" >>$work/calls"
    make_command "$work/bin" ctest <<<"echo \"ctest \$*\" >>$work/calls; ${*:-echo '100% tests passed, of 3'}"
    make_command scripts fuzz <<<"echo 'target executions'; echo \"fuzz \$*\" >>$work/calls"
    PATH=$work/bin:$PATH
}

test_Sections_RunInTurnAndFillTheTable() {
    make_tools "echo 'test 1 passed'; echo '100% tests passed, of 3'; echo time"
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
    expect_equal "$(<build/check/abi.log)" "scripts/check: building in build/check
test 1 passed
100% tests passed, of 3
time" "the section's log"
    expect_equal "$(<"$work/calls")" "setup --check
cmake --preset check
cmake --build --preset check --parallel $(nproc) --target all
ctest --preset check -L abi
fuzz --seconds 30" "calls"
}

test_SectionFails_IsShownAndTheNextOneRuns() {
    make_tools "echo 'test 1 FAILED'; exit 8"
    run scripts/check abi fuzz
    expect_equal "$status" 1 "status"
    expect_contains "$output" "test 1 FAILED" "the failed section's log"
    expect_contains "$output" "abi        FAILED" "the table"
    expect_contains "$output" "fuzz       held" "the table"
}

test_BuildFails_FailsItsSectionOnly() {
    make_tools
    make_command "$work/bin" cmake <<<"echo 'error: no'; exit 1"
    run scripts/check abi fuzz
    expect_equal "$status" 1 "status"
    expect_contains "$output" "error: no" "the failed section's log"
    expect_contains "$output" "abi        FAILED" "the table"
    expect_contains "$output" "fuzz       held" "the table"
    [[ $(<"$work/calls") != *ctest* ]] || fail "tested what was not built"
}

test_UnknownSection_IsToldBeforeAnythingRuns() {
    make_tools
    run scripts/check abi some
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" "no section some; there are: static package abi" "complaint"
    expect_equal "$(<"$work/calls")" "setup --check" "calls"
}

test_SetupFails_NothingRuns() {
    make_tools
    make_command scripts setup <<<"echo 'setup: no' >&2; exit 1"
    run scripts/check
    expect_equal "$status/$output/$errors" "1//setup: no" "status, output and complaint"
}
