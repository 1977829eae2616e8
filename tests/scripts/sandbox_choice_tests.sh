# Tests of how scripts/sandbox chooses between bwrap and proot, and what it says when neither works.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

# make_failing NAME: a command that says that it is refused.
make_failing() {
    make_command "$work/failing" "$1" <<<"echo '$1: refused here' >&2; exit 1"
    PATH=$work/failing:$PATH
}

expect_refusal() {
    expect_equal "$status" 125 "status"
    expect_equal "$output" "" "output"
    expect_one_line "$errors" "complaint"
}

test_BothWork_BwrapIsTaken() {
    expect_equal "$(scripts/sandbox sh -c 'echo $ORBA_SANDBOX_KIND')" bwrap "kind"
}

test_BwrapFails_ProotIsTaken() {
    make_failing bwrap
    run scripts/sandbox sh -c 'echo $ORBA_SANDBOX_KIND'
    expect_equal "$output/$errors" proot/ "kind and complaints"
}

test_BwrapMissing_ProotIsTaken() {
    PATH=$(path_without bwrap)
    run scripts/sandbox sh -c 'echo $ORBA_SANDBOX_KIND'
    expect_equal "$output/$errors" proot/ "kind and complaints"
}

test_BothFail_OneLineSaysWhyAndWhatToDo() {
    make_failing bwrap
    make_failing proot
    run scripts/sandbox echo ran
    expect_refusal
    expect_contains "$errors" "bwrap: refused here" "why"
    expect_contains "$errors" "proot: refused here" "why"
    expect_contains "$errors" "install bubblewrap and allow user namespaces" "what to do"
    expect_contains "$errors" "install proot and allow ptrace" "what to do"
}

test_BothMissing_OneLineSaysWhyAndWhatToDo() {
    PATH=$(path_without bwrap proot)
    run scripts/sandbox echo ran
    expect_refusal
    expect_contains "$errors" "bwrap is not installed; proot is not installed" "why"
    expect_contains "$errors" "install bubblewrap" "what to do"
}

test_ChosenKindFails_TheOtherIsNotTaken() {
    local name
    for name in bwrap proot; do
        make_failing "$name"
        ORBA_SANDBOX=$name run scripts/sandbox echo ran
        expect_refusal
        expect_contains "$errors" "$name: refused here" "why"
    done
}

test_KindUnknown_IsRefused() {
    ORBA_SANDBOX=other run scripts/sandbox echo ran
    expect_refusal
    expect_contains "$errors" '"other"' "complaint"
}

test_NoCommand_ShowsUsage() {
    run scripts/sandbox
    expect_refusal
    expect_contains "$errors" "usage: scripts/sandbox COMMAND" "complaint"
}

test_OpensslFails_ItsMessageIsShown() {
    make_failing openssl
    run scripts/sandbox echo ran
    expect_equal "$status/$output" 125/ "status and output"
    expect_contains "$errors" "openssl: refused here" "complaint"
}

# The machine without the package ca-certificates is one with that folder hidden.
test_BundleMissing_SetupIsNamed() {
    run bwrap --ro-bind / / --dev-bind /dev /dev --bind "$work" "$work" --bind "$TMPDIR" "$TMPDIR" \
        --tmpfs /etc/ssl/certs scripts/sandbox echo ran
    expect_refusal
    expect_contains "$errors" "/etc/ssl/certs/ca-certificates.crt" "what is missing"
    expect_contains "$errors" "run scripts/setup" "what to do"
}
