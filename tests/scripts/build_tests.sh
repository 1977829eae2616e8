# Tests of scripts/test, .ci/run and the build step that they share, with a cmake and a ctest that
# only take notes.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

make_tools() {
    make_command "$work/bin" cmake <<<"echo \"cmake in \$PWD: \$*\" >>$work/calls; echo built"
    make_command "$work/bin" ctest <<<"echo \"ctest in \$PWD: \$*\" >>$work/calls; echo tested"
    PATH=$work/bin:$PATH
}

test_Test_ConfiguresBuildsAndRunsCtest() {
    make_tools
    run env -C / "$PWD/scripts/test" -R 'Some|Other' -V
    expect_equal "$status/$output" 0/tested "status and output"
    expect_equal "$errors" "scripts/test: building in build/dev" "said"
    expect_equal "$(<"$work/calls")" "cmake in $PWD: --preset dev
cmake in $PWD: --build --preset dev --parallel $(nproc) --target all
ctest in $PWD: --preset dev -R Some|Other -V" "calls"
}

test_Test_StatusIsCtests() {
    make_tools
    make_command "$work/bin" ctest <<<"exit 8"
    run scripts/test
    expect_equal "$status" 8 "status"
}

test_Test_ConfigurationFails_IsShown() {
    make_tools
    make_command "$work/bin" cmake <<<"echo 'CMake Error'; exit 1"
    run scripts/test
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" "CMake Error" "cmake's output"
    expect_contains "$errors" "the build could not be configured" "complaint"
}

test_Test_BuildFails_IsShown() {
    make_tools
    make_command "$work/bin" cmake <<<"[ \$1 = --preset ] || { echo 'error: no'; exit 2; }"
    run scripts/test
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" "error: no" "the compiler's output"
    expect_contains "$errors" "the build failed" "complaint"
}

test_Test_SetupFails_NothingIsBuilt() {
    make_tools
    make_command scripts setup <<<"echo 'setup: no' >&2; exit 1"
    run scripts/test
    expect_equal "$status/$errors" "1/setup: no" "status and complaint"
    [[ ! -e $work/calls ]] || fail "called: $(<"$work/calls")"
}

# make_ci TEST-STATUS CHECK-STATUS
make_ci() {
    make_command scripts test <<<"printf '%s\n' 'test 1' '100% tests passed, of 1' '' 'Time'; exit $1"
    make_command scripts check <<<"echo checked; exit $2"
}

test_Ci_RunsTestsAndChecks_ClosesWithWhatTheTestsEndedWith() {
    make_ci 0 0
    run bash .ci/run <&-
    expect_equal "$status/$output" "0/test 1
100% tests passed, of 1

Time
checked
100% tests passed, of 1

Time" "status and output"
}

test_Ci_TestsFail_ChecksRunAllTheSame() {
    make_ci 8 0
    run bash .ci/run <&-
    expect_equal "$status" 8 "status"
    expect_contains "$output" checked "output"
}

test_Ci_ChecksFail() {
    make_ci 0 1
    run bash .ci/run <&-
    expect_equal "$status" 1 "status"
}

# expect_unwritable FOLDER: what an ordinary user is told who cannot write there.
expect_unwritable() {
    chmod a-w "$1"
    run scripts/test
    chmod u+w "$1"
    expect_equal "$status/$output" 1/ "status and output"
    expect_equal "$errors" "scripts/test: cannot write to $1, where the build goes" "complaint"
}

test_BuildFolderNotWritable_IsSaidInOneLine() {
    expect_unwritable "$PWD/build"
}

test_DevFolderNotWritable_IsSaidInOneLine() {
    mkdir build/dev
    expect_unwritable "$PWD/build/dev"
}

test_CheckoutNotWritable_IsSaidInOneLine() {
    rmdir build
    expect_unwritable "$PWD"
}
